// The player: the flow of the program from first line to last, the opening of files, and the two
// feeders that turn file bytes into device frames.
#include "sonivane.h"

#include <execinfo.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <new>
#include <span>
#include <utility>

#include "alsathread.h"
#include "common.h"
#include "dir2files.h"
#include "dsdiff.h"
#include "dsf.h"
#include "parse_param.h"
#include "util.h"
#include "wav.h"
#include "wsd.h"

soundfile *file_list;
int32_t file_count;
soundfile *feeding_file;
std::atomic<soundfile *> playing_file;
feeder_slot fill_buffer;
reader_slot read_samples;
ringbuffer *ring;
std::atomic<int32_t> interrupted;
std::atomic<int32_t> stop_output;
std::atomic<int32_t> output_format{SND_PCM_FORMAT_S32_LE};
std::atomic<int32_t> output_rate;
std::atomic<int32_t> dsd_stream;
std::atomic<int32_t> i2s_mode;
snd_pcm_t *pcm;
std::array<char, 1024> device_name;
int32_t oversample;
int32_t short_filter;
int32_t left_cut;
int32_t right_cut;
int32_t silent;
int32_t args_used;
uint64_t buffer_bytes;
const char *mode_label;
controller_block *controller;

int32_t open_soundfile(soundfile *file);
int32_t pcm_feeder();
int32_t dsd_feeder();
void status_update(soundfile *file);

namespace
{

constexpr const char *unit = "sonivane";

constexpr const char *controller_key_file = "/tmp/sonivane.key";
constexpr int controller_key_project = 255;

constexpr uint64_t smallest_buffer_bytes = 1572864; // 1.5 MiB
constexpr uint64_t buffer_bytes_limit = uint64_t{1} << 31;
constexpr int32_t primed_percent = 79; // priming ends above it

// Sleeps of the main thread in microseconds.
constexpr uint32_t yield_sleep = 0;
constexpr uint32_t room_sleep = 1;
constexpr uint32_t full_ring_sleep = 100;
constexpr uint32_t drain_sleep = 500;

soundfile *last_shown_file;
int64_t last_shown_second = -1;

// Set once a thread takes from the ring: before that a wait for room would never end.
bool output_started;

// --- Opening a file -----------------------------------------------------------------------------

// The parsers in the order in which a file is offered to them.
struct container_row {
    int32_t (*open)(soundfile *file);
    reader_slot read;
    container_kind container;
};
constexpr std::array<container_row, 4> containers = {{
    {wav_open, wav_read, container_wav},
    {dsdiff_open, dsdiff_read, container_dsdiff},
    {dsf_open, dsf_read, container_dsf},
    {wsd_open, wsd_read, container_wsd},
}};

// Makes all DSD containers look alike. The parser left lengths in bits per channel.
void describe_dsd(soundfile *file)
{
    file->sample_bytes = 1;
    file->bytes_left = file->bytes_left / 8;
    file->data_bytes = file->data_bytes / 8 + (file->data_bytes % 8 > 0 ? 1 : 0);
    wave_format &wave = file->wave;
    wave.nChannels = stream_channels;
    wave.nAvgBytesPerSec = wave.nSamplesPerSec / 8 * stream_channels;
    wave.nBlockAlign = stream_channels;
    wave.wBitsPerSample = dsd_bits_per_sample;
    wave.cbSize = 22;
    wave.dwChannelMask = (wave.dwChannelMask & 0xFFFF0000U) | 1;
    std::fill_n(wave.SubFormat.begin(), 4, uint8_t{0});
}

constexpr int16_t wave_tag_float = 3;
constexpr int16_t wave_tag_extensible = static_cast<int16_t>(0xFFFE);

// The format code of an extended chunk stands in the first two bytes of its sub-format.
bool holds_floats(const wave_format &wave)
{
    const int code = wave.SubFormat[0] | wave.SubFormat[1] << 8;
    return wave.wFormatTag == wave_tag_float ||
           (wave.wFormatTag == wave_tag_extensible && code == wave_tag_float);
}

// The stored width counts, not the valid bits.
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

// --- The next file of the list ------------------------------------------------------------------

// The mark of a file that is about to start: all that is in the ring goes out before it.
void set_track_mark(const soundfile *file)
{
    track_mark &mark = ring->track_marks[file->index];
    store_release(mark.index, file->index);
    store_release(mark.count, static_cast<int32_t>(ring_used(ring)));
}

void close_file(soundfile *file)
{
    if (file->fp == nullptr) return;
    std::fclose(file->fp);
    file->fp = nullptr;
}

// Closes the file that was fed to its end and opens the one after it. A file that was sound when it
// was probed and is no more gets its mark, as an empty one, and is passed over.
void open_next_file()
{
    close_file(feeding_file);
    feeding_file = feeding_file->next;
    while (feeding_file->index >= 0) {
        set_track_mark(feeding_file);
        if (open_soundfile(feeding_file) == 0) return;
        close_file(feeding_file);
        feeding_file = feeding_file->next;
    }
}

// Waits until more than short_of bytes of the ring are free. False when that cannot come: the
// output was stopped, or nobody takes from the ring yet.
bool wait_for_room(uint32_t short_of)
{
    while (ring_free(ring) <= short_of) {
        if (!output_started || load_acquire(interrupted) != 0 || load_acquire(stop_output) != 0)
            return false;
        poll_keyboard(); // room can be half a second away, while the device plays the silence
        poll_sleep(room_sleep, wakeup::late);
    }
    return true;
}

// --- DSD feeder ---------------------------------------------------------------------------------

constexpr uint32_t dsd_call_frames = 3528; // most frames of one call
constexpr uint32_t dsd_least_frames = 352; // with less room a call does nothing
constexpr size_t dsd_frame_bytes = 8;
constexpr size_t dsd_packed_frame_bytes = 6; // in 3-byte samples
constexpr uint8_t native_cut = 0xAA;
constexpr uint8_t dop_cut = 0x55;
constexpr uint8_t i2s_cut = 0;

// DoP open standard 1.1: the markers alternate from frame to frame for as long as the stream lasts,
// over all files. A receiver that misses one plays the frames as PCM, which is full-scale noise.
constexpr std::array<uint8_t, 2> dop_marker = {0xFA, 0x05};
int32_t dop_marker_phase; // index into dop_marker; never reset

// Eight bytes as a reader delivers them: L0 R0 L1 R1 L2 R2 L3 R3, oldest first.
using dsd_chunk = std::array<uint8_t, dsd_group_bytes>;
using dsd_frame = std::array<uint8_t, dsd_frame_bytes>;

void overwrite_cut_channels(dsd_chunk &chunk, uint8_t fill)
{
    for (size_t i = 0; i < chunk.size(); i += 2) {
        if (left_cut != 0) chunk[i] = fill;
        if (right_cut != 0) chunk[i + 1] = fill;
    }
}

// Each form packs a chunk into whole frames at out. Result: bytes stored.

size_t store(uint8_t *out, const dsd_frame &frame, size_t frame_bytes = dsd_frame_bytes)
{
    std::memcpy(out, frame.data(), frame_bytes);
    return frame_bytes;
}

size_t pack_native_le(const dsd_chunk &c, uint8_t *out)
{
    return store(out, {c[6], c[4], c[2], c[0], c[7], c[5], c[3], c[1]});
}

size_t pack_native_be(const dsd_chunk &c, uint8_t *out)
{
    return store(out, {c[0], c[2], c[4], c[6], c[1], c[3], c[5], c[7]});
}

// Two DoP frames; lay_out gives the bytes of one from four bytes of the chunk and the marker.
template <size_t frame_bytes, typename Layout>
size_t pack_dop(const dsd_chunk &chunk, uint8_t *out, Layout lay_out)
{
    size_t bytes = 0;
    int32_t phase = dop_marker_phase;
    for (size_t i = 0; i < chunk.size(); i += 4) {
        const uint8_t marker = dop_marker[static_cast<size_t>(phase)];
        bytes += store(out + bytes, lay_out(&chunk[i], marker), frame_bytes);
        phase ^= 1;
    }
    dop_marker_phase = phase;
    return bytes;
}

size_t pack_dop_3_bytes(const dsd_chunk &chunk, uint8_t *out)
{
    return pack_dop<dsd_packed_frame_bytes>(chunk, out, [](const uint8_t *c, uint8_t marker) {
        return dsd_frame{c[2], c[0], marker, c[3], c[1], marker};
    });
}

size_t pack_dop_4_bytes(const dsd_chunk &chunk, uint8_t *out)
{
    return pack_dop<dsd_frame_bytes>(chunk, out, [](const uint8_t *c, uint8_t marker) {
        return dsd_frame{0, c[2], c[0], marker, 0, c[3], c[1], marker};
    });
}

// S24_LE carries the low 24 bits of its word.
size_t pack_dop_s24(const dsd_chunk &chunk, uint8_t *out)
{
    return pack_dop<dsd_frame_bytes>(chunk, out, [](const uint8_t *c, uint8_t marker) {
        return dsd_frame{c[2], c[0], marker, 0, c[3], c[1], marker, 0};
    });
}

// spread_bits[v]: bit i of v at bit 2i, as the right channel's bits lie in an I2S half-word.
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

// Two words of bits, left and right in turn, the older half-word above, each word lowest byte
// first.
size_t pack_i2s(const dsd_chunk &chunk, uint8_t *out)
{
    dsd_frame frame{};
    for (size_t i = 0; i < chunk.size(); i += 4) {
        const uint16_t older = interleave_bits(chunk[i], chunk[i + 1]);
        const uint16_t newer = interleave_bits(chunk[i + 2], chunk[i + 3]);
        frame[i] = static_cast<uint8_t>(newer);
        frame[i + 1] = static_cast<uint8_t>(newer >> 8);
        frame[i + 2] = static_cast<uint8_t>(older);
        frame[i + 3] = static_cast<uint8_t>(older >> 8);
    }
    return store(out, frame);
}

struct dsd_form {
    size_t (*pack)(const dsd_chunk &chunk, uint8_t *out);
    uint32_t charge; // frames of budget that a chunk costs
    uint8_t cut;     // what a cut channel's bytes become
};

// The format decides before i2s_mode does; a PCM word of any other format gets DoP in 4 bytes.
dsd_form current_dsd_form()
{
    switch (load_acquire(output_format)) {
    case SND_PCM_FORMAT_DSD_U32_LE:
        return {pack_native_le, 1, native_cut};
    case SND_PCM_FORMAT_DSD_U32_BE:
        return {pack_native_be, 1, native_cut};
    case SND_PCM_FORMAT_S24_3LE:
        return {pack_dop_3_bytes, 2, dop_cut};
    default:
        break;
    }
    if (load_acquire(i2s_mode) != 0) return {pack_i2s, 2, i2s_cut};
    if (load_acquire(output_format) == SND_PCM_FORMAT_S24_LE) return {pack_dop_s24, 2, dop_cut};
    return {pack_dop_4_bytes, 2, dop_cut};
}

// The frames of one call, on their way into the ring; a chunk of two may end one above the budget.
std::array<uint8_t, (dsd_call_frames + 1) * dsd_frame_bytes> packed_frames;
static_assert(sizeof packed_frames < smallest_buffer_bytes / 100 * (100 - primed_percent - 1),
              "priming leaves room for a whole call");

// Packs chunks of the feeding file for as many frames as budget. *bytes: what packed_frames holds
// then. False when the file ended.
bool pack_chunks(uint32_t budget, size_t *bytes)
{
    for (*bytes = 0; budget > 0;) {
        dsd_chunk chunk;
        if (read_samples(feeding_file, chunk.data(), dsd_group_bytes) < 1) return false;
        const dsd_form form = current_dsd_form();
        if ((left_cut | right_cut) != 0) overwrite_cut_channels(chunk, form.cut);
        *bytes += form.pack(chunk, &packed_frames[*bytes]);
        budget -= std::min(budget, form.charge);
    }
    return true;
}

// Frames of room that one call may use; 0 for none worth a call. *budget: those up to the wrap. A
// ring made for other frames may end in less than one: ring_put splits that frame.
uint32_t dsd_room(uint32_t frame_bytes, uint32_t *budget)
{
    const uint32_t frames = std::min(ring_free(ring) / frame_bytes, dsd_call_frames);
    *budget = std::min(std::max(ring_free_run(ring) / frame_bytes, 1U), frames);
    return frames < dsd_least_frames ? 0 : frames;
}

// --- PCM feeder ---------------------------------------------------------------------------------

constexpr int32_t staging_bytes = 3072;
constexpr size_t staging_words = staging_bytes; // samples of one byte each

std::array<uint8_t, staging_bytes> pcm_staging;
int32_t staged_bytes;    // bytes of pcm_staging not yet decoded
int32_t staged_position; // offset of the next byte to decode

struct pcm_format_row {
    int32_t alsa_format;  // SND_PCM_FORMAT_*
    int32_t stream_bytes; // bytes of one sample; below 1: the end row
    uint32_t bias;        // taken from an unsigned sample to make it signed
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

const pcm_format_row *format_row; // of the file being fed; null: not looked up yet

// Samples as left-justified signed words, left and right in turn.
using pcm_words = std::array<uint32_t, staging_words>;

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

// x 2^31, cut toward zero, saturating; NaN gives 0.
uint32_t word_of_float(float value)
{
    constexpr float full_scale = 2147483648.0F;
    const float scaled = value * full_scale;
    if (scaled >= full_scale) return 0x7FFFFFFF;
    if (scaled <= -full_scale) return 0x80000000;
    return std::isnan(scaled) ? 0 : static_cast<uint32_t>(static_cast<int32_t>(scaled));
}

// Only a device of floats, without the filter, gets a float's bits as they are.
bool floats_pass_unchanged()
{
    return oversample == 0 && load_acquire(output_format) == SND_PCM_FORMAT_FLOAT_LE;
}

template <bool big_endian>
void decode_floats(const uint8_t *samples, int32_t sample_bytes, std::span<uint32_t> words)
{
    const bool unchanged = floats_pass_unchanged();
    for (uint32_t &word : words) {
        word = stored_word<4, big_endian>(samples);
        if (!unchanged) word = word_of_float(std::bit_cast<float>(word));
        samples += sample_bytes;
    }
}

const pcm_format_row *find_format_row(int32_t format)
{
    const auto *row = pcm_format_table.data();
    while (row != end_row && row->alsa_format != format) ++row;
    const bool is_float = format == SND_PCM_FORMAT_FLOAT_LE || format == SND_PCM_FORMAT_FLOAT_BE;
    if (row == end_row && !is_float)
        fatal_report(unit, 533, "Unsupported input format %d.\n", format);
    return row;
}

// Decodes words.size() samples of the feeding file.
void decode_samples(const uint8_t *samples, std::span<uint32_t> words)
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
        break;
    }
    if (format_row != end_row)
        fatal_report(unit, 464, "Illegal byte count %d\n", format_row->stream_bytes);
    const bool big_float = feeding_file->sample_format == SND_PCM_FORMAT_FLOAT_BE;
    (big_float ? decode_floats<true> : decode_floats<false>)(samples, feeding_file->sample_bytes,
                                                             words);
}

void silence_cut_channels(std::span<uint32_t> words)
{
    for (size_t i = 0; i < words.size(); i += 2) {
        if (left_cut != 0) words[i] = 0;
        if (right_cut != 0) words[i + 1] = 0;
    }
}

// Bits below the sample of a device format whose words are wider than its samples, such as S24_LE.
int32_t device_padding_bits()
{
    const auto format = static_cast<snd_pcm_format_t>(load_acquire(output_format));
    return snd_pcm_format_physical_width(format) - snd_pcm_format_width(format);
}

// The top bytes of each word, least significant first. What lies below is cut off.
template <size_t bytes> void pack_words(std::span<const uint32_t> words, int shift, uint8_t *out)
{
    for (const uint32_t word : words) {
        const auto shifted = static_cast<uint32_t>(static_cast<int32_t>(word) >> shift);
        for (size_t i = 0; i < bytes; ++i)
            *out++ = static_cast<uint8_t>(shifted >> 8 * (4 - bytes + i));
    }
}

// Result: bytes stored at out, which holds 4 for each word; 0 for a sample width that has no
// packing.
size_t pack_samples(std::span<const uint32_t> words, uint8_t *out)
{
    const int32_t sample_bytes = load_acquire(file_list[0].out_sample_bytes);
    const int32_t padding = device_padding_bits();
    const int shift = padding > 0 && padding < 32 ? padding : 0;
    switch (sample_bytes) {
    case 1:
        pack_words<1>(words, shift, out);
        break;
    case 2:
        pack_words<2>(words, shift, out);
        break;
    case 3:
        pack_words<3>(words, shift, out);
        break;
    case 4:
        pack_words<4>(words, shift, out);
        break;
    default:
        return 0;
    }
    return words.size() * static_cast<size_t>(sample_bytes);
}

// Frames that fit in the ring now while each still leaves more than its own size free.
size_t frames_of_room()
{
    const auto frame_bytes = static_cast<uint32_t>(load_acquire(file_list[0].out_frame_bytes));
    const uint32_t room = ring_free(ring);
    return room == 0 ? 0 : (room - 1) / frame_bytes;
}

// Stores the words of whole frames, as many at a time as there is room for. Result: the words
// stored, fewer than given only when room will not come.
size_t put_words(std::span<const uint32_t> words)
{
    const auto frame_bytes = static_cast<uint32_t>(load_acquire(file_list[0].out_frame_bytes));
    std::array<uint8_t, staging_words * 4> packed;
    size_t stored = 0;
    while (stored < words.size() && wait_for_room(frame_bytes)) {
        const size_t fitting = std::min(frames_of_room() * stream_channels, packed.size() / 4);
        const auto run = words.subspan(stored, std::min(fitting, words.size() - stored));
        ring_put(ring, packed.data(), static_cast<uint32_t>(pack_samples(run, packed.data())));
        stored += run.size();
    }
    return stored;
}

// --- The filter road ----------------------------------------------------------------------------

constexpr float word_to_float = 4.656613e-10F; // 2^-31
static_assert(std::bit_cast<uint32_t>(word_to_float) == 0x30000000);

// What the filter gave for the last frame and the ring had no room for yet.
std::span<const float> filtered;

// Stores the filter's pending floats. False when room will not come; they stay pending.
bool put_filtered()
{
    std::array<uint32_t, 512> words;
    while (!filtered.empty()) {
        const auto run = std::span(words).first(std::min(words.size(), filtered.size()));
        for (size_t i = 0; i < run.size(); ++i) run[i] = word_of_float(filtered[i]);
        silence_cut_channels(run);
        const size_t stored = put_words(run);
        filtered = filtered.subspan(stored);
        if (stored < run.size()) return false;
    }
    return true;
}

// Runs one frame of words through the filter.
void filter_frame(const uint32_t *words)
{
    const std::array<float, stream_channels> input = {
        static_cast<float>(static_cast<int32_t>(words[0])) * word_to_float,
        static_cast<float>(static_cast<int32_t>(words[1])) * word_to_float};
    int32_t count = 0;
    const float *output = coeff_filter_run(input.data(), &count);
    filtered = output == nullptr ? std::span<const float>{}
                                 : std::span(output, static_cast<size_t>(count));
}

// --- One call of the PCM feeder -----------------------------------------------------------------

// Reads whole frames into the empty staging buffer. False at the end of the file.
bool stage_samples()
{
    staged_bytes = 0;
    staged_position = 0;
    if (feeding_file->bytes_left < 1) return false;
    const int32_t frame_bytes = feeding_file->wave.nBlockAlign;
    const int32_t count = staging_bytes / frame_bytes * frame_bytes;
    const int32_t got = read_samples(feeding_file, pcm_staging.data(), count);
    if (got < frame_bytes) return false;
    staged_bytes = got / frame_bytes * frame_bytes;
    poll_sleep(yield_sleep, wakeup::prompt);
    return true;
}

void consume_staged(size_t frames)
{
    const auto bytes = static_cast<int32_t>(frames) * stream_channels * feeding_file->sample_bytes;
    staged_bytes -= bytes;
    staged_position += bytes;
}

// Feeds all that is staged, or less when room will not come.
void feed_staged()
{
    if (format_row == nullptr) format_row = find_format_row(feeding_file->sample_format);
    static pcm_words buffer;
    const auto samples = static_cast<size_t>(staged_bytes / feeding_file->sample_bytes);
    const auto words = std::span(buffer).first(samples / stream_channels * stream_channels);
    decode_samples(&pcm_staging[static_cast<size_t>(staged_position)], words);

    if (oversample == 0) {
        silence_cut_channels(words);
        consume_staged(put_words(words) / stream_channels);
        return;
    }
    for (size_t i = 0; i < words.size(); i += stream_channels) {
        filter_frame(&words[i]);
        consume_staged(1);
        if (!put_filtered()) return;
    }
}

// --- Signals ------------------------------------------------------------------------------------

constexpr int stack_limit = 1024;
constexpr int32_t report_interrupt = 799;

// What a second SIGINT does: only calls that are safe in a handler, since the first thread may have
// been stopped inside malloc or a stream.
[[noreturn]] void abort_with_stack()
{
    static std::array<void *, stack_limit> stack;
    static constexpr char text[] = "\nERROR sonivane 799 Interrupt stack. Abort\n";
    const int depth = backtrace(stack.data(), stack_limit);
    backtrace_symbols_fd(stack.data(), depth, STDERR_FILENO);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
    terminal_restore();
    _exit(report_interrupt & 0xFF);
}

void sigint_handler(int)
{
    if (interrupted.exchange(flag_on) != 0) abort_with_stack();
}

void install_sigint_handler()
{
    // The first backtrace of a process loads a library, which a handler must not do.
    std::array<void *, 1> warm_up;
    backtrace(warm_up.data(), warm_up.size());
    std::signal(SIGINT, sigint_handler);
}

// --- Controller ---------------------------------------------------------------------------------

void attach_controller()
{
    const key_t key = ftok(controller_key_file, controller_key_project);
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    if (id < 0) return;
    void *block = shmat(id, nullptr, 0);
    // shmat tells a failure by an address of all ones.
    if (block == reinterpret_cast<void *>(-1)) return; // NOLINT(performance-no-int-to-ptr)
    controller = static_cast<controller_block *>(block);
}

// Tells the controller of a change between I2S and any other form: first the word, then the signal.
void announce_stream()
{
    if (controller == nullptr) return;
    const int32_t state = load_acquire(i2s_mode) != 0 ? flag_on : flag_off;
    if ((load_acquire(controller->controller_state) != 0) == (state != 0)) return;
    store_release(controller->controller_state, state);
    const int32_t process = load_acquire(controller->controller_pid);
    if (process > 0) kill(process, SIGINT); // 0 and below name groups of processes
}

void detach_controller()
{
    if (controller == nullptr) return;
    shmdt(controller);
    controller = nullptr;
}

// --- The stages of main -------------------------------------------------------------------------

void read_command_line(int argc, char **argv)
{
    parse_options(argc, argv, 0);
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

// Makes file_list from the names of the command line: one fresh record each, and the sentinel.
void make_file_list(int argc, char **argv)
{
    char **names = expand_file_list(args_used, argc, argv);
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

// Drops files of no known format and closes the ranks: record i always holds the next name.
void probe_files()
{
    const int32_t names = file_count;
    int32_t kept = 0;
    for (int32_t name = 0; name < names; ++name) {
        soundfile *file = &file_list[kept];
        file->path = std::exchange(file_list[name].path, nullptr);
        file->index = kept;
        file->next = file + 1;
        const bool taken = open_soundfile(file) == 0;
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

void open_first_file()
{
    if (open_soundfile(file_list) < 0)
        fatal_report(unit, 1012, "soundfile %s open failed.\n", printable(file_list->path));
}

void set_up_stream()
{
    if (sound_probe() == 0) fatal_report(unit, 1015, "sound initialize failed.\n");
    stream_banner();
    if (oversample == 0) return;
    const int32_t rate = file_list->wave.nSamplesPerSec;
    if (coeff_filter_init(rate, oversampled_rate, stream_channels, short_filter) == 0)
        fatal_report(unit, 1019, "coeff filter initialize failed.\n");
}

void make_ring()
{
    if (buffer_bytes != 0 && buffer_bytes < smallest_buffer_bytes) {
        report(unit, 1027, "buffer size %dBytes is too small. reset to %d[Bytes].\n",
               static_cast<int32_t>(buffer_bytes), static_cast<int32_t>(smallest_buffer_bytes));
    }
    buffer_bytes = std::max(buffer_bytes, smallest_buffer_bytes);
    const auto format = static_cast<snd_pcm_format_t>(load_acquire(output_format));
    const auto frame_bytes =
        static_cast<uint32_t>(stream_channels * (snd_pcm_format_physical_width(format) / 8));
    if (buffer_bytes < buffer_bytes_limit)
        ring = ringbuffer_new(static_cast<uint32_t>(buffer_bytes), frame_bytes, file_count);
    if (ring == nullptr) fatal_report(unit, 1033, "ringbuffer_new() failed.\n");
    set_track_mark(file_list);
}

// Fills the ring before anything takes from it.
void prime_ring()
{
    while (load_acquire(ring->more_coming) != 0 && ring_percent(ring) <= primed_percent) {
        if (load_acquire(interrupted) != 0) fatal_report(unit, 1045, "exit by interrupt\n");
        if (fill_buffer() == 0) return;
        show_status(0, ring_percent(ring), "filling buffer");
        poll_sleep(yield_sleep, wakeup::prompt);
    }
}

pthread_t start_output()
{
    pthread_t thread{};
    store_release(stop_output, flag_off);
    output_started = true;
    if (pthread_create(&thread, nullptr, output_thread, nullptr) != 0)
        fatal_report(unit, 1062, "pthread_create() failed.\n");
    return thread;
}

// Keeps the ring full until everything is fed or something stops the output.
void feed_list()
{
    while (load_acquire(stop_output) == 0) {
        if (load_acquire(interrupted) != 0) {
            feeding_file = file_list + file_count;
            return;
        }
        if (load_acquire(ring->more_coming) == 0) return;
        status_update(load_acquire(playing_file));
        poll_keyboard();
        if (fill_buffer() != 0) {
            poll_sleep(yield_sleep, wakeup::prompt);
        } else if (feeding_file->index >= 0) {
            poll_sleep(full_ring_sleep, wakeup::late);
        } else {
            store_release(ring->more_coming, 0);
            return;
        }
    }
}

void drain_ring()
{
    while (ring_used(ring) > 0 && load_acquire(stop_output) == 0 &&
           load_acquire(interrupted) == 0) {
        soundfile *file = load_acquire(playing_file);
        if (file->index >= 0) status_update(file);
        poll_keyboard();
        poll_sleep(drain_sleep, wakeup::late);
    }
}

void clean_up()
{
    ringbuffer_free(&ring);
    for (int32_t i = 0; i < file_count; ++i) std::free(std::exchange(file_list[i].path, nullptr));
    dsf_release();
    detach_controller();
    terminal_restore();
}

// Total time in whole seconds; a header with a field of 0 gives 0.
int64_t total_seconds(const soundfile *file)
{
    const wave_format &wave = file->wave;
    if (wave.nBlockAlign == 0 || wave.nSamplesPerSec == 0) return 0;
    const uint64_t factor = wave.wBitsPerSample == dsd_bits_per_sample ? 16 : 1;
    const auto bytes = static_cast<int64_t>(static_cast<uint64_t>(file->data_bytes) * factor);
    return bytes / wave.nBlockAlign / wave.nSamplesPerSec;
}

bool everything_is_out()
{
    return load_acquire(ring->more_coming) == 0 && ring_used(ring) == 0;
}

} // namespace

// Opens path and offers the stream to each parser. 0: a parser took it, the record describes it,
// the slots are set and the stream stands on the first sound byte. -1: none did, and fp is open for
// the caller to close. A path that cannot be opened is report 725. Main thread.
int32_t open_soundfile(soundfile *file)
{
    file->fp = fopen64(file->path, "rb");
    if (file->fp == nullptr)
        fatal_report(unit, 725, "file %s open error.\n", printable(file->path));

    for (const container_row &row : containers) {
        std::rewind(file->fp);
        if (row.open(file) != 0) continue;
        file->container = row.container;
        if (row.container == container_wav)
            describe_pcm(file);
        else
            describe_dsd(file);
        fill_buffer = row.container == container_wav ? pcm_feeder : dsd_feeder;
        read_samples = row.read;
        return 0;
    }
    std::fprintf(stderr, "file format of %s unknown. Skip\n", printable(file->path));
    return -1;
}

// Feeds DSD: up to 3528 frames to the end of the ring's data area. 0: nothing done, for want of
// room, of files, or after a SIGINT; else -1. Main thread, through fill_buffer.
int32_t dsd_feeder()
{
    if (load_acquire(interrupted) != 0 || feeding_file->index < 0) return 0;
    const bool packed = load_acquire(output_format) == SND_PCM_FORMAT_S24_3LE;
    const size_t frame_bytes = packed ? dsd_packed_frame_bytes : dsd_frame_bytes;
    uint32_t budget = 0;
    if (dsd_room(static_cast<uint32_t>(frame_bytes), &budget) == 0) return 0;

    size_t bytes = 0;
    const bool more = pack_chunks(budget, &bytes);
    if (bytes > 0 && wait_for_room(static_cast<uint32_t>(bytes) - 1))
        ring_put(ring, packed_frames.data(), static_cast<uint32_t>(bytes));
    if (!more) open_next_file();
    return -1;
}

// Feeds PCM: one staging buffer, whole, or the end of a file. 0: nothing done, after a SIGINT or
// the last file; else -1. Main thread, through fill_buffer.
int32_t pcm_feeder()
{
    if (load_acquire(interrupted) != 0 || feeding_file->index < 0) return 0;
    if (!put_filtered()) return -1;
    if (staged_bytes < 1 && !stage_samples()) {
        format_row = nullptr;
        open_next_file();
        if (feeding_file->index < 0) store_release(ring->more_coming, 0);
        return -1;
    }
    feed_staged();
    return -1;
}

// Shows the banner of a file that newly plays, and one status line a shown second. Main thread.
void status_update(soundfile *file)
{
    if (file != last_shown_file) {
        show_file_banner(file->index + 1, file_count, total_seconds(file), file->path);
        last_shown_file = file;
    }
    const int64_t second = load_acquire(file->position) / position_units_per_second;
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
    hold_standard_descriptors();
    attach_controller();
    install_sigint_handler();
    install_terminal_signals();
    raise_priority();
    read_command_line(argc, argv);
    make_file_list(argc, argv);
    probe_files();
    open_first_file();
    set_up_stream();
    make_ring();
    terminal_raw();
    feeding_file = file_list;
    store_release(playing_file, file_list);
    prime_ring();

    const pthread_t output = start_output();
    announce_stream();
    feed_list();
    drain_ring();

    std::puts(blank_line);
    if (pthread_join(output, nullptr) != 0) fatal_report(unit, 1068, "pthread_join() failed.\n");
    std::putchar('\n');
    clean_up();
    return 0;
}
