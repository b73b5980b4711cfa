// The opener and the readers: which headers they accept and which sound they deliver, also for
// files that are truncated, have wrong sizes, or claim to be huge. Also the feeders, in the cases
// that no test with the whole player reaches.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>

#include "dsdiff.h"
#include "dsf.h"
#include "make_files.h"
#include "readwrite.h"
#include "sonivane.h"

namespace
{

// A file and the expected result.
struct file_row {
    std::string what;
    bytes content;
    std::optional<bytes> delivered;          // the sound; none: the file is refused
    std::optional<std::string> printed = ""; // on standard error; none: any text
    std::optional<int64_t> length = {};      // data_bytes; none: the length of delivered
    int32_t at_end = -1;                     // result of one more read after the end
};

// The sound of every file: the bytes of two channels alternating, as DSD or as PCM of 8 or 16 bits.
const bytes left = noise(2, 36);
const bytes right = noise(3, 36);
const bytes heard = dsd_frames(left, right);
const bytes nothing;
const std::optional<bytes> refused;

constexpr wave_format every_dsd_file = {0, 2, 2822400, 705600, 2, 1, 22, 0, 1, {}, {}};

int32_t open_content(soundfile *file, const bytes &content)
{
    file->path = const_cast<char *>(memory_file(content.data(), content.size()));
    return open_soundfile(file);
}

// Reads an open file to its end, count bytes per call, and compares the result.
void check_sound(const file_row &row, soundfile *file, int32_t count)
{
    const bool pcm = !is_dsd(file);
    bytes part(static_cast<size_t>(count));
    bytes all;
    for (const int32_t few : {1, 0, -1, -9}) EXPECT_LT(read_samples(file, nullptr, few), 1);
    for (int32_t got; (got = read_samples(file, part.data(), count)) > 0;)
        all.insert(all.end(), part.begin(), part.begin() + std::min(got, count));
    EXPECT_EQ(all, *row.delivered) << "the first different byte is "
                                   << std::ranges::mismatch(all, *row.delivered).in1 - all.begin();
    EXPECT_EQ(read_samples(file, part.data(), count), row.at_end);
    const auto side = std::ssize(all) / (pcm ? 1 : 2);
    EXPECT_EQ(file->data_bytes, row.length.value_or(side));
    EXPECT_TRUE(pcm || std::memcmp(&file->wave, &every_dsd_file, sizeof every_dsd_file) == 0);
}

constexpr int64_t huge = int64_t{1} << 32;

// A file that is started at a frame (PCM) or a byte of a channel (DSD) must deliver the rest of its
// sound. begin_at must fail at and after the end that the header gives. At the rate of 8192, each
// place is a time with at most 13 decimals.
void check_starts(const file_row &row)
{
    constexpr int64_t rate = 8192;
    for (const int64_t at :
         std::initializer_list<int64_t>{1, 4, 7, 17, 35, 36, 511, 512, 8999, 2 * huge}) {
        SCOPED_TRACE(row.what + ", started at " + std::to_string(at));
        soundfile file{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(open_content(&file, row.content), 0);
        testing::internal::GetCapturedStderr();
        const bool pcm = file.container == container_wav;
        const int64_t frame = pcm ? file.wave.nBlockAlign : 2;
        const bool within = at < file.data_bytes / (pcm ? frame : 1);
        const int64_t passed = pcm ? at : at / 4 * 4;
        file.wave.nSamplesPerSec = static_cast<int32_t>(pcm ? rate : 8 * rate);
        EXPECT_FALSE(begin_at(&file, {huge << 19, 0})); // a product that wraps would give frame 0
        const bool started =
            begin_at(&file, {at / rate, at % rate * (attoseconds_per_second / rate)});
        EXPECT_TRUE(within || !started);
        EXPECT_EQ(file.position, started ? passed * 352800 / rate : 0);
        bytes part(24), rest;
        for (int32_t got; started && (got = read_samples(&file, part.data(), 24)) > 0;)
            rest.insert(rest.end(), part.begin(), part.begin() + got);
        const auto missing = static_cast<std::ptrdiff_t>(
            std::min(int64_t{passed} * frame, int64_t{std::ssize(*row.delivered)}));
        EXPECT_EQ(rest,
                  within ? bytes(row.delivered->begin() + missing, row.delivered->end()) : bytes{});
        std::fclose(file.fp);
    }
}

// The size of the process's address space, including pages that were never touched.
int64_t reserved_bytes()
{
    int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * getpagesize();
}

// Opens and reads the file with requests of several sizes. A size in a header must not make a
// reader allocate memory for data that the file does not have.
void check(const file_row &row)
{
    const int64_t reserved = reserved_bytes();
    for (const int32_t count : {8, 15, 24, 3072, 65536}) {
        SCOPED_TRACE(row.what + ", requests of " + std::to_string(count));
        soundfile file{};
        testing::internal::CaptureStderr();
        const int32_t result = open_content(&file, row.content);
        const std::string printed = testing::internal::GetCapturedStderr();
        const std::string skip = std::string("file format of ") + file.path + " unknown. Skip\n";
        EXPECT_EQ(printed, row.printed ? *row.printed + (row.delivered ? "" : skip) : printed);
        EXPECT_EQ(result, row.delivered ? 0 : -1);
        if (result == 0 && row.delivered) check_sound(row, &file, count);
        std::fclose(file.fp);
    }
    if (row.delivered) check_starts(row);
    EXPECT_LT(reserved_bytes() - reserved, 16 << 20) << row.what;
}

void check_all(std::initializer_list<file_row> rows)
{
    for (const file_row &row : rows) check(row);
}

bytes first_of(const bytes &content, size_t n)
{
    return {content.begin(), content.begin() + static_cast<std::ptrdiff_t>(n)};
}

bytes without(bytes content, long from, long n)
{
    content.erase(content.begin() + from, content.begin() + from + n);
    return content;
}

const std::string short_tag = "\nERROR readwrite 223 read() 4 bytes failed.\n";

// --- WAV and RF64 -------------------------------------------------------------------------------

bytes wav(wav_settings s, const bytes &data = heard)
{
    s.data = data;
    return make_wav(s);
}

TEST(readers, wav_headers_are_accepted_or_refused)
{
    const bytes good = wav({});
    const bytes three = wav({.channels = 3, .bits = 8}, dsd_frames(left, right, 3));
    const bytes other = wav_chunk("fmt ", joined({le(1, 2), le(1, 2), bytes(8), le(0x80001, 4)}));
    check_all({
        {"truncated inside a frame of 3", first_of(three, 44 + 3 * 5 + 2), first_of(heard, 10), "",
         72},
        {"data inside a frame", wav({.data_size = 13}), first_of(heard, 12), "", 13},
        {"data size of 3 GiB", wav({.data_size = huge / 4 * 3}), heard, "", huge / 4 * 3},
        {"\"fmt \" of 44", wav({.tag = 0xFFFE, .format_bytes = 44}), heard},
        {"\"fmt \" of 45", wav({.tag = 0xFFFE, .format_bytes = 45}), refused},
        {"odd \"fmt \" without a pad byte", without(wav({.format_bytes = 17}), 37, 1), heard},
        {"two \"fmt \"", wav({.before_data = other}), heard},
        {"data before \"fmt \"", wav({.before_format = wav_chunk("data", heard)}, {}), nothing},
        {"form size of 0", patched(good, 4, bytes(4)), heard},
        {"other form type", patched(good, 11, {'X'}), refused},
        {"-2 channels, frame of -4", wav({.channels = 0xFFFE, .block_align = 0xFFFC}), refused},
        {"frame of -4", wav({.block_align = 0xFFFC}), refused},
        {"samples of 4096 bytes", wav({.channels = 1, .block_align = 4096}), refused},
        {"0 bits in a frame of 4", wav({.bits = 0, .block_align = 4}), heard},
        // As a signed number such a size would seek backward, and the walk would never end.
        {"chunk of 2^32 - 8", wav({.before_data = text("LIST\xF8\xFF\xFF\xFF")}), refused},
        {"chunk of 2^32 - 1", wav({.before_data = text("LIST\xFF\xFF\xFF\xFF")}), heard},
        {"truncated inside a size", first_of(good, 18), refused, "fread() failed.\n"},
        {"RIF", text("RIF"), refused, short_tag + short_tag + short_tag},
        {"text file", text("As they may lie beside the sound.\n"), refused},
    });
}

TEST(readers, rf64_sizes_must_agree)
{
    const bytes good = make_rf64({.data = heard});
    const auto mono = [](int64_t size) { return make_rf64({.channels = 1, .data_size = size}); };
    check_all({
        {"size word", patched(good, 4, {0xFE}), refused},
        {"first chunk", patched(good, 12, {'x'}), refused},
        {"\"ds64\" of 23", without(patched(good, 16, {23}), 43, 5), refused},
        {"\"ds64\" of 24", without(patched(good, 16, {24}), 44, 4), heard},
        {"\"ds64\" of 2^32 - 1", patched(good, 16, bytes(4, 0xFF)), refused},
        {"data size", patched(good, 28, {73}), refused},
        {"size word of the data", patched(good, 76, {1, 2, 3, 4}), heard},
        {"largest size of two channels", mono(0x3FFFFFFFFFFFFFFE), nothing, "", INT64_MAX - 3},
        // Two channels have twice this size: negative in 64 bits, large and positive in the low 32.
        {"two channels of 2^64 - 2^32 - 2^31 - 32", mono(0x7FFFFFFF3FFFFFF0), refused},
    });
}

// --- DSF ----------------------------------------------------------------------------------------

std::string block_report(uint32_t size)
{
    const auto printed = std::to_string(static_cast<int32_t>(size));
    return "\nERROR dsf 142 DSF block size if " + printed + "\n";
}

TEST(readers, dsf_headers_are_accepted_or_refused)
{
    const bytes good = make_dsf({.left = left, .right = right});
    const bytes small_blocks = make_dsf({.block_bytes = 36, .left = left, .right = right});
    bytes long_chunks = patched(patched(good, 4, {40}), 32, {61});
    long_chunks.insert(long_chunks.begin() + 80, 9, 0);
    long_chunks.insert(long_chunks.begin() + 28, 12, 0);
    const auto with = [&](size_t at, const bytes &bytes) { return patched(good, at, bytes); };
    const auto blocks = [&](uint32_t size) { return patched(good, 72, le(size, 4)); };
    check_all({
        {"longer chunks", long_chunks, heard},
        {"tag of the data", with(80, {'D'}), refused},
        {"sizes that wrap to the data", with(32, le(UINT64_MAX - 27, 8)), refused},
        {"version and format id", with(40, {2, 0xFF, 0, 0, 1}), refused},
        {"version and channel type", patched(with(40, {2, 0xFF}), 48, bytes(4, 0xFF)), heard},
        {"one channel", with(52, {1}), refused},
        {"2^31 channels", with(52, le(0x80000000, 4)), heard},
        {"0 bits a sample", with(60, {0}), heard},
        {"8 bits a sample", with(60, {8}), refused},
        {"count of 2^63", patched(small_blocks, 64, le(uint64_t{1} << 63, 8)), heard,
         block_report(36), INT64_MIN / 8},
        {"2^31 - 1 channels, count of 2^60",
         patched(patched(small_blocks, 52, le(INT32_MAX, 4)), 64, le(int64_t{1} << 60, 8)), heard,
         block_report(36), int64_t{1} << 57},
        {"file size and data size of 0", patched(with(12, bytes(16)), 84, bytes(8)), heard},
        {"blocks of 0", blocks(0), nothing, block_report(0), 36, 0},
        {"blocks of 2^31 - 1", blocks(INT32_MAX), nothing, block_report(INT32_MAX), 36},
        {"blocks of 2^31", blocks(0x80000000), refused, block_report(0x80000000)},
    });
    dsf_release();
}

// The block buffer keeps its size. It must never deliver the bytes of an earlier file.
TEST(readers, dsf_sound_may_end_inside_a_byte_a_group_or_a_block)
{
    const std::array<uint32_t, 3> cases[] = {{2, 64, 1},       {2, 64, 797}, {2, 64, 512},
                                             {2, 8192, 72000}, {6, 16, 797}, {3, 1, 184},
                                             {2, 4095, 65536}};
    for (const auto &[channels, block_bytes, samples] : cases) {
        const bytes one = noise(6, (samples + 7) / 8);
        const bytes two = noise(7, one.size());
        const bytes file = make_dsf({.channels = channels,
                                     .block_bytes = block_bytes,
                                     .sample_count = samples,
                                     .left = one,
                                     .right = two});
        check({std::to_string(samples) + " samples", file, dsd_stream_of(one, two),
               block_report(block_bytes), std::ssize(one)});
    }
}

// --- DSDIFF -------------------------------------------------------------------------------------

constexpr auto chunk = dsdiff_chunk;
constexpr auto form = dsdiff_form;
constexpr auto properties = dsdiff_properties;
constexpr auto channels = dsdiff_channels;
constexpr auto head_of = dsdiff_head;
const bytes version = chunk("FVER", be(0x01050000, 4));
const bytes rate = chunk("FS  ", be(2822400, 4));
const bytes sound = chunk("DSD ", heard);
const bytes stereo = channels("SLFTSRGT", 2);

// A file with one more property, and with one more chunk before its sound.
bytes dff(const bytes &property, const bytes &before = {})
{
    return form({version, properties({rate, stereo, property}), before, sound});
}

TEST(readers, dsdiff_headers_are_accepted_or_refused)
{
    const bytes good = dff({});
    const bytes others = joined({chunk("ABSS", bytes(8)), chunk("LSCO", bytes(2)),
                                 chunk("ODD ", {1}), chunk("EVEN", {2, 2}), rate});
    // A property with a size other than that of its fields, which the size of "PROP" includes.
    const auto sized = [](const char *name, uint64_t size, size_t fields) {
        const bytes file = dff(joined({head_of(name, size), bytes(fields)}));
        return patched(file, 43, {static_cast<uint8_t>(file[43] + size - fields)});
    };
    const size_t sound_size = good.size() - heard.size() - 8; // offset of the size
    check_all({
        {"version of 8 bytes", dff({}, joined({head_of("FVER", 8), bytes(4)})), refused},
        {"other form type", patched(good, 15, {'X'}), refused},
        {"other property type", patched(good, 44, text("snd ")), refused},
        {"rate of 8 bytes", sized("FS  ", 8, 4), refused},
        {"no rate", form({properties({stereo}), sound}), refused},
        {"no channels", form({properties({rate}), sound}), refused},
        {"no properties", form({properties({}), properties({rate, stereo}), sound}), heard},
        {"time, layout, unknown properties", dff(others), heard},
        {"time of 6 bytes", sized("ABSS", 6, 8), refused},
        {"layout of 4 bytes", sized("LSCO", 4, 2), refused},
        {"DST as a property", dff(chunk("CMPR", text("DST \3DST"))), heard},
        {"other compression", dff(chunk("CMPR", text("MP3 \3raw"))), refused},
        {"DST sound", dff({}, chunk("DST ", {})), refused},
        {"bytes after the channel names", dff(channels("SLFTSRGT\n\n", 2)), refused},
        {"second channel list, of 1", dff(channels("", 1)), refused},
        {"comment of 2^32 + 4", dff({}, joined({head_of("COMT", huge + 4), bytes(4)})), refused},
        {"odd comment", dff({}, chunk("COMT", bytes(7, 0xEE))), heard},
        {"form of 3 bytes", patched(good, 4, be(3, 8)), heard},
        {"form that ends after its first chunk", patched(good, 4, be(4 + 16, 8)), refused},
        {"properties of 0 bytes", patched(good, 36, bytes(8)), refused},
        {"chunk of 2^64 - 12", dff({}, head_of("COMT", UINT64_MAX - 11)), refused},
        {"sound of 2^32", patched(good, sound_size, be(huge, 8)), heard, "", huge / 2},
        {"sound size of 2, longer file", patched(good, sound_size, be(2, 8)), heard, "", 1},
    });
}

// Checks a file that has the header, then frames with left and right at the given places, then a
// part of a frame. If both places are the same, the file must be refused.
void check_places(const std::string &what, const bytes &header, size_t count, size_t left_at,
                  size_t right_at)
{
    check({what,
           joined(
               {header, dsd_frames(left, right, count, left_at, right_at), bytes(count - 1, 0xEE)}),
           left_at != right_at ? heard : refused});
}

// Of a name that is listed twice the last place counts. A right channel at place 0 stays there if
// place 1 is neither left nor right.
TEST(readers, dsdiff_channels_are_at_the_places_that_the_list_names)
{
    const struct {
        std::string names;
        size_t left, right;
    } cases[] = {
        {"MLFTMRGTC   LFE LS  RS  ", 0, 1},
        {"C   SLFTSRGT", 1, 2},
        {"LS  RS  ", 0, 1},
        {"SRGTLFE SLFT", 2, 0},
        {"SLFTSRGTSRGTSLFT", 3, 2},
        {"SRGTLS  ", 1, 0},
        {"LS  SLFT", 1, 0},
        {"SLFTslft", 0, 0},
        {"SLFT", 0, 0},
        {"SLFTSRGTC   LFE LS  RS  C   ", 0, 0},
    };
    for (const auto &[names, left_at, right_at] : cases) {
        const size_t count = names.size() / 4;
        check_places(names,
                     form({properties({rate, channels(names, count)}),
                           head_of("DSD ", left.size() * count)}),
                     count, left_at, right_at);
    }
}

// --- WSD ----------------------------------------------------------------------------------------

TEST(readers, wsd_headers_are_accepted_or_refused)
{
    const bytes good = make_wsd({.data_offset = 64, .frames = heard});
    const auto wsd = [](int count, uint32_t assignment, const bytes &frames) {
        return make_wsd({.channels = count, .assignment = assignment, .frames = frames});
    };
    const bytes both = dsd_frames(left, left);
    check_all({
        {"unused bytes", patched(patched(good, 4, noise(3, 8)), 28, noise(4, 8)), heard},
        {"file size of 2^32", patched(good, 12, be(1, 8)), heard, "", (huge - 64) / 2},
        {"offset after the end", patched(good, 24, {0x7F}), nothing, "",
         (std::ssize(good) - 0x7F000040) / 2},
        {"negative offset", patched(good, 24, {0x80}), refused},
        {"8 channels", wsd(8, 0, dsd_frames(left, right, 8)), heard},
        {"9 channels", wsd(9, 0, dsd_frames(left, right, 9)), refused},
        {"no channels", wsd(0, 0x7C000000, heard), nothing, "", 0, 0},
        {"one channel, right last", wsd(1, 0x7C000000, left), both},
        {"one channel, left last", wsd(1, 0x68000000, left), both},
        {"right beyond the frame", wsd(2, 0x54000000, heard), refused},
    });
}

// Bits 7, 1 and 0 of the first byte are ignored, and so are all other bytes unless the first is 0.
TEST(readers, wsd_channels_are_at_the_places_of_the_assignment)
{
    const struct {
        uint32_t assignment;
        size_t left, right;
    } cases[] = {
        {0x00000001, 0, 0}, {0x00000100, 0, 0}, {0x00010000, 0, 0}, {0xC7FFFFFF, 0, 1},
        {0x4C000000, 0, 2}, {0x54000000, 0, 2}, {0x64000000, 0, 2}, {0x7C000000, 0, 4},
        {0x2C000000, 0, 1}, {0x38000000, 0, 2}, {0x68000000, 1, 0}, {0x78000000, 1, 0},
        {0x14000000, 0, 0}, {0x40000000, 0, 0}, {0x20000000, 0, 0}, {0x8B000000, 0, 0},
    };
    const int64_t size = 2048 + 6 * std::ssize(left);
    for (const auto &[assignment, left_at, right_at] : cases)
        check_places(std::to_string(assignment),
                     make_wsd({.channels = 6, .assignment = assignment, .file_size = size}), 6,
                     left_at, right_at);
}

// --- The opener ---------------------------------------------------------------------------------

TEST(readers, unsupported_sample_width_ends_the_process)
{
    const std::pair<wav_settings, int> cases[] = {
        {{.channels = 0}, 0},
        {{.format_bytes = 4}, 0},
        {{.channels = 1, .block_align = 4095}, 32760},
    };
    for (const auto &[settings, width] : cases) {
        soundfile file{};
        EXPECT_EXIT(open_content(&file, wav(settings)), testing::ExitedWithCode(714 & 0xFF),
                    "sample bit length " + std::to_string(width) + " is not supported.\n");
    }
}

TEST(readers, read_of_a_file_that_is_not_open_fails)
{
    soundfile closed{};
    for (soundfile *file : {static_cast<soundfile *>(nullptr), &closed})
        for (const reader_slot read : {dsf_read, dsdiff_read})
            EXPECT_EQ(read(file, nullptr, 8), -1);
}

// --- Truncated files ----------------------------------------------------------------------------

// A file without its whole header is refused. Other truncated files deliver the sound that they
// have.
TEST(readers, file_truncated_at_any_byte_delivers_the_rest_of_its_sound)
{
    const bytes odd = wav_chunk("LIST", noise(3, 5));
    const wav_settings settings = {
        .tag = 0xFFFE, .before_format = odd, .before_data = odd, .data = heard};
    const struct {
        bytes content;
        size_t header; // bytes that are needed to accept the file
        size_t unit;   // bytes that are delivered as a whole or not at all
    } cases[] = {
        {make_wav(settings), 96, 4},
        {make_rf64(settings), 132, 4},
        {make_dsf({.block_bytes = 9, .left = left, .right = right}), 92, 18},
        {make_dsdiff({.frames = heard}), 130, 2},
        {make_wsd({.data_offset = 52, .frames = heard}), 52, 2},
    };
    for (const auto &[content, header, unit] : cases) {
        ASSERT_EQ(content.size(), header + heard.size());
        const bool pcm = unit == 4;
        for (size_t length = 0; length <= content.size(); ++length) {
            const auto what = std::to_string(length) + " of " + std::to_string(content.size());
            file_row row = {what, first_of(content, length), refused, {}, pcm ? 72 : 36};
            if (length >= header) {
                bytes expected = first_of(heard, (length - header) / unit * unit);
                if (!pcm) expected.resize((expected.size() + 7) / 8 * 8, 0x96);
                row.delivered = expected;
            }
            check(row);
        }
    }
}

// --- The feeders --------------------------------------------------------------------------------

int32_t feeder_result; // of the last call of fed

// The bytes that one call of the feeder stores of a file, in a ring with the given number of free
// bytes. sample_format replaces the format that the opener found.
bytes fed(const bytes &content, snd_pcm_format_t device, uint32_t free, int32_t sample_format = 0)
{
    const int32_t width = snd_pcm_format_physical_width(device) / 8;
    static soundfile records[2]; // the file and the sentinel
    soundfile &file = records[0];
    file_list = stream_file = feeding_file = &file;
    stream_end = &records[1];
    EXPECT_EQ(open_content(&file, content), 0);
    file.sample_format = sample_format;
    file.out_sample_bytes = width;
    file.out_frame_bytes = 2 * width;
    file.next = &records[1];
    file.next->index = -1;
    output_format = device;
    const auto frame = static_cast<uint32_t>(2 * width);
    ringbuffer_free(&ring);
    ring = ringbuffer_new(free + frame, frame, 1);
    feeder_result = fill_buffer();
    bytes stored(ring_data(ring), ring_data(ring) + ring->bytes_put);
    fill_buffer(); // reaches the end of a PCM file and closes it
    if (file.fp != nullptr) std::fclose(file.fp);
    return stored;
}

constexpr auto s32 = SND_PCM_FORMAT_S32_LE, f64 = SND_PCM_FORMAT_FLOAT64_LE,
               f32_be = SND_PCM_FORMAT_FLOAT_BE, dsd_le = SND_PCM_FORMAT_DSD_U32_LE,
               dsd_be = SND_PCM_FORMAT_DSD_U32_BE;

TEST(feeders, dsd_feeder_limits_the_frames_of_a_call)
{
    const struct {
        snd_pcm_format_t device;
        uint32_t free, frames;
    } rows[] = {{dsd_be, 2808, 0}, {dsd_be, 2824, 353},    {s32, 2816, 352},
                {s32, 2824, 352},  {dsd_be, 900000, 3528}, {s32, 900000, 3528}};
    const bytes long_file = make_wsd({.frames = bytes(40000)});
    for (const auto &row : rows) {
        EXPECT_EQ(fed(long_file, row.device, row.free).size(), row.frames * 8);
        EXPECT_EQ(feeder_result, row.frames == 0 ? 0 : -1); // after a 0 main waits for room
    }
    EXPECT_EQ(fed(make_wsd({.frames = be(0x1122334455667788, 8)}), dsd_le, 2816),
              be(0x7755331188664422, 8));
}

TEST(feeders, convert_every_format_of_their_table)
{
    const bytes samples = noise(1, 8);
    for (auto f = SND_PCM_FORMAT_U8; f <= SND_PCM_FORMAT_U18_3BE; f = snd_pcm_format_t(f + 1)) {
        const int width = snd_pcm_format_width(f), size = snd_pcm_format_physical_width(f) / 8;
        if (snd_pcm_format_linear(f) != 1 || (width == 20 && size == 4)) continue;
        const bool big = snd_pcm_format_big_endian(f) == 1;
        bytes expected;
        const uint8_t *sample = samples.data();
        for (const uint8_t *end = sample + 2 * size; sample < end; sample += size) {
            uint32_t word = 0;
            for (int i = 0; i < size; ++i)
                word |= uint32_t{sample[i]} << 8 * (big ? size - 1 - i : i);
            if (snd_pcm_format_signed(f) == 0) word -= 1U << ((width + 7) / 8 * 8 - 1);
            put_le(expected, word << 8 * (4 - size), 4);
        }
        const bytes frame(samples.begin(), samples.begin() + 2 * size);
        EXPECT_EQ(fed(wav({.bits = 8 * size}, frame), s32, 1000, f), expected) << f;
    }
    const bytes halves = wav({.bits = 32}, be(0x3F000000BF000000, 8));
    EXPECT_EQ(fed(halves, s32, 1000, f32_be), be(0x00000040000000C0, 8));
    EXPECT_EQ(fed(wav({}, be(0x34127856, 4)), f64, 1000, SND_PCM_FORMAT_S16_LE), nothing);
    EXPECT_EXIT(fed(wav({.bits = 8}, {1, 2}), s32, 1000, SND_PCM_FORMAT_MU_LAW),
                testing::ExitedWithCode(533 & 0xFF), "Unsupported input format 20.");
}

} // namespace
