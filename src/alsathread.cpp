#include "alsathread.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>

#include "sonivane.h"

namespace
{

constexpr const char *unit = "alsathread";

constexpr int open_attempts = 5;
constexpr unsigned open_retry_seconds = 2;
constexpr unsigned wanted_buffer_microseconds = 500000;
constexpr int32_t dsd_rate_limit = 11289615; // Hz: DSD256 of the 44.1 kHz family and a little
constexpr int32_t format_codes = SND_PCM_FORMAT_DSD_U32_BE + 1; // the scan's codes, from 0

// DSD bits of one channel in a frame of each form.
constexpr int32_t native_bits_per_frame = 32;
constexpr int32_t dop_bits_per_frame = 16;

constexpr uint32_t silence_frames = 8192;
constexpr uint8_t native_silence = 0x55; // 0101...: no tone, no offset
constexpr uint8_t i2s_silence = 0x33;    // left and right bits in turn: 0101... in each channel
constexpr uint8_t dop_silence = 0x55;
// The marker of even and of odd frames (DoP open standard 1.1). The feeder starts with the first
// again, and a receiver that meets the same marker twice falls back to PCM: full-scale noise. So
// silence goes out in pairs only.
constexpr std::array<uint8_t, 2> silence_marker = {0xFA, 0x05};

constexpr snd_pcm_sframes_t nearly_full_frames = 1025; // a device with less room is left alone

uint32_t alsa_buffer_frames; // as the device granted it; the thread that runs sound_open
ringbuffer *silence_ring;    // a plain array of silence; made by main, then read by output
int32_t primed;              // 1: the pre-roll is complete; output thread
int32_t silence_written;     // frames of the pre-roll that the device took; output thread
int32_t first_pending_mark;  // all marks below it are spent; output thread

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

bool first_file_is_dsd()
{
    return file_list[0].wave.wBitsPerSample == dsd_bits_per_sample;
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

// What the stream would be, from the file alone: rate in frames per second, and whether DSD would
// go as raw bits.
struct stream_wish {
    int32_t rate;
    int32_t i2s;
};

stream_wish wished_stream()
{
    const int32_t source_rate = file_list[0].wave.nSamplesPerSec;
    if (!first_file_is_dsd()) return {oversample != 0 ? oversampled_rate : source_rate, flag_off};

    int32_t i2s = load_acquire(i2s_mode);
    int card = 0;
    int device = 0;
    if (controller != nullptr &&
        std::sscanf(device_name.data(), "hw:%d,%d", &card, &device) == 2) { // NOLINT(cert-err34-c)
        i2s = card_takes_i2s(card);
    }
    if (source_rate > dsd_rate_limit)
        fatal_report(unit, 456, "Delta Sigma frequency too high %dHz\n", source_rate);
    const int32_t rate = source_rate / dop_bits_per_frame;
    return {i2s != 0 ? rate / 2 : rate, i2s};
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

void open_device()
{
    int code = 0;
    for (int attempt = 0; attempt < open_attempts; ++attempt) {
        code = snd_pcm_open(&pcm, device_name.data(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
        if (code >= 0) {
            require(snd_pcm_nonblock(pcm, -1), 509, "snd_pcm_hw_nonblock() failed. %s\n");
            return;
        }
        print_retry(attempt);
        sleep(open_retry_seconds);
    }
    std::fputc('\n', stderr);
    fatal_report(unit, 505, "snd_pcm_open() failed. %s\n\n", snd_strerror(code));
}

// --- Hardware parameters ------------------------------------------------------------------------

// What the device agreed to: an SND_PCM_FORMAT_* code (-1: none) and frames per second.
struct stream_form {
    int32_t format;
    int32_t rate;
    int32_t i2s;
};

int test_format(snd_pcm_hw_params_t *params, int32_t format)
{
    return snd_pcm_hw_params_test_format(pcm, params, static_cast<snd_pcm_format_t>(format));
}

// The format with the most significant bits; of equally wide ones the lowest code.
int32_t widest_format(snd_pcm_hw_params_t *params)
{
    int32_t best = -1;
    int best_width = 0;
    for (int32_t format = 0; format < format_codes; ++format) {
        const int width = snd_pcm_format_width(static_cast<snd_pcm_format_t>(format));
        if (width > best_width && test_format(params, format) == 0) {
            best = format;
            best_width = width;
        }
    }
    return best;
}

// Settles the DSD form: native words where the device takes them, else DoP in the widest PCM word,
// or the one word of I2S. Result: 0, or the code of the last refused test.
int choose_dsd_form(snd_pcm_hw_params_t *params, stream_form *form)
{
    static constexpr std::array<int32_t, 3> pcm_words = {
        SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_S24_3LE};

    if (test_format(params, SND_PCM_FORMAT_DSD_U32_BE) == 0) {
        const int32_t rate = file_list[0].wave.nSamplesPerSec / native_bits_per_frame;
        *form = {SND_PCM_FORMAT_DSD_U32_BE, rate, flag_off};
        return 0;
    }
    // The rate was halved for native words and is doubled back for PCM words: always an even one.
    form->rate = form->rate / 2 * 2;
    int code = 0;
    for (const int32_t word : std::span(pcm_words).first(form->i2s != 0 ? 1 : pcm_words.size())) {
        form->format = word;
        code = test_format(params, word);
        if (code == 0) return 0;
    }
    if (form->i2s == 0)
        report(unit, 167, "snd_pcm_hw_params_set_format(Delta Sigma stream) failed.\n");
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

// Sets all hardware parameters of the open pcm on the zeroed block params, and *form, which comes
// with the wished rate and I2S. Result: 0, or the negative code that refused a form; every other
// failure ends the process.
int sound_hwparams(snd_pcm_hw_params_t *params, stream_form *form)
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
    if (load_acquire(dsd_stream) != 0) {
        const int refused = choose_dsd_form(params, form);
        if (refused != 0) return refused;
    } else {
        form->format = widest_format(params);
    }
    set_format(params, form->format);
    set_rate(params, form->rate);
    set_buffer(params);
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

// One DoP sample of silence: the marker in the highest byte that the format carries, two payload
// bytes below it, zeros elsewhere.
void fill_dop_sample(uint8_t *sample, int32_t format, uint8_t marker)
{
    static constexpr uint8_t p = dop_silence;
    const std::array<uint8_t, 4> top_of_32 = {0, p, p, marker};
    const std::array<uint8_t, 4> low_24_bits = {p, p, marker, 0};
    const bool low = format == SND_PCM_FORMAT_S24_LE || format == SND_PCM_FORMAT_S24_3LE;
    std::memcpy(sample, low ? low_24_bits.data() : top_of_32.data(),
                static_cast<size_t>(format_bytes(format)));
}

void fill_silence(int32_t format)
{
    uint8_t *data = ring_data(silence_ring);
    const bool dsd = first_file_is_dsd();
    const bool native = format == SND_PCM_FORMAT_DSD_U32_LE || format == SND_PCM_FORMAT_DSD_U32_BE;
    if (!dsd || native || load_acquire(i2s_mode) != 0) {
        const uint8_t fill = !dsd ? 0 : native ? native_silence : i2s_silence;
        std::memset(data, fill, silence_ring->ring_size);
        return;
    }
    const auto sample_bytes = static_cast<size_t>(format_bytes(format));
    for (size_t sample = 0; sample < size_t{silence_frames} * stream_channels; ++sample) {
        const size_t frame = sample / stream_channels;
        fill_dop_sample(data + sample * sample_bytes, format, silence_marker[frame % 2]);
    }
}

void make_silence(int32_t format)
{
    if (silence_ring != nullptr) return;
    const auto frame_bytes = static_cast<uint32_t>(format_bytes(format) * stream_channels);
    silence_ring = ringbuffer_new(silence_frames * frame_bytes, frame_bytes, file_count);
    if (silence_ring == nullptr)
        report(unit, 535, "ringbuffer allocation failed.\n");
    else
        fill_silence(format);
}

// --- Opening as a whole -------------------------------------------------------------------------

// The ring already holds frames of the form that the probe settled. A device that takes another
// one now would play them as noise.
bool agrees_with_probe(const stream_form &form)
{
    return ring == nullptr ||
           (form.format == load_acquire(output_format) && form.rate == load_acquire(output_rate));
}

// Opens, configures and prepares the device for the form of file_list[0]. Main thread for the
// probe, output thread for good; the trial values of the second run are never seen by the first.
void sound_open()
{
    const stream_wish wish = wished_stream();
    store_release(dsd_stream, first_file_is_dsd() ? 1 : 0);
    open_device();

    snd_pcm_hw_params_t *hw_params = nullptr;
    snd_pcm_hw_params_alloca(&hw_params);
    stream_form form = {load_acquire(output_format), wish.rate, wish.i2s};
    int code = sound_hwparams(hw_params, &form);
    if (code == 0 && !agrees_with_probe(form)) code = -EINVAL;
    if (code != 0) fatal_report(unit, 514, "sound_hwparams() failed. %s\n", snd_strerror(code));

    store_release(output_format, form.format);
    store_release(output_rate, form.rate);
    store_release(i2s_mode, form.i2s);
    store_release(file_list[0].out_sample_bytes, format_bytes(form.format));
    store_release(file_list[0].out_frame_bytes, format_bytes(form.format) * stream_channels);

    snd_pcm_sw_params_t *sw_params = nullptr;
    snd_pcm_sw_params_alloca(&sw_params);
    code = sound_swparams(sw_params);
    if (code != 0) fatal_report(unit, 521, "sound_swparams() failed. %s\n", snd_strerror(code));
    code = snd_pcm_prepare(pcm);
    if (code != 0) fatal_report(unit, 526, "snd_pcm_prepare() failed. %s\n", snd_strerror(code));
    make_silence(form.format);
}

// --- The writer pump ----------------------------------------------------------------------------

bool state_stops(snd_pcm_state_t state)
{
    return state == SND_PCM_STATE_XRUN || state == SND_PCM_STATE_DRAINING ||
           state == SND_PCM_STATE_SUSPENDED || state == SND_PCM_STATE_DISCONNECTED;
}

// Starts a device that waits at its threshold with the buffer nearly full.
void start_if_prepared()
{
    if (snd_pcm_state(pcm) != SND_PCM_STATE_PREPARED) return;
    require(snd_pcm_start(pcm), 323, "snd_pcm_start() error. %s\n");
}

// Sends silence in pairs of an even and an odd frame, whatever count the device takes. avail is the
// device's room in frames, above nearly_full_frames.
void write_silence(snd_pcm_sframes_t avail, uint32_t frame_bytes)
{
    const bool odd = silence_written % 2 != 0;
    const snd_pcm_sframes_t pairs = (avail - 1) & ~snd_pcm_sframes_t{1};
    const snd_pcm_sframes_t wanted = odd ? 1 : std::min(pairs, snd_pcm_sframes_t{silence_frames});
    const uint8_t *frames = ring_data(silence_ring) + (odd ? frame_bytes : 0);

    const snd_pcm_sframes_t written =
        snd_pcm_writei(pcm, frames, static_cast<snd_pcm_uframes_t>(wanted));
    if (written >= 0)
        silence_written += static_cast<int32_t>(written);
    else if (written != -EAGAIN && written != -EPIPE) // those two show in the next state
        store_release(stop_output, flag_on);
    if (silence_written % 2 == 0 && silence_written >= load_acquire(output_rate)) primed = 1;
}

// A mark that main has given its index but not yet its count. A spent count is never -1: counts
// fall by whole frames, and a frame of two channels has an even number of bytes.
bool mark_is_half_set(const track_mark &mark)
{
    return load_acquire(mark.count) == mark_unset;
}

// Takes the bytes about to leave the ring from every live mark. Result: the index of the last file
// whose first byte is among them, or mark_unset.
int32_t count_marks_down(int32_t bytes)
{
    track_mark *mark = ring->track_marks + first_pending_mark;
    while (load_acquire(mark->index) != mark_unset && load_acquire(mark->count) < 0) {
        if (mark_is_half_set(*mark)) return mark_unset; // it is the newest one: none is live yet
        ++mark;
        ++first_pending_mark;
    }
    int32_t spent = mark_unset;
    for (; load_acquire(mark->index) != mark_unset && load_acquire(mark->count) >= 0; ++mark) {
        const int32_t left = load_acquire(mark->count) - bytes;
        store_release(mark->count, left);
        if (left < 0) spent = load_acquire(mark->index);
    }
    return spent;
}

void move_playing_file(int32_t index)
{
    soundfile *file = load_acquire(playing_file);
    if (index == mark_unset || file->index < 0) return;
    while (file->index >= 0 && file->index < index) file = file->next;
    store_release(playing_file, file);
}

// Whole units only: the count runs slow at rates that do not divide 352800, and stands above it.
void add_to_position(int32_t frames)
{
    const int64_t units = position_units_per_second / load_acquire(output_rate);
    std::atomic<int64_t> &position = load_acquire(playing_file)->position;
    store_release(position, load_acquire(position) + units * frames);
}

// Hands frames of the ring to the device, straight from the ring's memory. avail is the device's
// room in frames, above nearly_full_frames. Result: 0 when the ring holds no whole frame, else -1.
int32_t write_ring(snd_pcm_sframes_t avail, uint32_t frame_bytes)
{
    const uint32_t used = ring_used(ring) / frame_bytes;
    if (used == 0) {
        // Less than a frame is left for good when a DSD file followed PCM on a device of wider
        // words.
        if (load_acquire(ring->more_coming) == 0 && ring_used(ring) < frame_bytes)
            store_release(stop_output, flag_on);
        return 0;
    }
    const uint32_t wanted =
        std::min({static_cast<uint32_t>(avail - 1), ring_used_run(ring) / frame_bytes, used});
    const uint8_t *frames = ring_data(ring) + load_acquire(ring->read_offset);
    const auto written = static_cast<int32_t>(snd_pcm_writei(pcm, frames, wanted));
    if (written < 0) fatal_report(unit, 368, "snd_pcm_writei() returned code %d\n", written);

    const uint32_t bytes = static_cast<uint32_t>(written) * frame_bytes;
    const int32_t reached = count_marks_down(static_cast<int32_t>(bytes));
    ring_advance(ring, ring->read_offset, bytes);
    move_playing_file(reached);
    add_to_position(written);
    return -1;
}

// One step of moving sound to the device. Result: -1 when it wrote, 0 when there was nothing to do.
int32_t write_pump()
{
    if (state_stops(snd_pcm_state(pcm))) {
        store_release(stop_output, flag_on);
        return 0;
    }
    const auto avail = static_cast<int32_t>(snd_pcm_avail(pcm));
    if (avail < 0) {
        if (avail != -EPIPE) report(unit, 312, "snd_pcm_avail() returned %d\n", avail);
        store_release(stop_output, flag_on);
        return 0;
    }
    if (avail <= nearly_full_frames) {
        start_if_prepared();
        return 0;
    }
    const auto frame_bytes =
        static_cast<uint32_t>(format_bytes(load_acquire(output_format)) * stream_channels);
    if (primed != 0) return write_ring(avail, frame_bytes);
    write_silence(avail, frame_bytes);
    return -1;
}

// --- The thread ---------------------------------------------------------------------------------

// A late wake-up must leave the device and the ring enough sound, whichever holds less of it.
void tell_buffered_time()
{
    const auto rate = static_cast<uint64_t>(load_acquire(output_rate));
    const auto frame_bytes = static_cast<uint64_t>(format_bytes(load_acquire(output_format))) *
                             static_cast<uint64_t>(stream_channels);
    const uint64_t ring_frames = ring->usable_size / frame_bytes;
    set_buffered_time(std::min(uint64_t{alsa_buffer_frames}, ring_frames) * 1000000 / rate);
}

void start_device()
{
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    if (state == SND_PCM_STATE_PREPARED) {
        require(snd_pcm_start(pcm), 399, "snd_pcm_start() error. %s\n");
    } else if (state != SND_PCM_STATE_RUNNING) {
        fatal_report(unit, 404, "snd_pcm_state() returned %d. %s\n", state, snd_strerror(state));
    }
}

bool all_is_played()
{
    return load_acquire(ring->more_coming) == 0 && ring_used(ring) == 0;
}

void play()
{
    // A device that refuses silence for good, or takes none, must not hold the thread here.
    while (write_pump() != 0 && primed == 0 && load_acquire(stop_output) == 0)
        poll_sleep(0, wakeup::prompt);
    start_device();
    while (!all_is_played() && load_acquire(stop_output) == 0) {
        if (write_pump() != 0)
            poll_sleep(0, wakeup::prompt);
        else
            poll_sleep(1, wakeup::late);
    }
    while (snd_pcm_state(pcm) == SND_PCM_STATE_DRAINING) poll_sleep(1, wakeup::late);
}

} // namespace

int32_t sound_probe()
{
    sound_open();
    snd_pcm_close(pcm);
    pcm = nullptr;
    return -1;
}

void stream_banner()
{
    const int32_t rate = load_acquire(output_rate);
    if (!first_file_is_dsd()) {
        std::fprintf(stderr, "Open %dHzfs PCM stream\n", rate);
        return;
    }
    const char *label = "";
    int32_t bits_per_frame = native_bits_per_frame;
    switch (load_acquire(output_format)) {
    case SND_PCM_FORMAT_S24_LE:
    case SND_PCM_FORMAT_S24_BE:
    case SND_PCM_FORMAT_S32_LE:
    case SND_PCM_FORMAT_S32_BE:
    case SND_PCM_FORMAT_S24_3LE:
        label = load_acquire(i2s_mode) != 0 ? "I2S" : "DoP";
        if (load_acquire(i2s_mode) == 0) bits_per_frame = dop_bits_per_frame;
        break;
    case SND_PCM_FORMAT_DSD_U32_LE:
    case SND_PCM_FORMAT_DSD_U32_BE:
        label = "native";
        break;
    default:
        break;
    }
    const int32_t hertz = rate * bits_per_frame;
    std::fprintf(stderr, "Open %d.%dfMHzfs %s stream\n", hertz / 1000000, hertz / 100000 % 10,
                 label);
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

void *output_thread(void *)
{
    // stop_output is clear: main cleared it before this thread was made. Clearing it here again
    // would lose a stop that came in between.
    sound_open();
    primed = 0;
    silence_written = 0;
    if (silence_ring == nullptr) primed = 1; // no memory for silence: the sound starts at once
    tell_buffered_time();

    // A device whose whole buffer counts as nearly full would never be written.
    if (alsa_buffer_frames <= nearly_full_frames)
        store_release(stop_output, flag_on);
    else
        play();

    std::puts(blank_line);
    snd_pcm_close(pcm);
    pcm = nullptr;
    return nullptr;
}
