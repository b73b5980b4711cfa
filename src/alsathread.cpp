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
constexpr int32_t dsd_rate_limit = 11289615; // Hz: 15 Hz above DSD256 of the 44.1 kHz family
constexpr int32_t scanned_formats = SND_PCM_FORMAT_DSD_U8; // PCM formats: 0 to the one before it

constexpr uint32_t silence_frames = 8192;
constexpr uint8_t dsd_silence = 0x55; // 0101...: no tone, no DC offset

// Microseconds. If the pauses are shorter than this, waking up late can cause an xrun.
constexpr uint32_t urgent_pause = 10000;

uint32_t alsa_buffer_frames; // granted by the device; belongs to the thread that runs sound_open
ringbuffer *silence_ring;    // used as an array of silence; made by main, then read by output
int32_t primed;              // 1: the silence is sent; output thread
int32_t silence_written;     // frames of silence that the device took; output thread
uint32_t silence_phase;      // 1: the silence begins with the second DoP marker; output thread

// Frames of silence that are still to be sent; below 0 until the device is open. Written by the
// output thread, read by main.
std::atomic<int32_t> silence_left = -1;

// Flag: the output thread waits for frames in the ring. Set by the output thread, cleared by main.
std::atomic<int32_t> starving;

// Ends the process with the report if code is an error. format has one %s, for the system's text.
void require(int code, int32_t number, const char *format)
{
    if (code < 0) fatal_report(unit, number, format, snd_strerror(code));
}

int32_t format_bytes(int32_t format)
{
    return snd_pcm_format_physical_width(static_cast<snd_pcm_format_t>(format)) / 8;
}

// Whether the probe has settled the stream.
bool stream_is_settled()
{
    return output_rate != 0;
}

// --- Formats ------------------------------------------------------------------------------------

// The formats that the feeders can produce, with their names in ALSA. The PCM formats are signed
// integers with the lowest byte first, and floats.
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

// The name of a format; empty if the player cannot produce samples in it.
const char *filled_name(int32_t format)
{
    for (const format_row &row : filled_formats)
        if (row.format == format) return row.name;
    return "";
}

// --- The form of the stream ---------------------------------------------------------------------

// Whether the card has an I2S board, which takes raw DSD bits in PCM words. Its name shows that.
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

// The stream as the device accepted it.
struct stream_settings {
    int32_t format; // SND_PCM_FORMAT_*; -1: none
    int32_t rate;   // frames per second
    int32_t i2s;
};

// Whether the I2S form is requested. With a controller the card in the device's name decides.
// Without one the result is the present i2s_mode.
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

// Result: false if the sound was stopped.
bool wait_for_retry()
{
    wait_for(open_retry_microseconds,
             [] { return is_stopped() || load_acquire(interrupted) != 0; });
    exit_if_interrupted();
    return !is_stopped();
}

// Result: false if the sound was stopped before the device was open.
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

// The format with the most significant bits; of equally wide formats, the one with the lowest
// number. DSD formats are not tried, because PCM in one of them is full-scale noise. The second
// attempt prefers formats that the player can produce: a plug device lists 64-bit floats, but
// cannot convert them to a format of its sound server.
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

// Rate of the stream in that form, in frames per second.
int32_t dsd_rate(const dsd_form &form)
{
    return source_rate() / (form.rate_step * form.bits_per_frame) * form.rate_step;
}

// Settles the form of DSD: the first one on offer that the device takes. Result: 0, or the code of
// the last test.
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
    // -1 means that no format was accepted. libasound aborts on it.
    if (format < 0 ||
        snd_pcm_hw_params_set_format(pcm, params, static_cast<snd_pcm_format_t>(format)) < 0) {
        fatal_report(unit, 191, "snd_pcm_hw_params_set_format(format=%d) failed.\n", format);
    }
}

// Sets exactly that rate, in frames per second, or ends with a report. Even if the device has no
// lower limit, a rate of 0 is refused, because times are computed from the rate.
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

// Requests a period, for a device that refuses the buffer with the period of its own choice. A
// failure is not checked here: snd_pcm_hw_params reports it.
void set_period(snd_pcm_hw_params_t *params)
{
    unsigned microseconds = wanted_buffer_microseconds / 4;
    snd_pcm_hw_params_set_period_time_near(pcm, params, &microseconds, nullptr);
}

// Narrows params down to the requested values, as far as the device grants them. The device itself
// is not set up yet. Result: as that of sound_hwparams.
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

// Sets all hardware parameters of the open pcm. The caller has zeroed params. i2s requests I2S.
// Writes *stream. Result: 0, or a negative code if the device takes no form of DSD; every other
// failure ends the process. There are two attempts: a sound server whose periods are powers of two
// refuses the buffer size that it granted, unless a period is requested before the buffer.
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

// Sets all software parameters of pcm. The caller has zeroed params. Result: 0; every failure ends
// the process.
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

// --- Opening, with all parameters ---------------------------------------------------------------

// The ring already holds frames of the settled form. A device with another form would play them as
// noise.
bool agrees_with_settled(const stream_settings &stream)
{
    return !stream_is_settled() || (stream.format == output_format && stream.rate == output_rate);
}

// Opens, configures and prepares the device for stream_file: on the main thread for the probe, on
// the output thread to play. Writes *stream. Result: false if the sound was stopped before the
// device was open.
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

// A state or a code that shows that the device no longer plays.
struct device_stop {
    snd_pcm_state_t state;
    int code; // result of a call that means the same; 0: none does
    stop_cause cause;
};
constexpr std::array<device_stop, 4> device_stops = {{
    {SND_PCM_STATE_XRUN, -EPIPE, {stop_reason::underrun, nullptr, 0}},
    {SND_PCM_STATE_SUSPENDED, -ESTRPIPE, {stop_reason::suspended, nullptr, 0}},
    {SND_PCM_STATE_DISCONNECTED, -ENODEV, {stop_reason::disconnected, nullptr, 0}},
    {SND_PCM_STATE_DRAINING, 0, refused_by_device},
}};

// Null if the device can go on in this state.
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

// Whether the sound is to go on after that cause. cause may be null.
bool ends_in_break(const stop_cause *cause)
{
    return keep_going != 0 && cause != nullptr &&
           (cause->reason == stop_reason::underrun || cause->reason == stop_reason::suspended);
}

// Starts the device. Result: the code of snd_pcm_start. With --keep-going an underrun and a suspend
// give 0, because the state shows them at the next step.
int start_code()
{
    const int code = snd_pcm_start(pcm);
    return ends_in_break(cause_of_code(code, nullptr)) ? 0 : code;
}

// The buffer is nearly full, but a device can still wait for its start threshold. It is started
// here.
void start_if_prepared()
{
    if (snd_pcm_state(pcm) != SND_PCM_STATE_PREPARED) return;
    require(start_code(), 323, "snd_pcm_start() error. %s\n");
}

// The result of one step of the pump.
enum class pump_step {
    wrote,     // the device took frames
    full,      // the device is nearly full
    took_none, // the device took no frame
    starved,   // the ring is empty
    drains,    // the device plays what it has and takes no more frames
    broke_off, // the device stopped, and the sound is to go on
};

const stop_cause *break_cause; // why the sound was interrupted last
int64_t held_frames;           // frames in the queue of the device, as last known
uint64_t start_byte;           // bytes_sent at the last start of the sound

// The device has stopped for that cause. Either the sound ends, or a break begins.
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

// The last time that the device took or played a frame. The constructor sets a number and does not
// throw.
sound_clock::time_point moved_at; // NOLINT(cert-err58-cpp)

microseconds duration_of(int64_t frames)
{
    return microseconds(frames * 1000000 / output_rate);
}

// Stops the sound if a running device has played nothing for 10 seconds (or 4 times its buffer, if
// that is longer). A display that sleeps and a controller that lost its interrupts are such
// devices. avail is the device's room in frames.
void look_for_standstill(int32_t avail)
{
    constexpr microseconds patience = std::chrono::seconds(10);
    static int32_t last_avail;
    const auto now = sound_clock::now();
    if (avail != last_avail || snd_pcm_state(pcm) != SND_PCM_STATE_RUNNING) moved_at = now;
    last_avail = avail;
    if (now - moved_at < std::max(patience, 4 * duration_of(alsa_buffer_frames))) return;
    stop_playing(&refused_by_device);
    report(unit, 583, "the device stands still.\n");
}

// --- Writing ------------------------------------------------------------------------------------

// Sends silence in pairs of an even and an odd frame, even if the device takes an odd number of
// frames. avail is the room in the device in frames; it is more than nearly_full_frames.
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
    } else if (written != -EAGAIN && written != -EPIPE) { // the next step of the pump handles these
        const int code = static_cast<int>(written);
        const stop_cause *cause = cause_of_code(code, &refused_by_device);
        if (ends_in_break(cause)) return device_stopped(cause);
        stop_playing(cause);
        report(unit, 337, "snd_pcm_writei() returned code %d\n", code);
    }
    if (silence_written % 2 == 0 && silence_written >= output_rate) primed = 1;
    store_release(silence_left, primed != 0 ? 0 : std::max(output_rate - silence_written, 1));
    if (primed != 0) wake(waiter::main);
    return written > 0 ? pump_step::wrote : pump_step::took_none;
}

// Moves playing_file to the last file whose first byte was sent.
void follow_marks()
{
    const uint64_t sent = load_acquire(ring->bytes_sent);
    soundfile *file = load_acquire(playing_file);
    while (load_acquire(ring->track_marks[file->index + 1]) < sent) file = file->next;
    store_release(playing_file, file);
}

// The position counts units of 1/352800 s, and each frame adds a whole number of them. So at a rate
// that does not divide 352800 the position is too slow, and above 352800 Hz it does not advance.
void add_to_position(int32_t frames)
{
    const int64_t units = position_units_per_second / output_rate;
    std::atomic<int64_t> &position = load_acquire(playing_file)->position;
    store_release(position, load_acquire(position) + units * frames);
}

// The number of bytes in the stream before the first byte of the file; UINT64_MAX while it is not
// known.
uint64_t start_of(int32_t index)
{
    return index == stream_file->index ? 0 : load_acquire(ring->track_marks[index]);
}

int32_t next_to_emit; // index of the next file that gets a "playing" event

// Sends the event for each file whose first frame was sent since the last call. A file without a
// frame gets none.
void emit_playing()
{
    const uint64_t sent = load_acquire(ring->bytes_sent);
    for (int32_t &next = next_to_emit; next < file_count && start_of(next) < sent; ++next)
        if (start_of(next) != start_of(next + 1)) event_playing(&file_list[next]);
}

// Wakes main when it has a file or a second to print, or when the ring has enough room to be
// filled.
void wake_main(const soundfile *file_before, int64_t second_before)
{
    const soundfile *file = load_acquire(playing_file);
    if (file != file_before || shown_second(file) != second_before || ring_frames(ring) == 0 ||
        ring_free(ring) >= refill_bytes)
        wake(waiter::main);
}

// The first frame that is not sent yet. There is one only while ring_frames is above 0.
const uint8_t *next_frames()
{
    return ring_data(ring) + ring_offset(ring, load_acquire(ring->bytes_sent));
}

// Writes frames from the ring's own memory to the device. avail is the room in the device in
// frames; it is more than nearly_full_frames.
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
    emit_playing();
    wake_main(file_before, second_before);
    return written > 0 ? pump_step::wrote : pump_step::took_none;
}

// One step that moves frames to the device.
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

// Waits for what the step lacked: frames in the ring, or room in the device.
void wait_after(pump_step step, uint32_t pause)
{
    if (step == pump_step::starved) {
        starving.exchange(1);
        wait_for(pause, [] { return is_stopped() || ring_frames(ring) > 0; });
    } else if (step != pump_step::wrote) {
        wait_for(pause, is_stopped);
    }
}

// Writes silence until the device accepts no more. A stop ends the loop, because a device may
// refuse silence for ever. An underrun or a suspend is not handled here: the next step meets it
// again.
void fill_device(uint32_t pause)
{
    while (primed == 0 && !is_stopped()) {
        const pump_step step = write_pump();
        if (step == pump_step::full || step == pump_step::broke_off) return;
        wait_after(step, pause);
    }
}

// A device that refused the silence is started too, because the report then shows the reason.
void start_device()
{
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    if (state == SND_PCM_STATE_PREPARED) {
        if (load_acquire(stopped_by) == &stopped_by_key) return; // nothing is to be played then
        require(start_code(), 399, "snd_pcm_start() error. %s\n");
    } else if (state != SND_PCM_STATE_RUNNING && !ends_in_break(cause_of_state(state))) {
        fatal_report(unit, 404, "snd_pcm_state() returned %d. %s\n", state, snd_strerror(state));
    }
}

// Whether everything is fed, or a SIGINT ended the feeding.
bool no_more_is_read()
{
    return load_acquire(ring->more_coming) == 0 || load_acquire(interrupted) != 0;
}

// Whether no whole frame is left in the ring and main will put no more. A part of a frame can stay
// in the ring for ever, if DSD follows PCM on a device with wider words.
bool all_is_sent()
{
    return no_more_is_read() && ring_frames(ring) == 0;
}

// Frames in the buffer of the device.
int64_t queued_frames()
{
    const snd_pcm_sframes_t avail = snd_pcm_avail(pcm);
    return avail < 0 ? 0 : std::max(int64_t{alsa_buffer_frames} - avail, int64_t{0});
}

// Of the last `held` frames written to the device, the number that came from the ring. The others
// are silence, which was written before them.
int64_t sound_among(int64_t held)
{
    const uint64_t since = load_acquire(ring->bytes_sent) - start_byte;
    return std::min(held, static_cast<int64_t>(since / ring->gap));
}

// Whether the list ends with this stream.
bool is_last_stream()
{
    return stream_end->index < 0 || load_acquire(interrupted) != 0 || is_stopped();
}

// Sends the event once, when nothing more is read from the list.
void emit_draining()
{
    static bool emitted;
    if (emitted || !no_more_is_read() || !is_last_stream() || is_stopped()) return;
    emitted = true;
    event_draining(int64_t{load_acquire(silence_left)} + ring_frames(ring) + queued_frames());
}

// Sends the event once a second of real time, from the first frame on.
void emit_position()
{
    static sound_clock::time_point next;
    const uint64_t sent = load_acquire(ring->bytes_sent);
    const auto now = sound_clock::now();
    if (sent == 0 || now < next) return;
    constexpr auto apart = std::chrono::seconds(1);
    // The first event and a late one set a new schedule.
    next = now - next < apart ? next + apart : now + apart;
    const soundfile *file = load_acquire(playing_file);
    const auto frames = static_cast<int64_t>((sent - start_of(file->index)) / ring->gap);
    event_position(file, std::max(frames - sound_among(queued_frames()), int64_t{0}));
}

// Sends the events "draining" and "position" when they are due.
void emit_progress()
{
    if (!events_wanted()) return;
    emit_draining();
    emit_position();
}

// Makes the device play silence when its queue is empty, instead of stopping. A card notices an
// empty queue only at the end of a period. By then it has played old frames. Or, if snd_pcm_avail
// was called, that call has stopped it while frames were still on their way to the converter.
// Result: false if the device refuses.
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

// Waits until the device has played its queue, because closing it would drop the queue. The wait
// lasts at most 1.1 times the queue: some devices never report that they are empty, and a device
// that drains by itself may stay in that state. If the device does not go on with silence when its
// queue is empty, snd_pcm_avail could stop it, so that is not called until the queue should have
// been played. A fixed wait follows, because a card or a sound server plays a frame a little after
// it took it.
void let_play_out(uint32_t pause)
{
    constexpr int64_t after_the_queue = 100000; // microseconds of the fixed wait
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
        emit_progress();
        constexpr microseconds shortest{1000};
        wait_for(std::min(std::max(left, shortest), microseconds(pause)).count(), is_stopped);
    }
    // A device in one of these states has dropped its queue. An xrun only means that it is empty.
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    if (state == SND_PCM_STATE_SUSPENDED || state == SND_PCM_STATE_DISCONNECTED)
        stop_playing(cause_of_state(state));
    wait_for(after_the_queue, is_stopped);
}

// --- Breaks -------------------------------------------------------------------------------------

// Starts the silence that comes before the frames of the ring.
void begin_silence()
{
    primed = silence_ring == nullptr ? 1 : 0; // no memory for silence: the sound starts at once
    silence_written = 0;
    held_frames = 0;
    start_byte = load_acquire(ring->bytes_sent);
    store_release(silence_left, primed != 0 ? 0 : output_rate);
    moved_at = sound_clock::now();
}

// The value of silence_phase before the next frame of the ring: 1 if that frame has the second
// marker of DoP, else 0. A receiver of DoP must not get the same marker twice. Silence is written
// in pairs of frames, so it ends with the marker with which it does not begin. The two frames of a
// pair differ only in their markers.
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

void emit_break()
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

// Whether the ring holds enough for the sound to go on, or everything that is left.
bool ring_is_filled()
{
    return no_more_is_read() || (ring_frames(ring) > 0 && ring_is_primed());
}

void wait_for_ring()
{
    constexpr int64_t between_positions = 1000000; // microseconds
    const auto is_due = [] { return is_stopped() || ring_is_filled(); };
    while (!is_due()) {
        emit_progress();
        starving.exchange(1);
        wait_for(between_positions, is_due);
    }
}

// Prepares the device after an underrun or a suspend. Result: false if the sound was stopped, for
// example because the device did not come back.
bool prepare_again(uint32_t pause)
{
    static constexpr stop_cause stays_away = {stop_reason::disconnected, nullptr, 0};
    constexpr auto patience = std::chrono::seconds(10); // counted while the machine is awake
    const auto latest = sound_clock::now() + patience;
    while (!is_stopped()) {
        const int code = snd_pcm_prepare(pcm);
        if (code >= 0) return true;
        if (code == -ENODEV || sound_clock::now() >= latest) stop_playing(&stays_away);
        wait_for(pause, is_stopped);
    }
    return false;
}

// Goes on after a break: waits for the ring and the device, and starts with silence, as at the
// beginning of the stream. The next frame is the one after the last frame that the device took.
void mend_break(uint32_t pause)
{
    emit_break();
    count_break();
    const bool came_to_sound = load_acquire(ring->bytes_sent) != start_byte;
    if (!came_to_sound)
        wait_for(pause, is_stopped); // so that a device that fails at once does not flood the log
    wait_for_ring();
    // At the end of the list there is nothing left to play.
    const bool goes_on = !is_stopped() && !all_is_sent() && prepare_again(pause);
    silence_phase = phase_of_next_frame();
    if (goes_on) begin_silence();
    count_break();
    if (!goes_on) return;
    fill_device(pause);
    if (snd_pcm_state(pcm) == SND_PCM_STATE_PREPARED) start_device();
}

// --- From the first frame to the last -----------------------------------------------------------

// Runs until all frames are sent and played, the device drains by itself, or the sound is stopped.
void play()
{
    const uint32_t pause = pause_of(alsa_buffer_frames, output_rate);
    if (pause < urgent_pause) raise_output_priority();
    fill_device(pause);
    start_device();
    auto step = pump_step::wrote;
    while (!all_is_sent() && !is_stopped() && step != pump_step::drains) {
        step = write_pump();
        emit_progress();
        if (step == pump_step::broke_off)
            mend_break(pause);
        else if (step != pump_step::drains)
            wait_after(step, pause);
    }
    emit_progress();
    if (!is_stopped()) let_play_out(pause);
    if (step == pump_step::drains) stop_playing(&refused_by_device);
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

void emit_stream()
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
    before_leaving = close_device; // a fatal report of this thread calls it before it prints
    // stop_output is not cleared here, because a stop could have come since main checked it.
    stream_settings stream{};
    const bool opened = sound_open(&stream);
    make_silence();
    silence_phase = 0;
    next_to_emit = stream_file->index;
    begin_silence();
    wake(waiter::main);

    // A device whose whole buffer counts as nearly full would get no frame.
    if (opened && alsa_buffer_frames <= nearly_full_frames) {
        stopping_report(unit, 576, "a device buffer of %d frames is too small to play.\n",
                        static_cast<int32_t>(alsa_buffer_frames));
    } else if (opened) {
        play();
    }
    // The device is closed first, because the print blocks if nobody reads standard output.
    close_device();
    sound_has_ended(is_last_stream());
    std::puts(blank_line);
    return nullptr;
}
