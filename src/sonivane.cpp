// The player: main and its stages, the opening of files, and the two feeders that turn bytes of a
// file into frames of the device.
#include "sonivane.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <new>
#include <span>
#include <utility>

#include "alsathread.h"
#include "common.h"
#include "dir2files.h"
#include "dsdiff.h"
#include "dsf.h"
#include "events.h"
#include "lookout.h"
#include "parse_param.h"
#include "util.h"
#include "wav.h"
#include "wsd.h"

soundfile *file_list;
soundfile *stream_file;
soundfile *stream_end;
int32_t file_count;
soundfile *feeding_file;
std::atomic<soundfile *> playing_file;
feeder_slot fill_buffer;
reader_slot read_samples;
ringbuffer *ring;
int32_t output_format = SND_PCM_FORMAT_S32_LE;
int32_t output_rate;
int32_t dsd_stream;
int32_t i2s_mode;
snd_pcm_t *pcm;
uint32_t refill_bytes;
std::array<char, 1024> device_name;
int32_t oversample;
int32_t short_filter;
int32_t left_cut;
int32_t right_cut;
int32_t silent;
int32_t reopen;
exact_time start_time;
int32_t args_used;
uint64_t buffer_bytes;
uint64_t prime_bytes = UINT64_MAX; // not given: only the percentage of the ring counts
int32_t keep_going;
const char *mode_label;
controller_block *controller;

namespace
{

constexpr const char *unit = "sonivane";

// --- Opening a file -----------------------------------------------------------------------------

// Describes all DSD containers in the same way. A parser sets only the rate in wave.
void describe_dsd(soundfile *file)
{
    constexpr int16_t extension_bytes = 22; // valid bits, channel mask and sub-format
    const int32_t rate = file->wave.nSamplesPerSec;
    file->sample_bytes = 1;
    file->wave = {.wFormatTag = 0,
                  .nChannels = stream_channels,
                  .nSamplesPerSec = rate,
                  .nAvgBytesPerSec = rate / 8 * stream_channels,
                  .nBlockAlign = stream_channels,
                  .wBitsPerSample = dsd_bits_per_sample,
                  .cbSize = extension_bytes,
                  .wValidBitsPerSample = 0,
                  .dwChannelMask = 1,
                  .SubFormat = {},
                  .rest = {}};
}

constexpr int16_t wave_tag_float = 3;
constexpr int16_t wave_tag_extensible = static_cast<int16_t>(0xFFFE);

// With the tag WAVE_FORMAT_EXTENSIBLE, the first two bytes of the sub-format are the format code.
bool holds_floats(const wave_format &wave)
{
    const int code = wave.SubFormat[0] | wave.SubFormat[1] << 8;
    return wave.wFormatTag == wave_tag_float ||
           (wave.wFormatTag == wave_tag_extensible && code == wave_tag_float);
}

// The stored width decides, not the number of valid bits.
int32_t pcm_sample_format(const wave_format &wave)
{
    switch (wave.wBitsPerSample) {
    case 8:
        return SND_PCM_FORMAT_U8;
    case 16:
        return SND_PCM_FORMAT_S16_LE;
    case 24:
        return SND_PCM_FORMAT_S24_3LE;
    case 32:
        return holds_floats(wave) ? SND_PCM_FORMAT_FLOAT_LE : SND_PCM_FORMAT_S32_LE;
    default:
        fatal_report(unit, 714, "sample bit length %d is not supported.\n", wave.wBitsPerSample);
    }
}

void describe_pcm(soundfile *file)
{
    file->sample_format = pcm_sample_format(file->wave);
    file->sample_bytes = file->wave.nBlockAlign / file->wave.nChannels;
}

// Whether a file that was read to its end, and now has size bytes, lacks sound that its header
// promised. Each reader leaves a different count to check.
bool lacks_pcm(const soundfile *file, int64_t)
{
    return file->bytes_left >= file->wave.nBlockAlign;
}

bool lacks_dsf(const soundfile *file, int64_t)
{
    return file->dsf_bytes_left > 0;
}

// For DSDIFF and WSD. Their readers do not count the bytes that are left, so the size decides.
bool lacks_dsd(const soundfile *file, int64_t size)
{
    return file->data_bytes > (size - file->sound_offset) / std::max(file->channels, 1);
}

// Everything that the player knows about a container. Each file is offered to the parsers in this
// order.
struct container_row {
    container_kind container;
    const char *word; // for events
    int32_t (*open)(soundfile *file);
    void (*describe)(soundfile *file);
    reader_slot read;
    feeder_slot feed;
    bool (*lacks_sound)(const soundfile *file, int64_t size);
    // Seeks over frames (PCM) or bytes of each channel (DSD). The file has more than count of them.
    bool (*skip)(soundfile *file, int64_t count);
};
constexpr std::array<container_row, 4> containers = {{
    {container_wav, "wav", wav_open, describe_pcm, wav_read, pcm_feeder, lacks_pcm, wav_skip},
    {container_dsdiff, "dsdiff", dsdiff_open, describe_dsd, dsdiff_read, dsd_feeder, lacks_dsd,
     dsdiff_skip},
    {container_dsf, "dsf", dsf_open, describe_dsd, dsf_read, dsd_feeder, lacks_dsf, dsf_skip},
    {container_wsd, "wsd", wsd_open, describe_dsd, wsd_read, dsd_feeder, lacks_dsd, wsd_skip},
}};

const container_row &row_of(container_kind container)
{
    const auto *row = containers.data();
    while (row->container != container) ++row;
    return *row;
}

// The file that is fed is read in few large calls, which suits network mounts. Of the others only
// the header is read. One buffer is enough, because only one file is open at a time. Without a
// buffer of its own, a stream would first ask the file system for the best size, which costs a call
// to a network mount.
void give_buffer(const soundfile *file)
{
    static std::array<char, 65536> of_played;
    static std::array<char, 4096> of_probed;
    const auto buffer = file == feeding_file ? std::span<char>(of_played) : of_probed;
    std::setvbuf(file->fp, buffer.data(), _IOFBF, buffer.size());
}

constexpr int32_t report_not_opened = 725;
constexpr char not_opened[] = "file %s open error.\n";

bool open_stream(soundfile *file)
{
    file->fp = fopen(file->path, "rb");
    if (file->fp != nullptr) give_buffer(file);
    return file->fp != nullptr;
}

// Offers the open stream to each parser. Result: that of open_soundfile.
int32_t find_container(soundfile *file)
{
    bool read_failed = false; // rewind clears the error
    for (const container_row &row : containers) {
        std::rewind(file->fp);
        if (row.open(file) != 0) {
            read_failed |= ferror(file->fp) != 0;
            continue;
        }
        file->container = row.container;
        row.describe(file);
        fill_buffer = row.feed;
        read_samples = row.read;
        return 0;
    }
    std::fprintf(stderr, "file format of %s unknown. Skip\n", printable(file->path));
    event_left_out(file->path, read_failed ? "cannot read" : "unknown format");
    return -1;
}

} // namespace

int32_t open_soundfile(soundfile *file)
{
    if (!open_stream(file))
        fatal_report(unit, report_not_opened, not_opened, printable(file->path));
    return find_container(file);
}

namespace
{

// --- Where a file begins ------------------------------------------------------------------------

// Whole periods of rate Hz in the time. INT64_MAX if there are more.
int64_t periods_of(const exact_time &time, int32_t rate)
{
    constexpr int64_t billion = 1000000000;
    if (rate < 1) return 0;
    if (time.seconds > INT64_MAX / rate - 1) return INT64_MAX;
    // attoseconds x rate does not fit in 64 bits, so it is computed in two parts.
    const int64_t upper = time.attoseconds / billion * rate;
    const int64_t lower = time.attoseconds % billion * rate + upper % billion * billion;
    return time.seconds * rate + upper / billion + lower / attoseconds_per_second;
}

// The position after that many periods of 1/rate seconds. This position is exact. Those of the
// output thread are not, because it adds a whole number of units for each frame.
int64_t position_at(int64_t periods, int32_t rate)
{
    constexpr int64_t units = position_units_per_second;
    const int64_t seconds = std::min(periods / rate, INT64_MAX / units - 1);
    return seconds * units + periods % rate * units / rate;
}

} // namespace

const char *container_word(container_kind container)
{
    return row_of(container).word;
}

bool begin_at(soundfile *file, const exact_time &time)
{
    const int32_t rate = file->wave.nSamplesPerSec;
    const bool dsd = is_dsd(file);
    const int64_t periods_each = dsd ? 8 : 1; // in a unit of skip: a byte of DSD has 8 bits
    int64_t count = periods_of(time, rate) / periods_each;
    if (count >= (dsd ? file->data_bytes : file->data_bytes / file->wave.nBlockAlign)) return false;
    if (dsd) count -= count % (dsd_group_bytes / stream_channels);
    if (!row_of(file->container).skip(file, count)) return false;
    file->start_unit = count * periods_each;
    if (count != 0) store_release(file->position, position_at(file->start_unit, rate));
    return true;
}

namespace
{

// --- The next file of the list ------------------------------------------------------------------

void close_file(soundfile *file)
{
    if (file->fp == nullptr) return;
    std::fclose(file->fp);
    file->fp = nullptr;
}

int64_t size_of(const soundfile *file)
{
    struct stat status;
    return fstat(fileno(file->fp), &status) == 0 ? status.st_size : 0;
}

// Whether the file has lost sound since it was probed. A file that never had all the sound of its
// header does not count.
bool is_cut_short(const soundfile *file)
{
    const int64_t size = size_of(file);
    if (size >= file->probed_bytes) return false;
    return row_of(file->container).lacks_sound(file, size);
}

void note_read_error(const soundfile *file)
{
    store_release(read_error_met, flag_on);
    event_read_error(file);
}

// Checks the file that was just fed to its end. A read error is not printed. It is sent as an
// event, and it becomes the reason of the last event.
void look_for_read_error(const soundfile *file)
{
    if (file->fp == nullptr) return;
    if (ferror(file->fp) != 0 || is_cut_short(file)) note_read_error(file);
}

// A file that cannot be opened at its turn must not end the process, because the ring still holds
// the sound of the files before it.
bool open_at_its_turn(soundfile *file)
{
    if (open_stream(file)) return find_container(file) == 0;
    store_release(exit_status, report_not_opened);
    note_read_error(file);
    report(unit, report_not_opened, not_opened, printable(file->path)); // may block
    return false;
}

// Closes the file that was fed to its end and opens the next one. A file that the probe accepted
// but that cannot be opened now gets its track mark, as an empty file does, and is passed over.
void open_next_file()
{
    look_for_read_error(feeding_file);
    close_file(feeding_file);
    feeding_file = feeding_file->next;
    while (feeding_file != stream_end && !is_stopped() && load_acquire(interrupted) == 0) {
        store_release(ring->track_marks[feeding_file->index], load_acquire(ring->bytes_put));
        if (open_at_its_turn(feeding_file)) return;
        close_file(feeding_file);
        feeding_file = feeding_file->next;
    }
}

// --- DSD feeder ---------------------------------------------------------------------------------

constexpr uint32_t dsd_call_frames = 3528; // limit of one call
constexpr uint32_t dsd_least_frames = 352; // with less room in the ring, the feeder does nothing
constexpr size_t dsd_frame_bytes = 8;      // of the largest frame
constexpr uint8_t native_cut = 0xAA;
constexpr uint8_t dop_cut = 0x55;
constexpr uint8_t i2s_cut = 0;

// DoP open standard 1.1: the markers alternate from frame to frame during the whole stream, over
// all files. A receiver that misses one plays the frames as PCM, which is full-scale noise. A group
// of 8 bytes makes two frames, and only whole groups are packed. So each group starts with the
// first marker, and no phase has to be kept.
constexpr std::array<uint8_t, 2> dop_marker = {0xFA, 0x05};

// Calls lay_out once for each `step` bytes of the groups (left and right in turn, oldest first).
// Each call stores `size` bytes. Result: bytes stored.
template <size_t step, size_t size, typename Layout>
size_t pack_each(std::span<const uint8_t> groups, uint8_t *out, Layout lay_out)
{
    const uint8_t *const end = groups.data() + groups.size();
    for (const uint8_t *c = groups.data(); c != end; c += step, out += size) lay_out(c, out);
    return groups.size() / step * size;
}

// Stores bytes one by one. An array in between would double the cost.
template <typename... Bytes> void store(uint8_t *out, Bytes... bytes)
{
    ((*out++ = static_cast<uint8_t>(bytes)), ...);
}

size_t pack_native_le(std::span<const uint8_t> groups, uint8_t *out)
{
    return pack_each<8, 8>(groups, out, [](const uint8_t *c, uint8_t *frame) {
        store(frame, c[6], c[4], c[2], c[0], c[7], c[5], c[3], c[1]);
    });
}

size_t pack_native_be(std::span<const uint8_t> groups, uint8_t *out)
{
    return pack_each<8, 8>(groups, out, [](const uint8_t *c, uint8_t *frame) {
        store(frame, c[0], c[2], c[4], c[6], c[1], c[3], c[5], c[7]);
    });
}

// Packs each group into two DoP frames. lay_out gets the four bytes of a frame, where to store it,
// and its marker.
template <size_t size, typename Layout>
size_t pack_dop(std::span<const uint8_t> groups, uint8_t *out, Layout lay_out)
{
    return pack_each<8, 2 * size>(groups, out, [lay_out](const uint8_t *c, uint8_t *frames) {
        lay_out(c, frames, dop_marker[0]);
        lay_out(c + 4, frames + size, dop_marker[1]);
    });
}

size_t pack_dop_3_bytes(std::span<const uint8_t> groups, uint8_t *out)
{
    return pack_dop<6>(groups, out, [](const uint8_t *c, uint8_t *frame, uint8_t marker) {
        store(frame, c[2], c[0], marker, c[3], c[1], marker);
    });
}

size_t pack_dop_4_bytes(std::span<const uint8_t> groups, uint8_t *out)
{
    return pack_dop<8>(groups, out, [](const uint8_t *c, uint8_t *frame, uint8_t marker) {
        store(frame, 0, c[2], c[0], marker, 0, c[3], c[1], marker);
    });
}

// The sample is in the low 24 bits of the word.
size_t pack_dop_s24(std::span<const uint8_t> groups, uint8_t *out)
{
    return pack_dop<8>(groups, out, [](const uint8_t *c, uint8_t *frame, uint8_t marker) {
        store(frame, c[2], c[0], marker, 0, c[3], c[1], marker, 0);
    });
}

// spread_bits[v] has bit i of v at bit 2i, the place of a bit of the right channel in an I2S
// half-word.
constexpr std::array<uint16_t, 256> spread_bits = [] {
    std::array<uint16_t, 256> table{};
    for (unsigned v = 0; v < table.size(); ++v) {
        for (unsigned bit = 0; bit < 8; ++bit)
            table[v] = static_cast<uint16_t>(table[v] | (v >> bit & 1) << 2 * bit);
    }
    return table;
}();

uint16_t interleave_bits(uint8_t left, uint8_t right)
{
    return static_cast<uint16_t>(spread_bits[left] << 1 | spread_bits[right]);
}

// Packs four bytes into a word in which bits of left and right alternate. The older bits are in the
// upper half. The lowest byte is stored first.
size_t pack_i2s(std::span<const uint8_t> groups, uint8_t *out)
{
    return pack_each<4, 4>(groups, out, [](const uint8_t *c, uint8_t *word) {
        const uint16_t older = interleave_bits(c[0], c[1]);
        const uint16_t newer = interleave_bits(c[2], c[3]);
        store(word, newer, newer >> 8, older, older >> 8);
    });
}

// Also used for every PCM format of the device that has no row here.
constexpr dsd_form dop_4_bytes = {
    SND_PCM_FORMAT_S32_LE, form_offer::without_i2s, "DoP", 16, 2, 8, 2, dop_cut, pack_dop_4_bytes};

constexpr std::array<dsd_form, 6> form_rows = {{
    {SND_PCM_FORMAT_DSD_U32_BE, form_offer::always, "native", 32, 1, 8, 1, native_cut,
     pack_native_be},
    {SND_PCM_FORMAT_S32_LE, form_offer::with_i2s, "I2S", 32, 2, 8, 2, i2s_cut, pack_i2s},
    dop_4_bytes,
    {SND_PCM_FORMAT_S24_LE, form_offer::without_i2s, "DoP", 16, 2, 8, 2, dop_cut, pack_dop_s24},
    {SND_PCM_FORMAT_S24_3LE, form_offer::without_i2s, "DoP", 16, 2, 6, 2, dop_cut,
     pack_dop_3_bytes},
    {SND_PCM_FORMAT_DSD_U32_LE, form_offer::never, "native", 32, 1, 8, 1, native_cut,
     pack_native_le},
}};

// Number of groups for one call. 0 if the ring has too little room. Otherwise as many whole groups
// as a call may feed and as fit before the end of the ring's data area, but at least one. That
// space may be less than a group if the ring was made for frames of another size; ring_put then
// splits the group.
uint32_t groups_of_room(const dsd_form &form)
{
    const uint32_t frames = std::min(ring_free(ring) / form.frame_bytes, dsd_call_frames);
    if (frames < dsd_least_frames) return 0;
    const uint32_t budget = std::min(ring_free_run(ring) / form.frame_bytes, frames);
    return std::max(budget / form.budget_frames, 1U);
}

void overwrite_cut_channels(std::span<uint8_t> groups, uint8_t fill)
{
    if ((left_cut | right_cut) == 0) return;
    for (size_t i = 0; i < groups.size(); i += 2) {
        if (left_cut != 0) groups[i] = fill;
        if (right_cut != 0) groups[i + 1] = fill;
    }
}

} // namespace

const std::span<const dsd_form> dsd_forms = form_rows;

const dsd_form &find_dsd_form(int32_t format, int32_t i2s)
{
    for (const dsd_form &form : dsd_forms)
        if (form.format == format && (form.offered != form_offer::with_i2s || i2s != flag_off))
            return form;
    return dop_4_bytes;
}

int32_t dsd_feeder()
{
    static std::array<uint8_t, size_t{dsd_call_frames} * dsd_group_bytes> staged;
    static std::array<uint8_t, dsd_call_frames * dsd_frame_bytes> packed;

    if (load_acquire(interrupted) != 0 || feeding_file == stream_end) return 0;
    const dsd_form &form = find_dsd_form(output_format, i2s_mode);
    const uint32_t groups = groups_of_room(form);
    if (groups == 0) return 0;

    const auto wanted = static_cast<int32_t>(groups) * dsd_group_bytes;
    const int32_t got = read_samples(feeding_file, staged.data(), wanted);
    if (got < 1) {
        open_next_file();
        return -1;
    }
    const auto bytes = std::span(staged).first(static_cast<size_t>(got));
    overwrite_cut_channels(bytes, form.cut);
    const size_t stored = form.pack(bytes, packed.data());
    ring_put(ring, packed.data(), static_cast<uint32_t>(stored));
    return -1;
}

// --- PCM feeder ---------------------------------------------------------------------------------

namespace
{

constexpr int32_t staging_bytes = 3072;         // bytes of the file that are read at once
constexpr size_t staging_words = staging_bytes; // for samples of one byte
constexpr size_t word_bytes = 4;

// Storage for the words of the last read, and the part of them that has not been passed on.
std::array<uint32_t, staging_words> decoded_words;
std::span<const uint32_t> decoded;

// The part of the filter's output for its last input frame that is not yet in the ring.
std::span<const float> filtered;

struct pcm_format_row {
    int32_t alsa_format;  // SND_PCM_FORMAT_*
    int32_t stream_bytes; // bytes of one sample; below 1 in the last row of the table
    uint32_t bias;        // subtracted from an unsigned sample to make it signed
    int32_t big_endian;   // 1: most significant byte first
};

constexpr std::array<pcm_format_row, 26> pcm_format_table = {{
    {SND_PCM_FORMAT_U8, 1, 0x80, 0},           {SND_PCM_FORMAT_S16_LE, 2, 0, 0},
    {SND_PCM_FORMAT_U16_LE, 2, 0x8000, 0},     {SND_PCM_FORMAT_S16_BE, 2, 0, 1},
    {SND_PCM_FORMAT_U16_BE, 2, 0x8000, 1},     {SND_PCM_FORMAT_S32_LE, 4, 0, 0},
    {SND_PCM_FORMAT_U32_LE, 4, 0x80000000, 0}, {SND_PCM_FORMAT_S32_BE, 4, 0, 1},
    {SND_PCM_FORMAT_U32_BE, 4, 0x80000000, 1}, {SND_PCM_FORMAT_S24_LE, 4, 0, 0},
    {SND_PCM_FORMAT_U24_LE, 4, 0x800000, 0},   {SND_PCM_FORMAT_S24_BE, 4, 0, 1},
    {SND_PCM_FORMAT_U24_BE, 4, 0x800000, 1},   {SND_PCM_FORMAT_S24_3LE, 3, 0, 0},
    {SND_PCM_FORMAT_U24_3LE, 3, 0x800000, 0},  {SND_PCM_FORMAT_S24_3BE, 3, 0, 1},
    {SND_PCM_FORMAT_U24_3BE, 3, 0x800000, 1},  {SND_PCM_FORMAT_S18_3LE, 3, 0, 0},
    {SND_PCM_FORMAT_U18_3LE, 3, 0x800000, 0},  {SND_PCM_FORMAT_S18_3BE, 3, 0, 1},
    {SND_PCM_FORMAT_U18_3BE, 3, 0x800000, 1},  {SND_PCM_FORMAT_S20_3LE, 3, 0, 0},
    {SND_PCM_FORMAT_U20_3LE, 3, 0x800000, 0},  {SND_PCM_FORMAT_S20_3BE, 3, 0, 1},
    {SND_PCM_FORMAT_U20_3BE, 3, 0x800000, 1},  {-1, -1, 0xFFFFFFFF, 1},
}};
constexpr const pcm_format_row *end_row = &pcm_format_table.back();

const pcm_format_row *format_row; // of the file that is fed; null: not looked up yet

const pcm_format_row *find_format_row(int32_t format)
{
    const auto *row = pcm_format_table.data();
    while (row != end_row && row->alsa_format != format) ++row;
    const bool is_float = format == SND_PCM_FORMAT_FLOAT_LE || format == SND_PCM_FORMAT_FLOAT_BE;
    if (row == end_row && !is_float)
        fatal_report(unit, 533, "Unsupported input format %d.\n", format);
    return row;
}

// Samples become left-justified signed words, left and right in turn.

template <int32_t bytes, bool big_endian> uint32_t stored_word(const uint8_t *sample)
{
    uint32_t word = 0;
    for (int32_t i = 0; i < bytes; ++i) {
        const int32_t weight = big_endian ? bytes - 1 - i : i;
        word |= static_cast<uint32_t>(sample[i]) << 8 * weight;
    }
    return word;
}

template <int32_t bytes, bool big_endian>
void decode_words(const uint8_t *samples, uint32_t bias, std::span<uint32_t> words)
{
    for (uint32_t &word : words) {
        word = (stored_word<bytes, big_endian>(samples) - bias) << 8 * (4 - bytes);
        samples += bytes;
    }
}

// value x 2^31, rounded toward zero and saturated. NaN gives 0.
uint32_t word_of_float(float value)
{
    constexpr float full_scale = 2147483648.0F;
    const float scaled = value * full_scale;
    if (scaled >= full_scale) return 0x7FFFFFFF;
    if (scaled <= -full_scale) return 0x80000000;
    return std::isnan(scaled) ? 0 : static_cast<uint32_t>(static_cast<int32_t>(scaled));
}

// Whether the device takes floats. Then integers are converted for it, and it gets the filter's
// output unchanged.
bool device_takes_floats()
{
    return output_format == SND_PCM_FORMAT_FLOAT_LE;
}

template <bool big_endian>
void decode_floats(const uint8_t *samples, int32_t sample_bytes, std::span<uint32_t> words)
{
    const bool unchanged = oversample == 0 && device_takes_floats();
    for (uint32_t &word : words) {
        word = stored_word<4, big_endian>(samples);
        if (!unchanged) word = word_of_float(std::bit_cast<float>(word));
        samples += sample_bytes;
    }
}

constexpr float word_to_float = 4.656613e-10F; // 2^-31
static_assert(std::bit_cast<uint32_t>(word_to_float) == 0x30000000);

float float_of_word(uint32_t word)
{
    return static_cast<float>(static_cast<int32_t>(word)) * word_to_float;
}

// Decodes words.size() samples of the file that is fed.
void decode_integers(const uint8_t *samples, std::span<uint32_t> words)
{
    const uint32_t bias = format_row->bias;
    const bool big = format_row->big_endian != 0;
    switch (format_row->stream_bytes) {
    case 1:
        return decode_words<1, false>(samples, bias, words);
    case 2:
        return (big ? decode_words<2, true> : decode_words<2, false>)(samples, bias, words);
    case 3:
        return (big ? decode_words<3, true> : decode_words<3, false>)(samples, bias, words);
    case 4:
        return (big ? decode_words<4, true> : decode_words<4, false>)(samples, bias, words);
    default:
        fatal_report(unit, 464, "Illegal byte count %d\n", format_row->stream_bytes);
    }
}

// The words are integers if the filter follows. Otherwise they are what the device takes: integers
// or the bits of floats.
void decode_samples(const uint8_t *samples, std::span<uint32_t> words)
{
    if (format_row == end_row) {
        const bool big = feeding_file->sample_format == SND_PCM_FORMAT_FLOAT_BE;
        (big ? decode_floats<true> : decode_floats<false>)(samples, feeding_file->sample_bytes,
                                                           words);
        return;
    }
    decode_integers(samples, words);
    if (oversample != 0 || !device_takes_floats()) return;
    for (uint32_t &word : words) word = std::bit_cast<uint32_t>(float_of_word(word));
}

// Sets the PCM samples of the channels that are to be silent to 0. Decoded samples of all PCM
// formats are signed words or floats, so that 0 is silence. The filter turns zeros into zeros.
void silence_cut_channels(std::span<uint32_t> words)
{
    for (size_t i = 0; i < words.size(); i += 2) {
        if (left_cut != 0) words[i] = 0;
        if (right_cut != 0) words[i + 1] = 0;
    }
}

// Reads whole frames and decodes them. Result: false at the end of the file.
bool stage_samples()
{
    static std::array<uint8_t, staging_bytes> pcm_staging;
    if (feeding_file->bytes_left < 1) return false;
    const int32_t frame_bytes = feeding_file->wave.nBlockAlign;
    const int32_t count = staging_bytes / frame_bytes * frame_bytes;
    const int32_t got = read_samples(feeding_file, pcm_staging.data(), count);
    if (got < frame_bytes) return false;

    if (format_row == nullptr) format_row = find_format_row(feeding_file->sample_format);
    const auto frames = static_cast<size_t>(got / frame_bytes);
    const auto words = std::span(decoded_words).first(frames * stream_channels);
    decode_samples(pcm_staging.data(), words);
    silence_cut_channels(words);
    decoded = words;
    return true;
}

// Passes the next decoded frame through the filter.
void filter_frame()
{
    const std::array<float, stream_channels> input = {float_of_word(decoded[0]),
                                                      float_of_word(decoded[1])};
    int32_t count = 0;
    const float *output = coeff_filter_run(input.data(), &count);
    filtered = output == nullptr ? std::span<const float>{}
                                 : std::span(output, static_cast<size_t>(count));
    decoded = decoded.subspan(stream_channels);
}

// Unused bits in a word of a device format whose words are wider than its samples, such as S24_LE.
int32_t device_padding_bits()
{
    const auto format = static_cast<snd_pcm_format_t>(output_format);
    return snd_pcm_format_physical_width(format) - snd_pcm_format_width(format);
}

// Stores the top bytes of each word, least significant first. The low bits are cut off.
template <size_t bytes> void pack_words(std::span<const uint32_t> words, int shift, uint8_t *out)
{
    for (const uint32_t word : words) {
        const auto shifted = static_cast<uint32_t>(static_cast<int32_t>(word) >> shift);
        for (size_t i = 0; i < bytes; ++i)
            *out++ = static_cast<uint8_t>(shifted >> 8 * (4 - bytes + i));
    }
}

// The number of words in the whole frames that fit in the ring. The ring always keeps one frame
// free, so a frame fits only if more than its own size is free.
size_t words_of_room()
{
    const auto frame_bytes = static_cast<uint32_t>(stream_file->out_frame_bytes);
    const uint32_t room = ring_free(ring);
    return room == 0 ? 0 : size_t{(room - 1) / frame_bytes} * stream_channels;
}

// Stores words for which there is room, at most staging_words. For a sample width without a packing
// it stores nothing.
void put_words(std::span<const uint32_t> words)
{
    static std::array<uint8_t, staging_words * word_bytes> packed;
    static constexpr std::array<void (*)(std::span<const uint32_t>, int, uint8_t *), 5> packings = {
        nullptr, pack_words<1>, pack_words<2>, pack_words<3>, pack_words<4>};
    const auto sample_bytes = static_cast<size_t>(stream_file->out_sample_bytes);
    if (sample_bytes >= packings.size() || packings[sample_bytes] == nullptr) return;
    packings[sample_bytes](words, device_padding_bits(), packed.data());
    ring_put(ring, packed.data(), static_cast<uint32_t>(words.size() * sample_bytes));
}

// Stores decoded words. Result: false if there is no room.
bool put_decoded()
{
    const auto run = decoded.first(std::min(decoded.size(), words_of_room()));
    put_words(run);
    decoded = decoded.subspan(run.size());
    return !run.empty();
}

// Stores some of the pending output of the filter. Result: false if there is no room.
bool put_filtered()
{
    static std::array<uint32_t, staging_words> words;
    const auto run = filtered.first(std::min({filtered.size(), words_of_room(), words.size()}));
    for (size_t i = 0; i < run.size(); ++i) {
        words[i] = device_takes_floats() ? std::bit_cast<uint32_t>(run[i]) : word_of_float(run[i]);
    }
    put_words(std::span(words).first(run.size()));
    filtered = filtered.subspan(run.size());
    return !run.empty();
}

// Passes decoded frames through the filter as long as there is room. Result: false if nothing was
// done.
bool filter_decoded()
{
    bool done = false;
    while (!filtered.empty() || !decoded.empty()) {
        if (filtered.empty())
            filter_frame();
        else if (!put_filtered())
            return done;
        done = true;
    }
    return done;
}

} // namespace

int32_t pcm_feeder()
{
    if (load_acquire(interrupted) != 0 || feeding_file == stream_end) return 0;
    if (decoded.empty() && filtered.empty() && !stage_samples()) {
        format_row = nullptr;
        open_next_file();
        if (feeding_file == stream_end) store_release(ring->more_coming, 0);
        return -1;
    }
    const bool done = oversample != 0 ? filter_decoded() : put_decoded();
    return done ? -1 : 0;
}

static bool stream_was_played; // written by main while there is no output thread

void exit_if_interrupted()
{
    // A fatal report of the other thread sets both words; it sets stop_output first.
    if (load_acquire(interrupted) == 0 || is_stopped()) return;
    if (!stream_was_played) fatal_report(unit, 1045, "exit by interrupt\n");
    settle_end();
}

namespace
{

// --- Controller ---------------------------------------------------------------------------------

constexpr const char *controller_key_file = "/tmp/sonivane.key";
constexpr int controller_key_project = 255;

// Any user can create a memory block under the player's key and so make the player signal a process
// of another user. Only blocks that were created by root or by the player's own user are trusted.
bool is_trusted(int id)
{
    shmid_ds status;
    if (shmctl(id, IPC_STAT, &status) != 0) return false;
    return status.shm_perm.cuid == 0 || status.shm_perm.cuid == geteuid();
}

void attach_controller()
{
    const key_t key = ftok(controller_key_file, controller_key_project);
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    if (id < 0 || !is_trusted(id)) return;
    void *block = shmat(id, nullptr, 0);
    // shmat reports a failure by an address with all bits set.
    if (block == reinterpret_cast<void *>(-1)) return; // NOLINT(performance-no-int-to-ptr)
    controller = static_cast<controller_block *>(block);
}

// Sends SIGINT to the controller process when the stream changes to or from the I2S form.
// controller_state is written before the signal is sent.
void announce_stream()
{
    if (controller == nullptr) return;
    const int32_t state = i2s_mode != 0 ? flag_on : flag_off;
    if ((load_acquire(controller->controller_state) != 0) == (state != 0)) return;
    store_release(controller->controller_state, state);
    const int32_t process = load_acquire(controller->controller_pid);
    // 0 and negative values are process groups. Process 1 restarts the machine on SIGINT.
    if (process > 1) kill(process, SIGINT);
}

void detach_controller()
{
    if (controller == nullptr) return;
    shmdt(controller);
    controller = nullptr;
}

// --- Status -------------------------------------------------------------------------------------

soundfile *last_shown_file;
int64_t last_shown_second = -1;

// Total time in whole seconds. 0 if a field of the header is 0.
int64_t total_seconds(const soundfile *file)
{
    const wave_format &wave = file->wave;
    if (wave.nBlockAlign == 0 || wave.nSamplesPerSec == 0) return 0;
    // In DSD a byte holds 8 samples. data_bytes counts the bytes of one channel, nBlockAlign those
    // of both.
    const uint64_t factor = is_dsd(file) ? uint64_t{8} * stream_channels : 1;
    const auto bytes = static_cast<int64_t>(static_cast<uint64_t>(file->data_bytes) * factor);
    return bytes / wave.nBlockAlign / wave.nSamplesPerSec;
}

// Prints the banner of a file, unless it was printed last.
void show_banner_once(soundfile *file)
{
    if (file == last_shown_file) return;
    show_file_banner(file->index + 1, file_count, total_seconds(file), file->path);
    last_shown_file = file;
}

// --- The stages of main -------------------------------------------------------------------------

void read_command_line(int argc, char **argv)
{
    parse_options(argc, argv, 0);
    read_keys();
    if (args_used > argc) {
        print_usage(argv[0]);
        fatal_report(unit, 933, "argc is %d skip is %d\n", argc, args_used);
    }
    if (device_name[0] == '\0') find_last_card();
    if (device_name[0] == '\0') fatal_report(unit, 946, "Output device is not defined.\n");
}

[[noreturn]] void exit_out_of_memory()
{
    std::fputs("sonivane: out of memory\n", stderr);
    fatal_exit(EXIT_FAILURE);
}

// Makes file_list from the expanded names: one new record for each, and the sentinel.
void make_file_list(int argc, char **argv)
{
    char **names = expand_file_list(args_used, argc, argv);
    if (is_stopped()) return;
    if (names[0] == nullptr) fatal_report(unit, 958, "no files found.\n");
    while (names[file_count] != nullptr) ++file_count;

    const auto records = static_cast<size_t>(file_count) + 1;
    file_list = new (std::nothrow) soundfile[records]();
    if (file_list == nullptr) exit_out_of_memory();
    for (int32_t i = 0; i < file_count; ++i) {
        file_list[i].path = strdup(names[i]);
        if (file_list[i].path == nullptr) exit_out_of_memory();
    }
    pool_reset();
    pool_free();
}

// Sends the event for a file that was just probed, and stores the sizes with which a read error is
// detected later.
void emit_file(soundfile *file)
{
    file->probed_bytes = size_of(file);
    file->sound_offset = ftello(file->fp);
    event_file(file);
}

// Drops files of unknown format and closes the gaps: kept records are file_list[0] to [kept - 1].
void probe_files()
{
    const int32_t names = file_count;
    int32_t kept = 0;
    for (int32_t name = 0; name < names; ++name) {
        if (is_stopped()) return;
        soundfile *file = &file_list[kept];
        file->path = std::exchange(file_list[name].path, nullptr);
        file->index = kept;
        file->next = file + 1;
        exit_if_interrupted();
        event_probing(name, names);
        const bool taken = open_soundfile(file) == 0;
        if (taken) emit_file(file);
        close_file(file);
        if (taken) {
            ++kept;
        } else {
            std::free(std::exchange(file->path, nullptr));
            --file_count;
        }
    }
    file_list[kept].path = nullptr;
    file_list[kept].index = -1;
    file_list[kept].next = nullptr;
    if (file_count < 1) fatal_report(unit, 1009, "No sound files are found.\n");
}

// The first file after the given one that needs another stream. A file without sound fits in any
// stream.
soundfile *find_stream_end(soundfile *file)
{
    const soundfile &first = *file;
    for (; reopen != 0 && file->index >= 0; file = file->next) {
        const bool other_form = file->wave.nSamplesPerSec != first.wave.nSamplesPerSec ||
                                is_dsd(file) != is_dsd(&first);
        if (other_form && file->data_bytes > 0) return file;
    }
    return file_list + file_count;
}

// Opens the first file of the stream that begins at file. The first file of the list must open.
// Later ones are passed over if they do not. Result: false if no file is left.
bool begin_stream(soundfile *file)
{
    stream_end = find_stream_end(file);
    feeding_file = file;
    if (file == file_list && open_soundfile(file) < 0)
        fatal_report(unit, 1012, "soundfile %s open failed.\n", printable(file->path));
    while (file != file_list && feeding_file != stream_end && !is_stopped() &&
           !open_at_its_turn(feeding_file)) {
        close_file(feeding_file);
        feeding_file = feeding_file->next;
        exit_if_interrupted();
    }
    stream_file = feeding_file;
    store_release(playing_file, stream_file);
    return stream_file != stream_end;
}

void set_up_stream()
{
    if (sound_probe() == 0) fatal_report(unit, 1015, "sound initialize failed.\n");
    if (is_stopped()) return;
    stream_banner();
    if (oversample == 0) return;
    const int32_t rate = stream_file->wave.nSamplesPerSec;
    if (coeff_filter_init(rate, oversampled_rate, stream_channels, short_filter) == 0)
        fatal_report(unit, 1019, "coeff filter initialize failed.\n");
}

constexpr uint64_t smallest_buffer_bytes = 1572864; // 1.5 MiB

// Main refills the ring when a quarter of it is free. If a quarter lasts less than a sixth of a
// second, main waits until a sixth of a second is free, but at most half of the ring. That saves
// wake-ups.
uint32_t refill_of(const ringbuffer *r)
{
    const uint32_t sixth = static_cast<uint32_t>(output_rate) / 6;
    return std::max(r->usable_size / 4, std::min(r->usable_size / 2, sixth * r->gap));
}

void make_ring()
{
    if (buffer_bytes != 0 && buffer_bytes < smallest_buffer_bytes) {
        report(unit, 1027, "buffer size %dBytes is too small. reset to %d[Bytes].\n",
               static_cast<int32_t>(buffer_bytes), static_cast<int32_t>(smallest_buffer_bytes));
    }
    buffer_bytes = std::max(buffer_bytes, smallest_buffer_bytes);
    const auto frame_bytes = static_cast<uint32_t>(stream_file->out_frame_bytes);
    if (buffer_bytes < ring_size_limit)
        ring = ringbuffer_new(static_cast<uint32_t>(buffer_bytes), frame_bytes, file_count);
    if (ring == nullptr) fatal_report(unit, 1033, "ringbuffer_new() failed.\n");
    refill_bytes = refill_of(ring);
    emit_stream();
}

// Makes the first file of the list begin at the time of --start. If that is after its end, the list
// begins with the next file.
void begin_list()
{
    const exact_time time = std::exchange(start_time, {});
    if (time.seconds == 0 && time.attoseconds == 0) return;
    if (!begin_at(stream_file, time)) open_next_file();
}

// Fills the ring before the output thread exists. It prints one line for each per cent, because a
// line for each call would flood a log.
void fill_ring()
{
    terminal_raw();
    int32_t shown = -1;
    while (load_acquire(ring->more_coming) != 0 && !ring_is_primed()) {
        const bool fed = !is_stopped() && fill_buffer() != 0;
        exit_if_interrupted(); // checked after the feeder, which does nothing after a SIGINT
        if (!fed) return;
        const int32_t percent = ring_percent(ring);
        if (percent != shown) show_status(shown_second(stream_file), percent, "filling buffer");
        shown = percent;
        event_filling(percent);
    }
}

pthread_t start_output()
{
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, output_thread, nullptr) != 0)
        fatal_report(unit, 1062, "pthread_create() failed.\n");
    return thread;
}

// There is something to print, or feeding must end.
bool has_news()
{
    const soundfile *file = load_acquire(playing_file);
    return is_stopped() || load_acquire(interrupted) != 0 || file != last_shown_file ||
           shown_second(file) != last_shown_second;
}

// While the sound waits after an underrun or a suspend, main fills the ring at once, and does not
// wait until refill_bytes are free.
bool has_work()
{
    return has_news() || ring_free(ring) >= refill_bytes ||
           (sound_waits(load_acquire(sound_breaks)) && !ring_is_primed());
}

// Keeps the ring full until everything is fed or the output is stopped.
void feed_list()
{
    while (!is_stopped() && load_acquire(ring->more_coming) != 0) {
        if (load_acquire(interrupted) != 0) {
            feeding_file = stream_end;
            return;
        }
        status_update(load_acquire(playing_file));
        const bool fed = fill_buffer() != 0;
        if (!fed && feeding_file == stream_end) store_release(ring->more_coming, 0);
        sound_was_fed();
        if (!fed && feeding_file != stream_end) wait_for(longest_wait, has_work);
    }
}

// The inputs from which latest_end is computed.
struct end_basis {
    sound_phase phase;
    int32_t breaks; // value of sound_breaks
    bool unwanted;  // a SIGINT came
    bool operator==(const end_basis &) const = default;
};

// The deadline for the end of the current stream in microseconds of the monotonic clock, and the
// values that it was computed from.
int64_t latest_end;
end_basis latest_end_basis;

end_basis basis_now()
{
    return {phase_of_sound(), load_acquire(sound_breaks), load_acquire(interrupted) != 0};
}

// Microseconds that the sound may still last when nothing more is read: 1.1 times the time that
// ring and device hold, plus a fixed time. What the device reports is not used. While the device is
// being opened, and while the sound waits after an underrun or a suspend, the time is unknown: then
// the result is longest_wait, unless a SIGINT came.
int64_t time_left(const end_basis &basis)
{
    constexpr int64_t for_the_end = 400000;    // for closing the device after the last frame
    constexpr int64_t for_the_start = 3000000; // a sound server may start two seconds late
    if (basis.phase == sound_phase::waiting && !basis.unwanted) return longest_wait;
    if (basis != latest_end_basis) {
        const bool starts = basis.phase != sound_phase::sound && !basis.unwanted;
        const int64_t left = sound_left();
        latest_end = microseconds_now() + left + left / 10 + (starts ? for_the_start : for_the_end);
        latest_end_basis = basis;
    }
    if (latest_end == longest_wait) return longest_wait;
    return std::max(latest_end - microseconds_now(), int64_t{0});
}

// Waits unless something is due. If no time is left, it stops the sound.
template <typename Due> void wait_in_time(Due due)
{
    const end_basis basis = basis_now();
    const int64_t left = time_left(basis);
    if (left != 0) return wait_for(left, [&] { return due() || basis_now() != basis; });
    if (!basis.unwanted && ring_frames(ring) > 0) stop_playing(&refused_by_device);
    settle_end();
}

// Prints the progress while the rest of the ring is played. When the ring is empty, a file that
// went out completely since the last check still needs its banner. Its seconds are not printed.
void drain_ring()
{
    while (!is_stopped() && load_acquire(interrupted) == 0) {
        if (ring_frames(ring) == 0) return show_banner_once(load_acquire(playing_file));
        status_update(load_acquire(playing_file));
        wait_in_time([] { return has_news() || ring_frames(ring) == 0; });
    }
}

// Waits until the device is closed or the sound was stopped.
void wait_for_sound()
{
    const auto due = [] { return sound_is_over() || is_stopped(); };
    while (!due()) wait_in_time(due);
}

// Prints the banner of a file that started to play after main's last check.
void show_last_file()
{
    if (!is_stopped() && load_acquire(interrupted) == 0)
        show_banner_once(load_acquire(playing_file));
}

void play_list()
{
    latest_end = longest_wait;
    latest_end_basis = {sound_phase::opening, load_acquire(sound_breaks), false};
    sound_starts();
    const pthread_t output = start_output();
    announce_stream();
    feed_list();
    drain_ring();

    std::puts(blank_line);
    wait_for_sound();
    if (pthread_join(output, nullptr) != 0) fatal_report(unit, 1068, "pthread_join() failed.\n");
    stream_was_played = true;
    show_last_file();
}

// After a SIGINT has let the ring play out, the rest of the list is not played.
void end_stream()
{
    forget_stream();
    ringbuffer_free(&ring);
    if (load_acquire(interrupted) != 0) settle_end();
}

// Runs the stages of a stream. After a stop, the remaining stages are left out.
void play_stream()
{
    static constexpr std::array stages = {set_up_stream, make_ring, begin_list,
                                          fill_ring,     play_list, end_stream};
    for (const auto stage : stages)
        if (!is_stopped()) stage();
}

void clean_up()
{
    ringbuffer_free(&ring);
    for (int32_t i = 0; i < file_count; ++i) std::free(std::exchange(file_list[i].path, nullptr));
    dsf_release();
    detach_controller();
    terminal_restore();
}

bool everything_is_out()
{
    return load_acquire(ring->more_coming) == 0 && ring_frames(ring) == 0;
}

} // namespace

bool ring_is_primed()
{
    constexpr int32_t filled_percent = 79;
    return ring_percent(ring) > filled_percent || ring_used(ring) >= prime_bytes;
}

void status_update(soundfile *file)
{
    show_banner_once(file);
    const int64_t second = shown_second(file);
    if (second == last_shown_second) return;
    last_shown_second = second;

    if (silent != 0) {
        std::printf("%d %ld\n", file->index, static_cast<long>(second));
    } else if (everything_is_out()) {
        std::fputs(blank_line, stdout);
    } else {
        show_status(second, ring_percent(ring), mode_label);
    }
    std::fflush(stdout);
}

int main(int argc, char **argv)
{
    open_missing_descriptors();
    attach_controller();
    raise_priority();
    start_lookout();
    read_command_line(argc, argv);
    make_file_list(argc, argv);

    // From here on a key stops the run, between two stages or inside a stage. Main still goes on to
    // the end of this function.
    if (!is_stopped()) probe_files();
    for (soundfile *file = file_list; !is_stopped() && file->index >= 0; file = stream_end)
        if (begin_stream(file)) play_stream();
    if (!sound_has_started()) std::puts(blank_line);
    std::putchar('\n');
    clean_up();
    const int32_t status = settle_end();
    begin_to_leave();
    event_end(status);
    std::fflush(stdout);
    print_early_end();
    end_is_near();
    return status & 0xFF;
}
