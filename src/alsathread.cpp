#include "alsathread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <span>

#include "common.h"
#include "events.h"
#include "lookout.h"
#include "sonivane.h"
#include "util.h"

std::atomic<int32_t> sound_breaks;

namespace
{

constexpr const char *unit = "alsathread";

constexpr int open_attempts = 5;
constexpr int64_t open_retry_microseconds = 2000000;
constexpr unsigned wanted_buffer_microseconds = 500000;
constexpr int32_t dsd_rate_limit = 11289615; // Hz: DSD256 of the 44.1 kHz family and a little
constexpr int32_t scanned_formats = SND_PCM_FORMAT_DSD_U8; // the scan's codes, from 0

constexpr uint32_t silence_frames = 8192;
constexpr uint8_t dsd_silence = 0x55; // 0101...: no tone, no offset

constexpr uint32_t urgent_pause = 10000; // microseconds; with shorter ones a late wake-up is heard

uint32_t alsa_buffer_frames; // as the device granted it; the thread that runs sound_open
ringbuffer *silence_ring;    // a plain array of silence; made by main, then read by output
int32_t primed;              // 1: the pre-roll is complete; output thread
int32_t silence_written;     // frames of the pre-roll that the device took; output thread
uint32_t silence_phase;      // 1: its pairs begin with the second frame of one; output thread

// Frames of the pre-roll still to go out; below 0 before the device is open. Written by the output
// thread, read by main.
std::atomic<int32_t> silence_left = -1;

// The output thread waits for frames in the ring. Set by it, cleared by main.
std::atomic<int32_t> starving;

// Ends the process with the given report when an ALSA call failed; format takes the system's text
// for its code.
void require(int code, int32_t number, const char *format)
{
    if (code < 0) fatal_report(unit, number, format, snd_strerror(code));
}

int32_t format_bytes(int32_t format)
{
    return snd_pcm_format_physical_width(static_cast<snd_pcm_format_t>(format)) / 8;
}

// Once the probe has settled the stream.
bool stream_is_settled()
{
    return output_rate != 0;
}

// --- Formats ------------------------------------------------------------------------------------

// The formats whose samples the feeders make as they should be: of PCM signed integers, lowest byte
// first, and floats. By their names in ALSA.
struct format_row {
    int32_t format; // SND_PCM_FORMAT_*
    const char *name;
};
constexpr std::array<format_row, 10> filled_formats = {{
    {SND_PCM_FORMAT_S8, "S8"},
    {SND_PCM_FORMAT_S16_LE, "S16_LE"},
    {SND_PCM_FORMAT_S18_3LE, "S18_3LE"},
    {SND_PCM_FORMAT_S20_LE, "S20_LE"},
    {SND_PCM_FORMAT_S20_3LE, "S20_3LE"},
    {SND_PCM_FORMAT_S24_LE, "S24_LE"},
    {SND_PCM_FORMAT_S24_3LE, "S24_3LE"},
    {SND_PCM_FORMAT_S32_LE, "S32_LE"},
    {SND_PCM_FORMAT_FLOAT_LE, "FLOAT_LE"},
    {SND_PCM_FORMAT_DSD_U32_BE, "DSD_U32_BE"},
}};

// Empty for a format that the player does not fill.
const char *filled_name(int32_t format)
{
    for (const format_row &row : filled_formats)
        if (row.format == format) return row.name;
    return "";
}

// --- The form of the stream ---------------------------------------------------------------------

// A controller beside a card of this kind takes raw DSD bits in PCM words.
int32_t card_takes_i2s(int32_t card)
{
    char *name = nullptr;
    if (snd_card_get_name(card, &name) < 0) return flag_off;
    const int32_t found = std::strstr(name, "rpi") != nullptr ? flag_on : flag_off;
    std::free(name);
    return found;
}

// In Hz.
int32_t source_rate()
{
    return stream_file->wave.nSamplesPerSec;
}

// What the stream is, as the device agreed to it.
struct stream_settings {
    int32_t format; // SND_PCM_FORMAT_*; -1: none
    int32_t rate;   // frames per second
    int32_t i2s;
};

// Whether raw DSD bits are to go out, from the device's name alone.
int32_t wished_i2s()
{
    if (dsd_stream == 0) return flag_off;
    int card = 0;
    int device = 0;
    if (controller == nullptr ||
        std::sscanf(device_name.data(), "hw:%d,%d", &card, &device) != 2) // NOLINT(cert-err34-c)
        return i2s_mode;
    return card_takes_i2s(card);
}

void refuse_fast_dsd()
{
    if (dsd_stream != 0 && source_rate() > dsd_rate_limit)
        fatal_report(unit, 456, "Delta Sigma frequency too high %dHz\n", source_rate());
}

// --- Opening ------------------------------------------------------------------------------------

void print_retry(int attempt)
{
    static constexpr std::array<const char *, 3> ordinals = {"1st ", "2nd ", "3rd "};
    if (attempt < 3)
        std::fputs(ordinals[static_cast<size_t>(attempt)], stderr);
    else
        std::fprintf(stderr, "%dth ", attempt + 1);
    std::fputs("snd_pcm_open() failed. retrying ...\r", stderr);
}

// False when the sound was stopped meanwhile.
bool wait_for_retry()
{
    wait_for(open_retry_microseconds,
             [] { return is_stopped() || load_acquire(interrupted) != 0; });
    exit_if_interrupted();
    return !is_stopped();
}

// False when the output was stopped before the device could be had.
bool open_device()
{
    int code = 0;
    for (int attempt = 0; attempt < open_attempts; ++attempt) {
        event_opening(attempt + 1);
        code = snd_pcm_open(&pcm, device_name.data(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
        if (code >= 0) {
            require(snd_pcm_nonblock(pcm, -1), 509, "snd_pcm_hw_nonblock() failed. %s\n");
            return true;
        }
        event_not_opened(attempt + 1, snd_strerror(code));
        print_retry(attempt);
        if (!wait_for_retry()) return false;
    }
    std::fputc('\n', stderr);
    fatal_report(unit, 505, "snd_pcm_open() failed. %s\n\n", snd_strerror(code));
}

// --- Hardware parameters ------------------------------------------------------------------------

int test_format(snd_pcm_hw_params_t *params, int32_t format)
{
    return snd_pcm_hw_params_test_format(pcm, params, static_cast<snd_pcm_format_t>(format));
}

enum class hw_attempt { first, second };

// The format with the most significant bits; of equally wide ones the lowest code. PCM in a DSD
// format would be full-scale noise. A second attempt is content with what the player fills: a plug
// device lists floats of 64 bits that it can turn into nothing its sound server takes.
int32_t widest_format(snd_pcm_hw_params_t *params, hw_attempt attempt)
{
    int32_t best = -1;
    int best_width = 0;
    for (int32_t format = 0; format < scanned_formats; ++format) {
        const int width = snd_pcm_format_width(static_cast<snd_pcm_format_t>(format));
        const bool wanted = attempt == hw_attempt::first || *filled_name(format) != '\0';
        if (wanted && width > best_width && test_format(params, format) == 0) {
            best = format;
            best_width = width;
        }
    }
    if (best < 0 && attempt == hw_attempt::second) return widest_format(params, hw_attempt::first);
    return best;
}

void choose_pcm_form(snd_pcm_hw_params_t *params, hw_attempt attempt, stream_settings *stream)
{
    *stream = {widest_format(params, attempt), oversample != 0 ? oversampled_rate : source_rate(),
               flag_off};
}

bool is_offered(const dsd_form &form, int32_t i2s)
{
    return form.offered == form_offer::always ||
           form.offered == (i2s != 0 ? form_offer::with_i2s : form_offer::without_i2s);
}

// Frames per second of DSD in that form.
int32_t dsd_rate(const dsd_form &form)
{
    return source_rate() / (form.rate_step * form.bits_per_frame) * form.rate_step;
}

// Settles the DSD form: the first one offered that the device takes. Result: 0, or the code of the
// last refused test.
int choose_dsd_form(snd_pcm_hw_params_t *params, int32_t i2s, stream_settings *stream)
{
    int code = 0;
    for (const dsd_form &form : dsd_forms) {
        if (!is_offered(form, i2s)) continue;
        code = test_format(params, form.format);
        if (code != 0) continue;
        *stream = {form.format, dsd_rate(form),
                   form.offered == form_offer::with_i2s ? flag_on : flag_off};
        return 0;
    }
    if (i2s == 0) report(unit, 167, "snd_pcm_hw_params_set_format(Delta Sigma stream) failed.\n");
    return code;
}

void set_format(snd_pcm_hw_params_t *params, int32_t format)
{
    // libasound aborts on a format of -1, which stands for none accepted.
    if (format < 0 ||
        snd_pcm_hw_params_set_format(pcm, params, static_cast<snd_pcm_format_t>(format)) < 0) {
        fatal_report(unit, 191, "snd_pcm_hw_params_set_format(format=%d) failed.\n", format);
    }
}

// The exact rate, in frames per second, or a report. A device with no lower limit is not asked for
// a rate of 0, which nothing could be timed by.
void set_rate(snd_pcm_hw_params_t *params, int32_t rate)
{
    const auto wanted = static_cast<unsigned>(rate);
    unsigned limit = 0;
    require(snd_pcm_hw_params_get_rate_min(params, &limit, nullptr), 198,
            "snd_pcm_hw_params_get_rate_min() failed. %s\n");
    if (std::max(limit, 1U) > wanted) {
        fatal_report(unit, 202, "This hardware supports minimum rate %dHz not %dHz\n",
                     static_cast<int>(limit), rate);
    }
    require(snd_pcm_hw_params_get_rate_max(params, &limit, nullptr), 207,
            "snd_pcm_hw_params_get_rate_max() failed. %s\n");
    if (limit < wanted) {
        fatal_report(unit, 211, "This hardware maximum rate %dHz, do not support %dHz\n",
                     static_cast<int>(limit), rate);
    }
    const int code = snd_pcm_hw_params_set_rate(pcm, params, wanted, 0);
    if (code < 0) {
        fatal_report(unit, 217, "Rate %dHz not available for playback: %s\n", rate,
                     snd_strerror(code));
    }
}

void set_buffer(snd_pcm_hw_params_t *params)
{
    unsigned microseconds = wanted_buffer_microseconds;
    const int code = snd_pcm_hw_params_set_buffer_time_near(pcm, params, &microseconds, nullptr);
    if (code < 0) {
        fatal_report(unit, 226, "Unable to set buffer time %d for playback: %s\n",
                     static_cast<int>(microseconds), snd_strerror(code));
    }
    snd_pcm_uframes_t frames = 0;
    require(snd_pcm_hw_params_get_buffer_size(params, &frames), 231,
            "Unable to get buffer size for playback: %s\n");
    alsa_buffer_frames = static_cast<uint32_t>(frames);
}

// Asks for the size of a period where the device's own choice of one refuses the buffer; what comes
// of it shows in the parameters as a whole.
void set_period(snd_pcm_hw_params_t *params)
{
    unsigned microseconds = wanted_buffer_microseconds / 4;
    snd_pcm_hw_params_set_period_time_near(pcm, params, &microseconds, nullptr);
}

// Narrows params down to what is wished and granted, without setting them. Results as of
// sound_hwparams.
int choose_hwparams(snd_pcm_hw_params_t *params, int32_t i2s, hw_attempt attempt,
                    stream_settings *stream)
{
    require(snd_pcm_hw_params_any(pcm, params), 118,
            "Broken configuration for playback: no configurations available: %s\n");
    require(snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED), 126,
            "Access type not available for playback: %s\n");
    const int code = snd_pcm_hw_params_set_channels(pcm, params, stream_channels);
    if (code < 0) {
        fatal_report(unit, 133, "Channels count (%d) not available for playbacks: %s\n",
                     stream_channels, snd_strerror(code));
    }
    if (dsd_stream != 0) {
        const int refused = choose_dsd_form(params, i2s, stream);
        if (refused != 0) return refused;
    } else {
        choose_pcm_form(params, attempt, stream);
    }
    set_format(params, stream->format);
    set_rate(params, stream->rate);
    if (attempt == hw_attempt::second) set_period(params);
    set_buffer(params);
    return 0;
}

// Sets all hardware parameters of the open pcm on the zeroed block params, and *stream, in I2S if
// that is wished. Result: 0, or the negative code that refused a form; every other failure ends the
// process. A sound server whose periods are powers of two refuses the buffer that it would have
// granted on top of a period.
int sound_hwparams(snd_pcm_hw_params_t *params, int32_t i2s, stream_settings *stream)
{
    int refused = choose_hwparams(params, i2s, hw_attempt::first, stream);
    if (refused != 0 || snd_pcm_hw_params(pcm, params) >= 0) return refused;
    refused = choose_hwparams(params, i2s, hw_attempt::second, stream);
    if (refused != 0) return refused;
    require(snd_pcm_hw_params(pcm, params), 239, "Unable to set hw params for playback: %s\n");
    return 0;
}

// --- Software parameters ------------------------------------------------------------------------

// Sets all software parameters of pcm on the zeroed block params. Result: 0; every failure ends the
// process.
int sound_swparams(snd_pcm_sw_params_t *params)
{
    require(snd_pcm_sw_params_current(pcm, params), 257,
            "Unable to determine current swparams for playback: %s\n");
    require(snd_pcm_sw_params_set_start_threshold(pcm, params, alsa_buffer_frames / 2), 265,
            "Unable to set start threshold mode for playback: %s\n");
    require(snd_pcm_sw_params_set_avail_min(pcm, params, alsa_buffer_frames), 273,
            "Unable to set avail min for playback: %s\n");
    require(snd_pcm_sw_params(pcm, params), 279, "Unable to set sw params for playback: %s\n");
    return 0;
}

// --- Silence ------------------------------------------------------------------------------------

void fill_silence()
{
    const std::span<uint8_t> data(ring_data(silence_ring), silence_ring->ring_size);
    std::fill(data.begin(), data.end(), uint8_t{0});
    if (dsd_stream == 0) return;
    const dsd_form &form = find_dsd_form(output_format, i2s_mode);
    std::array<uint8_t, dsd_group_bytes> group;
    group.fill(dsd_silence);
    for (size_t at = 0; at < data.size();) at += form.pack(group, &data[at]);
}

void make_silence()
{
    if (silence_ring != nullptr) return;
    const auto frame_bytes = static_cast<uint32_t>(stream_file->out_frame_bytes);
    silence_ring = ringbuffer_new(silence_frames * frame_bytes, frame_bytes, file_count);
    if (silence_ring == nullptr)
        report(unit, 535, "ringbuffer allocation failed.\n");
    else
        fill_silence();
}

// --- Opening as a whole -------------------------------------------------------------------------

// Once the ring holds frames of the settled form, a device that takes another one would play them
// as noise.
bool agrees_with_settled(const stream_settings &stream)
{
    return !stream_is_settled() || (stream.format == output_format && stream.rate == output_rate);
}

// Opens, configures and prepares the device for stream_file: on the main thread for the probe, on
// the output thread for good. *stream: what it agreed to. False when the sound was stopped before
// the device could be had.
bool sound_open(stream_settings *stream)
{
    refuse_fast_dsd();
    const int32_t i2s = wished_i2s();
    if (!open_device()) return false;

    snd_pcm_hw_params_t *hw_params = nullptr;
    snd_pcm_hw_params_alloca(&hw_params);
    int code = sound_hwparams(hw_params, i2s, stream);
    if (code == 0 && !agrees_with_settled(*stream)) code = -EINVAL;
    if (code != 0) fatal_report(unit, 514, "sound_hwparams() failed. %s\n", snd_strerror(code));

    snd_pcm_sw_params_t *sw_params = nullptr;
    snd_pcm_sw_params_alloca(&sw_params);
    code = sound_swparams(sw_params);
    if (code != 0) fatal_report(unit, 521, "sound_swparams() failed. %s\n", snd_strerror(code));
    code = snd_pcm_prepare(pcm);
    if (code != 0) fatal_report(unit, 526, "snd_pcm_prepare() failed. %s\n", snd_strerror(code));
    return true;
}

// --- The writer pump ----------------------------------------------------------------------------

constexpr stop_cause refused = {stop_reason::refused, nullptr, 0};

// How a device shows that it plays no more.
struct device_stop {
    snd_pcm_state_t state;
    int code; // of a call; 0: none
    stop_cause cause;
};
constexpr std::array<device_stop, 4> device_stops = {{
    {SND_PCM_STATE_XRUN, -EPIPE, {stop_reason::underrun, nullptr, 0}},
    {SND_PCM_STATE_SUSPENDED, -ESTRPIPE, {stop_reason::suspended, nullptr, 0}},
    {SND_PCM_STATE_DISCONNECTED, -ENODEV, {stop_reason::disconnected, nullptr, 0}},
    {SND_PCM_STATE_DRAINING, 0, refused},
}};

// Null for a state that goes on.
const stop_cause *cause_of_state(snd_pcm_state_t state)
{
    for (const device_stop &row : device_stops)
        if (row.state == state) return &row.cause;
    return nullptr;
}

const stop_cause *cause_of_code(int code, const stop_cause *otherwise)
{
    for (const device_stop &row : device_stops)
        if (row.code == code) return &row.cause;
    return otherwise;
}

// Whether the sound goes on after that cause; null does for none.
bool ends_in_break(const stop_cause *cause)
{
    return keep_going != 0 && cause != nullptr &&
           (cause->reason == stop_reason::underrun || cause->reason == stop_reason::suspended);
}

// The code of starting the device; 0 for a break, which the next look at its state meets.
int start_code()
{
    const int code = snd_pcm_start(pcm);
    return ends_in_break(cause_of_code(code, nullptr)) ? 0 : code;
}

// Starts a device that waits at its threshold with the buffer nearly full.
void start_if_prepared()
{
    if (snd_pcm_state(pcm) != SND_PCM_STATE_PREPARED) return;
    require(start_code(), 323, "snd_pcm_start() error. %s\n");
}

// What a step of the pump came to.
enum class pump_step {
    wrote,     // frames went out
    full,      // the device is nearly full
    took_none, // the device took nothing
    starved,   // there is nothing to give
    drains,    // the device plays what it has and takes no more
    broke_off, // the device stopped, and the sound is to go on
};

const stop_cause *break_cause; // of the last break
int64_t held_frames;           // that the device had to play when it was last looked at
uint64_t begun_at_byte;        // of the ring: where the sound last began

// The device plays no more, for that cause.
pump_step device_stopped(const stop_cause *cause)
{
    if (!ends_in_break(cause)) {
        stop_playing(cause);
        return pump_step::took_none;
    }
    break_cause = cause;
    return pump_step::broke_off;
}

// --- A device that stands still -----------------------------------------------------------------

using sound_clock = std::chrono::steady_clock;
using std::chrono::microseconds;

// When the device last took or played a frame. The constructor sets a number and throws nothing.
sound_clock::time_point moved_at; // NOLINT(cert-err58-cpp)

microseconds duration_of(int64_t frames)
{
    return microseconds(frames * 1000000 / output_rate);
}

// A device without room should have played something since the last look, sooner or later. A
// display that sleeps or a controller that lost its interrupts never does.
void look_for_standstill(int32_t avail)
{
    constexpr microseconds patience = std::chrono::seconds(10);
    static int32_t last_avail;
    const auto now = sound_clock::now();
    if (avail != last_avail || snd_pcm_state(pcm) != SND_PCM_STATE_RUNNING) moved_at = now;
    last_avail = avail;
    if (now - moved_at < std::max(patience, 4 * duration_of(alsa_buffer_frames))) return;
    stop_playing(&refused);
    report(unit, 583, "the device stands still.\n");
}

// --- Writing ------------------------------------------------------------------------------------

// Sends silence in pairs of an even and an odd frame, whatever count the device takes. avail is the
// device's room in frames, above nearly_full_frames.
pump_step write_silence(snd_pcm_sframes_t avail)
{
    const bool odd = silence_written % 2 != 0;
    const snd_pcm_sframes_t pairs = (avail - 1) & ~snd_pcm_sframes_t{1};
    const snd_pcm_sframes_t at_hand = silence_frames - 2 * silence_phase;
    const snd_pcm_sframes_t wanted = odd ? 1 : std::min(pairs, at_hand);
    const bool second = odd != (silence_phase != 0);
    const uint8_t *frames = ring_data(silence_ring) + (second ? silence_ring->gap : 0);

    const snd_pcm_sframes_t written =
        snd_pcm_writei(pcm, frames, static_cast<snd_pcm_uframes_t>(wanted));
    if (written >= 0) {
        silence_written += static_cast<int32_t>(written);
        held_frames += written;
    } else if (written != -EAGAIN && written != -EPIPE) { // those two show in the next state
        const int code = static_cast<int>(written);
        const stop_cause *cause = cause_of_code(code, &refused);
        if (ends_in_break(cause)) return device_stopped(cause);
        stop_playing(cause);
        report(unit, 337, "snd_pcm_writei() returned code %d\n", code);
    }
    if (silence_written % 2 == 0 && silence_written >= output_rate) primed = 1;
    store_release(silence_left, primed != 0 ? 0 : std::max(output_rate - silence_written, 1));
    if (primed != 0) wake(waiter::main);
    return written > 0 ? pump_step::wrote : pump_step::took_none;
}

// Moves playing_file to the last file whose first byte has been sent.
void follow_marks()
{
    const uint64_t sent = load_acquire(ring->bytes_sent);
    soundfile *file = load_acquire(playing_file);
    while (load_acquire(ring->track_marks[file->index + 1]) < sent) file = file->next;
    store_release(playing_file, file);
}

// Whole units only: the count runs slow at rates that do not divide 352800, and stands above it.
void add_to_position(int32_t frames)
{
    const int64_t units = position_units_per_second / output_rate;
    std::atomic<int64_t> &position = load_acquire(playing_file)->position;
    store_release(position, load_acquire(position) + units * frames);
}

// Bytes of the stream ahead of the file's first one; above all others while they are not known.
uint64_t start_of(int32_t index)
{
    return index == stream_file->index ? 0 : load_acquire(ring->track_marks[index]);
}

int32_t next_to_tell; // index of a file

// Tells each file whose first frame has gone out since the last call. One without a frame is passed
// over.
void tell_playing()
{
    const uint64_t sent = load_acquire(ring->bytes_sent);
    for (int32_t &next = next_to_tell; next < file_count && start_of(next) < sent; ++next)
        if (start_of(next) != start_of(next + 1)) event_playing(&file_list[next]);
}

// Main shows files and seconds, and fills a ring that has room for a good piece.
void wake_main(const soundfile *file_before, int64_t second_before)
{
    const soundfile *file = load_acquire(playing_file);
    if (file != file_before || shown_second(file) != second_before || ring_frames(ring) == 0 ||
        ring_free(ring) >= refill_bytes)
        wake(waiter::main);
}

// The first frame that was not sent yet. There is one only while ring_frames is above 0.
const uint8_t *next_frames()
{
    return ring_data(ring) + ring_offset(ring, load_acquire(ring->bytes_sent));
}

// Hands frames of the ring to the device, straight from the ring's memory. avail is the device's
// room in frames, above nearly_full_frames.
pump_step write_ring(snd_pcm_sframes_t avail)
{
    const uint32_t wanted =
        std::min(static_cast<uint32_t>(avail - 1), ring_used_run(ring) / ring->gap);
    if (wanted == 0) return pump_step::starved;
    const auto written = static_cast<int32_t>(snd_pcm_writei(pcm, next_frames(), wanted));
    const stop_cause *cause = cause_of_code(written, nullptr);
    if (ends_in_break(cause)) return device_stopped(cause);
    if (written < 0) fatal_report(unit, 368, "snd_pcm_writei() returned code %d\n", written);

    const soundfile *file_before = load_acquire(playing_file);
    const int64_t second_before = shown_second(file_before);
    held_frames += written;
    ring_advance(ring->bytes_sent, static_cast<uint32_t>(written) * ring->gap);
    follow_marks();
    add_to_position(written);
    tell_playing();
    wake_main(file_before, second_before);
    return written > 0 ? pump_step::wrote : pump_step::took_none;
}

// One step of moving sound to the device.
pump_step write_pump()
{
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    if (state == SND_PCM_STATE_DRAINING && primed != 0) return pump_step::drains;
    if (const stop_cause *cause = cause_of_state(state); cause != nullptr)
        return device_stopped(cause);
    const auto avail = static_cast<int32_t>(snd_pcm_avail(pcm));
    if (avail < 0) {
        const stop_cause *known = cause_of_code(avail, nullptr);
        if (ends_in_break(known)) return device_stopped(known);
        if (known != nullptr) stop_playing(known);
        if (avail != -EPIPE) stopping_report(unit, 312, "snd_pcm_avail() returned %d\n", avail);
        return pump_step::took_none;
    }
    held_frames = std::max(static_cast<int32_t>(alsa_buffer_frames) - avail, 0);
    if (avail <= static_cast<int32_t>(nearly_full_frames)) {
        start_if_prepared();
        look_for_standstill(avail);
        return pump_step::full;
    }
    const pump_step step = primed != 0 ? write_ring(avail) : write_silence(avail);
    if (step == pump_step::wrote) moved_at = sound_clock::now();
    return step;
}

// --- The thread ---------------------------------------------------------------------------------

// Waits for what the step lacked: frames in the ring, or time that the device plays.
void wait_after(pump_step step, uint32_t pause)
{
    if (step == pump_step::starved) {
        starving.exchange(1);
        wait_for(pause, [] { return is_stopped() || ring_frames(ring) > 0; });
    } else if (step != pump_step::wrote) {
        wait_for(pause, is_stopped);
    }
}

// Fills the device with silence as far as it takes it. One that refuses silence for good must not
// hold the thread: a stop counts here. A device that breaks off does so for the next step, too.
void fill_device(uint32_t pause)
{
    while (primed == 0 && !is_stopped()) {
        const pump_step step = write_pump();
        if (step == pump_step::full || step == pump_step::broke_off) return;
        wait_after(step, pause);
    }
}

// A device that refused the silence is started all the same: its report says what it lacks.
void start_device()
{
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    if (state == SND_PCM_STATE_PREPARED) {
        if (load_acquire(stopped_by) == &stopped_by_key) return; // nothing is to sound
        require(start_code(), 399, "snd_pcm_start() error. %s\n");
    } else if (state != SND_PCM_STATE_RUNNING && !ends_in_break(cause_of_state(state))) {
        fatal_report(unit, 404, "snd_pcm_state() returned %d. %s\n", state, snd_strerror(state));
    }
}

// Everything is fed, or a SIGINT ended the feeding.
bool no_more_is_read()
{
    return load_acquire(ring->more_coming) == 0 || load_acquire(interrupted) != 0;
}

// Nothing is left, and nothing will come. Less than a frame stays for good when DSD followed PCM on
// a device of wider words.
bool all_is_sent()
{
    return no_more_is_read() && ring_frames(ring) == 0;
}

// Frames that the device holds.
int64_t queued_frames()
{
    const snd_pcm_sframes_t avail = snd_pcm_avail(pcm);
    return avail < 0 ? 0 : std::max(int64_t{alsa_buffer_frames} - avail, int64_t{0});
}

// Of that many frames that the device holds, those of the ring: the silence came first.
int64_t sound_among(int64_t held)
{
    const uint64_t since = load_acquire(ring->bytes_sent) - begun_at_byte;
    return std::min(held, static_cast<int64_t>(since / ring->gap));
}

// With this stream the list ends.
bool is_last_stream()
{
    return stream_end->index < 0 || load_acquire(interrupted) != 0 || is_stopped();
}

// Once, as soon as nothing more is read of the list.
void tell_draining()
{
    static bool told;
    if (told || !no_more_is_read() || !is_last_stream() || is_stopped()) return;
    told = true;
    event_draining(int64_t{load_acquire(silence_left)} + ring_frames(ring) + queued_frames());
}

// Once a second of real time, from the first frame on.
void tell_position()
{
    static sound_clock::time_point next;
    const uint64_t sent = load_acquire(ring->bytes_sent);
    const auto now = sound_clock::now();
    if (sent == 0 || now < next) return;
    constexpr auto apart = std::chrono::seconds(1);
    next = now - next < apart ? next + apart : now + apart; // the first one, or one is left out
    const soundfile *file = load_acquire(playing_file);
    const auto frames = static_cast<int64_t>((sent - start_of(file->index)) / ring->gap);
    event_position(file, std::max(frames - sound_among(queued_frames()), int64_t{0}));
}

// What a front-end hears of while sound plays.
void tell_progress()
{
    if (!events_wanted()) return;
    tell_draining();
    tell_position();
}

// Has the device run on over silence where it would stop at its empty queue. A card finds the queue
// empty only at the end of a period: by then it has played on into old frames, or, where somebody
// asked for the room, it has stopped with frames still on their way to the converter. False when
// the device refuses.
bool run_on_over_silence()
{
    snd_pcm_sw_params_t *params = nullptr;
    snd_pcm_sw_params_alloca(&params);
    snd_pcm_uframes_t boundary = 0;
    return snd_pcm_sw_params_current(pcm, params) >= 0 &&
           snd_pcm_sw_params_get_boundary(params, &boundary) >= 0 &&
           snd_pcm_sw_params_set_stop_threshold(pcm, params, boundary) >= 0 &&
           snd_pcm_sw_params_set_silence_threshold(pcm, params, 0) >= 0 &&
           snd_pcm_sw_params_set_silence_size(pcm, params, boundary) >= 0 &&
           snd_pcm_sw_params(pcm, params) >= 0;
}

bool device_plays()
{
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    return state == SND_PCM_STATE_RUNNING || state == SND_PCM_STATE_DRAINING;
}

// Waits until the device has played what it holds. Closing it would drop that. Some devices never
// report that they ran empty, and one that drains by itself may stay so: neither holds the thread
// longer than its queue lasts, and a tenth more. A device that would stop when it is asked for its
// room is asked only when the queue should be over. What a card or a sound server has taken, it
// plays some time later: hence the wait behind the queue.
void let_play_out(uint32_t pause)
{
    constexpr int64_t behind_the_queue = 100000; // microseconds
    const bool runs_on = run_on_over_silence();
    const microseconds queue = duration_of(queued_frames());
    const auto expected_end = sound_clock::now() + queue + queue / 20;
    const auto latest_end = sound_clock::now() + queue + queue / 10;
    for (auto now = sound_clock::now(); now < latest_end && device_plays() && !is_stopped();
         now = sound_clock::now()) {
        const bool may_ask = runs_on || now >= expected_end;
        const auto left = may_ask ? duration_of(queued_frames())
                                  : std::chrono::duration_cast<microseconds>(expected_end - now);
        if (left.count() <= 0) break;
        tell_progress();
        constexpr microseconds shortest{1000};
        wait_for(std::min(std::max(left, shortest), microseconds(pause)).count(), is_stopped);
    }
    wait_for(behind_the_queue, is_stopped);
}

// --- Breaks -------------------------------------------------------------------------------------

// Begins the silence ahead of the ring.
void begin_silence()
{
    primed = silence_ring == nullptr ? 1 : 0; // no memory for silence: the sound starts at once
    silence_written = 0;
    held_frames = 0;
    begun_at_byte = load_acquire(ring->bytes_sent);
    store_release(silence_left, primed != 0 ? 0 : output_rate);
    moved_at = sound_clock::now();
}

// The frame of a pair of silence to begin with, so that the next frame of the ring follows on the
// other one: it may be the second one of a group, and a receiver of DoP must not get a marker
// twice. Both frames of a pair are alike but for the marker.
uint32_t phase_of_next_frame()
{
    if (silence_ring == nullptr || ring_frames(ring) == 0) return 0;
    const uint8_t *next = next_frames();
    const uint8_t *first = ring_data(silence_ring);
    const uint8_t *second = first + silence_ring->gap;
    uint32_t phase = 0;
    for (uint32_t i = 0; i < silence_ring->gap; ++i) {
        if (first[i] == second[i]) continue;
        if (next[i] != second[i]) return 0;
        phase = 1;
    }
    return phase;
}

void tell_break()
{
    const bool suspended = break_cause->reason == stop_reason::suspended;
    event_rebuffering(load_acquire(playing_file), break_cause->reason,
                      suspended ? sound_among(held_frames) : 0);
    print_in_time("the sound stopped: waiting for the files\n");
}

void count_break()
{
    store_release(sound_breaks, load_acquire(sound_breaks) + 1);
    wake(waiter::main);
}

// What the ring should hold before the sound goes on, or all that there is.
bool ring_is_filled()
{
    return no_more_is_read() || (ring_frames(ring) > 0 && ring_is_primed());
}

void wait_for_ring()
{
    constexpr int64_t between_positions = 1000000; // microseconds
    const auto is_due = [] { return is_stopped() || ring_is_filled(); };
    while (!is_due()) {
        tell_progress();
        starving.exchange(1);
        wait_for(between_positions, is_due);
    }
}

// False when the sound was stopped, as by a device that did not come back.
bool prepare_again(uint32_t pause)
{
    static constexpr stop_cause stays_away = {stop_reason::disconnected, nullptr, 0};
    constexpr auto patience = std::chrono::seconds(10); // while the machine is awake
    const auto latest = sound_clock::now() + patience;
    while (!is_stopped()) {
        const int code = snd_pcm_prepare(pcm);
        if (code >= 0) return true;
        if (code == -ENODEV || sound_clock::now() >= latest) stop_playing(&stays_away);
        wait_for(pause, is_stopped);
    }
    return false;
}

// The device stopped: waits for what the sound needs to go on, and has it begin as at the start,
// with the frame that comes behind the last one that the device took.
void mend_break(uint32_t pause)
{
    tell_break();
    count_break();
    const bool came_to_sound = load_acquire(ring->bytes_sent) != begun_at_byte;
    if (!came_to_sound) wait_for(pause, is_stopped); // a device that never does would fill the log
    wait_for_ring();
    // At the end of the list nothing is left to begin with.
    if (!is_stopped() && !all_is_sent() && prepare_again(pause)) {
        silence_phase = phase_of_next_frame();
        begin_silence();
        count_break();
        fill_device(pause);
        if (snd_pcm_state(pcm) == SND_PCM_STATE_PREPARED) start_device();
    }
}

// --- From the first frame to the last -----------------------------------------------------------

// Until all is sent, or the device drains by itself. False when the sound was stopped.
void play()
{
    const uint32_t pause = pause_of(alsa_buffer_frames, output_rate);
    if (pause < urgent_pause) raise_output_priority();
    fill_device(pause);
    start_device();
    auto step = pump_step::wrote;
    while (!all_is_sent() && !is_stopped() && step != pump_step::drains) {
        step = write_pump();
        tell_progress();
        if (step == pump_step::broke_off)
            mend_break(pause);
        else if (step != pump_step::drains)
            wait_after(step, pause);
    }
    tell_progress();
    if (!is_stopped()) let_play_out(pause);
    if (step == pump_step::drains) stop_playing(&refused);
}

void close_device()
{
    if (pcm != nullptr) snd_pcm_close(pcm);
    pcm = nullptr;
}

} // namespace

int32_t sound_probe()
{
    stream_settings stream{};
    dsd_stream = is_dsd(stream_file) ? 1 : 0;
    if (!sound_open(&stream)) return -1;
    output_format = stream.format;
    output_rate = stream.rate;
    i2s_mode = stream.i2s;
    stream_file->out_sample_bytes = format_bytes(stream.format);
    stream_file->out_frame_bytes = format_bytes(stream.format) * stream_channels;
    make_silence();
    close_device();
    return -1;
}

void stream_banner()
{
    if (dsd_stream == 0) {
        std::fprintf(stderr, "Open %dHzfs PCM stream\n", output_rate);
        if (*filled_name(output_format) == '\0') {
            report(unit, 148,
                   "the device's widest format, number %d, is one that this player cannot fill "
                   "rightly. Try a hw device.\n",
                   output_format);
        }
        return;
    }
    const dsd_form &form = find_dsd_form(output_format, i2s_mode);
    const int32_t hertz = output_rate * form.bits_per_frame;
    std::fprintf(stderr, "Open %d.%dfMHzfs %s stream\n", hertz / 1000000, hertz / 100000 % 10,
                 form.label);
}

void tell_stream()
{
    const char *form = dsd_stream == 0 ? "PCM" : find_dsd_form(output_format, i2s_mode).label;
    event_stream(form, filled_name(output_format), alsa_buffer_frames,
                 ring->usable_size / ring->gap);
}

int32_t find_last_card()
{
    int card = -1;
    int last = -1;
    while (snd_card_next(&card) >= 0 && card >= 0) last = card;
    if (last < 0) return 0;
    std::printf("last device hw:%d,0\n", last);
    std::snprintf(device_name.data(), device_name.size(), "hw:%d,0", last);
    return -1;
}

void forget_stream()
{
    ringbuffer_free(&silence_ring);
    coeff_filter_free();
    output_format = SND_PCM_FORMAT_S32_LE;
    output_rate = 0;
    dsd_stream = 0;
    i2s_mode = flag_off;
    store_release(silence_left, -1);
    store_release(sound_breaks, 0);
}

void sound_was_fed()
{
    if (sound_waits(load_acquire(sound_breaks)) && !ring_is_filled()) return;
    if (starving.exchange(0) != 0) wake(waiter::output);
}

sound_phase phase_of_sound()
{
    const int32_t silence = load_acquire(silence_left);
    if (silence < 0) return sound_phase::opening;
    if (sound_waits(load_acquire(sound_breaks))) return sound_phase::waiting;
    return silence > 0 ? sound_phase::silence : sound_phase::sound;
}

int64_t sound_left()
{
    const sound_phase phase = phase_of_sound();
    if (phase == sound_phase::opening || phase == sound_phase::waiting) {
        const int64_t frames = int64_t{output_rate} + ring_frames(ring);
        return duration_of(frames).count() + wanted_buffer_microseconds;
    }
    const int64_t silence = load_acquire(silence_left);
    return duration_of(silence + ring_frames(ring) + alsa_buffer_frames).count();
}

void *output_thread(void *)
{
    wait_as_output();
    before_leaving = close_device; // a fatal report of this thread frees the card before its text
    // stop_output is not cleared here: a stop that came since main looked would be lost.
    stream_settings stream{};
    const bool opened = sound_open(&stream);
    make_silence();
    silence_phase = 0;
    next_to_tell = stream_file->index;
    begin_silence();
    wake(waiter::main);

    // A device whose whole buffer counts as nearly full would never be written.
    if (opened && alsa_buffer_frames <= nearly_full_frames) {
        stopping_report(unit, 576, "a device buffer of %d frames is too small to play.\n",
                        static_cast<int32_t>(alsa_buffer_frames));
    } else if (opened) {
        play();
    }
    // The device comes first: a reader of standard output may have stopped reading.
    close_device();
    sound_has_ended(is_last_stream());
    std::puts(blank_line);
    return nullptr;
}
