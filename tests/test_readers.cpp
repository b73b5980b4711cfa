// The readers behind the opener: what they take of a file, what they deliver, and files that have
// hurt readers of these formats: cut ones, lying ones, huge ones.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>

#include "dsdiff.h"
#include "dsf.h"
#include "make_files.h"
#include "readwrite.h"
#include "sonivane.h"

namespace
{

// A file, and what the player must make of it.
struct file_row {
    std::string what;
    bytes content;
    std::optional<bytes> delivered = {};     // nothing: the file is refused
    std::optional<std::string> printed = ""; // by the readers, on standard error; nothing: any
    std::optional<int64_t> length = {};      // data_bytes; nothing: of what is delivered
    int32_t at_end = -1;                     // result of a call behind the last one
    off64_t longer = 0;                      // bytes of the file, where content is its begin
};

constexpr wave_format every_dsd_file = {0, 2, 2822400, 705600, 2, 1, 22, 0, 1, {}, {}};

// Reads an open file to its end in requests of count bytes.
void check_sound(const file_row &row, soundfile *file, int32_t count)
{
    const bool pcm = file->container == container_wav;
    bytes part(static_cast<size_t>(count));
    bytes all;
    for (const int32_t few : {1, 0, -1, -9}) EXPECT_LT(read_samples(file, nullptr, few), 1);
    size_t calls = 0;
    for (int32_t got; (got = read_samples(file, part.data(), count)) > 0; ++calls)
        all.insert(all.end(), part.begin(), part.begin() + got);
    EXPECT_EQ(all, *row.delivered);
    EXPECT_EQ(read_samples(file, part.data(), count), row.at_end);
    const auto unit = static_cast<size_t>(pcm ? file->wave.nBlockAlign : 8);
    const size_t whole = part.size() / unit * unit;
    EXPECT_EQ(calls, (all.size() + whole - 1) / whole); // only the last one gives less
    const size_t side = pcm ? all.size() : all.size() / 2;
    EXPECT_EQ(file->data_bytes, row.length.value_or(static_cast<int64_t>(side)));
    if (pcm) {
        constexpr snd_pcm_format_t formats[] = {SND_PCM_FORMAT_U8, SND_PCM_FORMAT_S16_LE,
                                                SND_PCM_FORMAT_S24_3LE, SND_PCM_FORMAT_S32_LE};
        EXPECT_EQ(file->sample_format, formats[unit / 2 - 1]);
    } else {
        EXPECT_EQ(std::memcmp(&file->wave, &every_dsd_file, sizeof every_dsd_file), 0);
    }
}

// Bytes that the process has reserved, touched or not.
int64_t reserved_bytes()
{
    int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * getpagesize();
}

// Whatever the size of the requests, and each time anew. No size that a file tells may cost memory
// or time that its bytes do not bear out.
void check(const file_row &row)
{
    const int64_t reserved = reserved_bytes();
    const std::clock_t begin = std::clock(); // processor time
    for (const int32_t count : {8, 15, 24, 3072, 65536}) {
        SCOPED_TRACE(row.what + ", requests of " + std::to_string(count));
        soundfile file{};
        file.path = const_cast<char *>(memory_file(row.content.data(), row.content.size()));
        ASSERT_TRUE(row.longer == 0 || truncate64(file.path, row.longer) == 0);
        testing::internal::CaptureStderr();
        const int32_t verdict = open_soundfile(&file);
        const std::string printed = testing::internal::GetCapturedStderr();
        const std::string skip = std::string("file format of ") + file.path + " unknown. Skip\n";
        EXPECT_EQ(printed, row.printed ? *row.printed + (row.delivered ? "" : skip) : printed);
        EXPECT_EQ(verdict, row.delivered ? 0 : -1);
        if (verdict == 0 && row.delivered) check_sound(row, &file, count);
        std::fclose(file.fp);
    }
    EXPECT_LT(reserved_bytes() - reserved, 16 << 20) << row.what;
    EXPECT_LT(std::clock() - begin, 5 * CLOCKS_PER_SEC) << row.what;
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

// Two channels whose bytes in turn are the sound of every file: DSD, or PCM of 8 or 16 bits.
const bytes left = noise(2, 36);
const bytes right = noise(3, 36);
const bytes heard = dsd_frames(left, right);

constexpr uint64_t top = uint64_t{1} << 63;
constexpr int64_t huge = int64_t{1} << 32;
const std::string short_number = "fread() failed.\n";
const std::string short_tag = "\nERROR readwrite 223 read() 4 bytes failed.\n";

// --- WAV and RF64 -------------------------------------------------------------------------------

bytes wav(wav_settings s, const bytes &data = heard)
{
    s.data = data;
    return make_wav(s);
}

TEST(readers, wav_headers_play_or_are_refused)
{
    const bytes good = wav({});
    const bytes odd_format = wav({.format_bytes = 17});
    const bytes three = wav({.channels = 3, .bits = 8}, dsd_frames(left, right, 3));
    const bytes other = wav_chunk("fmt ", joined({le(1, 2), le(1, 2), bytes(8), le(0x80001, 4)}));
    const auto list_of = [](uint32_t size) {
        return wav({.before_data = joined({text("LIST"), le(size, 4)})});
    };
    check_all({
        {"3 channels, cut in a frame", first_of(three, 44 + 3 * 5 + 2), first_of(heard, 10), "",
         72},
        {"data inside a frame", wav({.data_size = 13}), first_of(heard, 12), "", 13},
        {"3 GiB told", wav({.data_size = huge / 4 * 3}), heard, "", huge / 4 * 3},
        {"\"fmt \" of 44", wav({.tag = 0xFFFE, .format_bytes = 44}), heard},
        {"\"fmt \" of 45", wav({.tag = 0xFFFE, .format_bytes = 45})},
        {"odd \"fmt \" with a pad byte", odd_format},
        {"odd \"fmt \" without", without(odd_format, 37, 1), heard},
        {"two \"fmt \"", wav({.before_data = other}), heard},
        {"no \"fmt \"", patched(good, 15, {'X'})},
        {"data before it", wav({.before_format = wav_chunk("data", heard)}, {}), bytes{}},
        {"form size of 0", patched(good, 4, bytes(4)), heard},
        {"another start", patched(good, 3, {'X'})},
        {"another form", patched(good, 11, {'X'})},
        {"-2 channels, frame of -4", wav({.channels = 0xFFFE, .block_align = 0xFFFC})},
        {"0xFFFF channels of 4", wav({.channels = 0xFFFF, .bits = 32})},
        {"frame of -4", wav({.block_align = 0xFFFC})},
        {"samples of 4096 bytes", wav({.channels = 1, .block_align = 4096})},
        {"0 bits in a frame of 4", wav({.bits = 0, .block_align = 4}), heard},
        // A size taken as a negative number seeks backward for ever; its sum with a header wraps.
        {"chunk of 0xFFFFFFF7", list_of(0xFFFFFFF7)},
        {"chunk of 2^32 - 8", list_of(0xFFFFFFF8)},
        {"chunk of 2^32 - 1 counts as empty", list_of(0xFFFFFFFF), heard},
        {"10000 chunks", wav({.before_data = bytes(80000)}), heard},
        {"cut in a size", first_of(good, 18), {}, short_number},
        {"RIFF", text("RIFF"), {}, short_tag},
        {"RIF", text("RIF"), {}, short_tag + short_tag + short_tag}, // all but the first reader
        {"words", text("As they may lie beside the sound.\n")},
    });
}

TEST(readers, rf64_sizes_must_agree)
{
    const bytes good = make_rf64({.data = heard});
    const auto told = [](int64_t size) { return make_rf64({.channels = 1, .data_size = size}); };
    const bytes wrapping = joined({le(UINT64_MAX - 3, 8), le(top / 2 - 1, 8)});
    bytes long_sizes = patched(good, 16, le(41, 4));
    long_sizes.insert(long_sizes.begin() + 48, 13, 0xEE);
    check_all({
        {"size word", patched(good, 4, {0xFE})},
        {"form", patched(good, 8, {'w'})},
        {"first chunk", patched(good, 12, {'x'})},
        {"no \"ds64\"", without(good, 12, 36)},
        {"\"ds64\" of 23", without(patched(good, 16, {23}), 43, 5)},
        {"\"ds64\" of 24", without(patched(good, 16, {24}), 44, 4), heard},
        {"\"ds64\" of 41", long_sizes, heard},
        {"\"ds64\" of 2^32 - 1", patched(good, 16, bytes(4, 0xFF))},
        {"data size", patched(good, 28, {73})},
        {"frame count", patched(good, 36, {19})},
        {"size word of the data", patched(good, 76, {1, 2, 3, 4}), heard},
        {"data of 2^64 - 4", patched(good, 28, wrapping), heard, "", INT64_MAX - 3},
        {"largest share", told(0x3FFFFFFFFFFFFFFE), bytes{}, "", INT64_MAX - 3},
        // Twice this is below 0 in 64 bits, and a large positive number in the low 32.
        {"share of 2^64 - 2^32 - 2^31 - 32", told(0x7FFFFFFF3FFFFFF0)},
    });
}

// --- DSF ----------------------------------------------------------------------------------------

std::string block_report(uint32_t size)
{
    return size == 4096 ? ""
                        : "\nERROR dsf 142 DSF block size if " +
                              std::to_string(static_cast<int32_t>(size)) + "\n";
}

TEST(readers, dsf_headers_play_or_are_refused)
{
    const bytes good = make_dsf({.left = left, .right = right});
    bytes long_chunks = patched(patched(good, 4, {40}), 32, {61});
    long_chunks.insert(long_chunks.begin() + 80, 9, 0);
    long_chunks.insert(long_chunks.begin() + 28, 12, 0);
    const auto with = [&](size_t at, const bytes &bytes) { return patched(good, at, bytes); };
    const auto blocks = [&](uint32_t size) { return patched(good, 72, le(size, 4)); };
    const bytes filler(4060, 0x77); // of the blocks, turned
    const bytes pair = dsd_stream_of(joined({left, filler}), joined({right, filler}));
    check_all({
        {"longer chunks", long_chunks, heard},
        {"first tag", with(3, {'X'})},
        {"second tag", with(28, {'F'})},
        {"third tag", with(80, {'D'})},
        {"rest of the first chunk", with(12, noise(3, 16)), heard},
        {"first chunk beyond the end", with(4, le(huge, 8)), {}, short_tag},
        {"first chunk of 2^63", with(4, le(top, 8))},
        {"format chunk of 2^63", with(32, le(top, 8))},
        {"sizes that wrap to the data", with(32, le(UINT64_MAX - 27, 8))},
        {"version", with(40, {2, 0xFF}), heard},
        {"format id", with(44, {1})},
        {"channel type", with(48, bytes(4, 0xFF)), heard},
        {"one channel", with(52, {1})},
        {"2^31 channels", with(52, le(0x80000000, 4)), heard},
        {"0 bits a sample", with(60, {0}), heard},
        {"8 bits a sample", with(60, {8})},
        {"count of 0", with(64, bytes(8)), bytes{}},
        {"count of 2^63", with(64, le(top, 8)), pair, "", INT64_MIN / 8},
        {"count of 2^64 - 1", with(64, bytes(8, 0xFF)), bytes{}},
        {"data of 0", with(84, bytes(8)), heard},
        {"cut in a size", first_of(good, 87), {}, short_number},
        {"no block", first_of(good, 92), bytes{}, "", 36},
        {"a byte short of a pair", first_of(good, 92 + 8191), bytes{}, "", 36},
        {"blocks of 0", blocks(0), bytes{}, block_report(0), 36, 0},
        {"blocks of 2^30 - 1", blocks(0x3FFFFFFF), bytes{}, block_report(0x3FFFFFFF), 36},
        {"blocks of 2^31 - 1 in a large file", first_of(blocks(INT32_MAX), 92), bytes{},
         block_report(INT32_MAX), 36, -1, huge / 4 * 3},
        {"blocks of 2^31", blocks(0x80000000), {}, block_report(0x80000000)},
    });
    dsf_release();
}

// Ends inside a byte, a group of 8, a block. The buffer keeps its largest size: what an earlier
// file left in it is never heard.
TEST(readers, dsf_sound_ends_inside_a_byte_a_group_or_a_block)
{
    const struct {
        uint32_t channels;
        uint32_t block_bytes;
        int64_t samples;
    } cases[] = {
        {2, 64, 1},          {2, 64, 797},         {2, 64, 64 * 8},
        {2, 8192, 9000 * 8}, {6, 16, 100 * 8 - 3}, {3, 1, 23 * 8},
        {2, 4096, 8192 * 8}, {6, 4096, 4099 * 8},  {2, 3, 13 * 8},
    };
    for (const auto &[channels, block_bytes, samples] : cases) {
        const int64_t length = (samples + 7) / 8;
        const bytes one = noise(6, static_cast<size_t>(length));
        const bytes two = noise(7, static_cast<size_t>(length));
        const bytes file = make_dsf({.channels = channels,
                                     .block_bytes = block_bytes,
                                     .sample_count = samples,
                                     .left = one,
                                     .right = two});
        check({std::to_string(samples) + " samples", file, dsd_stream_of(one, two),
               block_report(block_bytes), length});
    }
    dsf_release();
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

// A file with more among its properties; with more before its sound.
bytes dff_property(const bytes &chunks)
{
    return form({version, properties({rate, stereo, chunks}), sound});
}
bytes dff_before(const bytes &chunks)
{
    return form({version, properties({rate, stereo}), chunks, sound});
}

TEST(readers, dsdiff_headers_play_or_are_refused)
{
    const bytes good = dff_before({});
    const bytes least = form({properties({rate, stereo}), sound});
    const bytes other = channels("SRGTSLFT", 2);
    const bytes swapped = dsd_frames(right, left);
    const bytes three = channels("C   LS  RS  ", 3);
    // A property of another size than its fields take, which the size of "PROP" bears out.
    const auto told = [](const char *name, uint64_t size, size_t taken) {
        const bytes file = dff_property(joined({head_of(name, size), bytes(taken)}));
        return patched(file, 43, {static_cast<uint8_t>(file[43] + size - taken)});
    };
    const bytes all_from_the_first = joined({bytes(2), text("DSD "), be(72, 8), heard, {150, 150}});
    check_all({
        {"any version", patched(good, 28, bytes(4, 0xFF)), heard},
        {"version of 8 bytes", dff_before(joined({head_of("FVER", 8), bytes(4)}))},
        {"another tag", patched(good, 3, {'9'})},
        {"another form", patched(good, 15, {'X'})},
        {"another property type", patched(least, 28, text("snd "))},
        {"rate of 0 bytes", dff_property(chunk("FS  ", {}))},
        {"rate of 8 bytes", told("FS  ", 8, 4)},
        {"no rate", form({properties({stereo}), sound})},
        {"no channels", form({properties({rate}), sound})},
        {"sound before the properties", form({sound, properties({rate, stereo})})},
        {"properties apart", form({properties({rate}), properties({stereo}), sound}), heard},
        {"no properties", form({properties({}), properties({rate, stereo}), sound}), heard},
        {"no sound", form({version, properties({rate, stereo})})},
        {"time", dff_property(chunk("ABSS", bytes(8))), heard},
        {"time of 6 bytes", told("ABSS", 6, 8)},
        {"layout", dff_property(chunk("LSCO", bytes(2))), heard},
        {"layout of 4 bytes", told("LSCO", 4, 2)},
        {"unknown ones", dff_property(joined({chunk("ODD ", {1}), chunk("EVEN", {2, 2}), rate})),
         heard},
        {"text of 0", dff_property(chunk("CMPR", joined({text("DSD "), {0, 0}}))), heard},
        {"DST as a property", dff_property(chunk("CMPR", text("DST \3DST"))), heard},
        {"another compression", dff_property(chunk("CMPR", text("MP3 \3raw")))},
        {"DST sound", dff_before(chunk("DST ", {}))},
        {"DST index", dff_before(chunk("DSTI", {}))},
        {"one byte told for two", patched(patched(least, 27, {40}), 59, {8})},
        {"bytes behind the names", dff_property(channels("SLFTSRGT\n\n", 2))},
        {"another list, of 1", dff_property(channels("", 1))},
        {"another list, of 7", dff_property(channels("", 7))},
        {"three channels, then two", form({properties({rate, three, other}), sound}), swapped},
        {"comment of 2^32 + 4", dff_before(joined({head_of("COMT", huge + 4), bytes(4)}))},
        {"odd comment", dff_before(chunk("COMT", bytes(7, 0xEE))), heard},
        {"form of 3 bytes", patched(good, 4, be(3, 8)), heard},
        {"form that ends behind its first chunk", patched(good, 4, be(4 + 16, 8))},
        {"properties of 0 bytes", patched(least, 20, bytes(8))},
        {"properties that go on", patched(least, 20, be(1000, 8))},
        {"chunk of 2^64 - 12", dff_before(head_of("COMT", UINT64_MAX - 11))},
        {"property of 2^64 - 12", dff_property(head_of("ODD ", UINT64_MAX - 11))},
        {"sound of 2^64 - 1", patched(good, good.size() - 80, bytes(8, 0xFF)), heard, "",
         int64_t{1} << 60},
        {"two sounds", dff_before(chunk("DSD ", bytes(2))), all_from_the_first, "", 1},
        {"words behind the sound", joined({good, text("MANFMANF")}),
         joined({heard, text("MANFMANF")}), "", 36},
        {"cut in 16 bits", first_of(good, 77), {}, short_number},
    });
}

// A header, and behind it frames of left and right at their places and a part of a frame; place -1:
// the file is refused.
void check_places(const std::string &what, const bytes &header, size_t count, int left_at,
                  size_t right_at)
{
    const auto place = static_cast<size_t>(std::max(left_at, 0));
    file_row row = {what, joined({header, dsd_frames(left, right, count, place, right_at),
                                  bytes(count - 1, 0xEE)})};
    if (left_at >= 0) row.delivered = heard;
    check(row);
}

// The last one of a name counts; a right channel found before place 1 stays.
TEST(readers, dsdiff_channels_lie_where_the_list_names_them)
{
    const struct {
        std::string names;
        int left;
        size_t right;
    } cases[] = {
        {"MLFTMRGTC   LFE LS  RS  ", 0, 1},
        {"C   SLFTSRGT", 1, 2},
        {"C   LFE MRGTMLFT", 3, 2},
        {"LS  RS  ", 0, 1},
        {"SRGTLFE SLFT", 2, 0},
        {"SLFTSRGTSRGTSLFT", 3, 2},
        {"SRGTLS  ", 1, 0},
        {"LS  SLFT", 1, 0},
        {"SLFTSLFT", 1, 0},
        {"SRGTSRGT", 0, 1},
        {"SLFTslft", -1, 1},
        {"SLFT", -1, 0},
        {"", -1, 0},
        {"SLFTSRGTC   LFE LS  RS  C   ", -1, 1},
    };
    for (const auto &[names, left_at, right_at] : cases) {
        const size_t count = names.size() / 4;
        check_places(names,
                     form({properties({rate, channels(names, count)}),
                           head_of("DSD ", left.size() * count)}),
                     std::max<size_t>(count, 1), left_at, right_at);
    }
}

// --- WSD ----------------------------------------------------------------------------------------

TEST(readers, wsd_headers_play_or_are_refused)
{
    const bytes good = make_wsd({.data_offset = 64, .frames = heard});
    const auto told = [](int64_t size) { return make_wsd({.file_size = size, .frames = heard}); };
    const auto wsd = [](int count, uint32_t assignment, const bytes &frames) {
        return make_wsd({.channels = count, .assignment = assignment, .frames = frames});
    };
    const bytes both = dsd_frames(left, left);
    check_all({
        {"another tag", patched(good, 0, {'2'})},
        {"unknown bytes", patched(patched(good, 4, noise(3, 8)), 28, noise(4, 8)), heard},
        {"2^32 bytes", told(huge), heard, "", huge / 2 - 1024},
        {"2^63 - 1 bytes", told(INT64_MAX), heard, "", -1024},
        {"offset behind the told end", told(1024), heard, "", -512},
        {"offset behind the end", patched(good, 24, {0x7F}), bytes{}, "", (136 - 0x7F000040) / 2},
        {"negative offset", patched(good, 24, {0x80})},
        {"8 channels", wsd(8, 0, dsd_frames(left, right, 8)), heard},
        {"9 channels", wsd(9, 0, dsd_frames(left, right, 9))},
        {"no channels", wsd(0, 0x7C000000, heard), bytes{}, "", 0, 0},
        {"one channel", wsd(1, 0, left), both},
        {"one channel, right last", wsd(1, 0x7C000000, left), both},
        {"one channel, left last", wsd(1, 0x68000000, left), both},
        {"right beyond the frame", wsd(2, 0x54000000, heard)},
    });
}

TEST(readers, wsd_channels_lie_where_the_assignment_puts_them)
{
    const struct {
        uint32_t assignment;
        int left; // -1: refused
        size_t right;
    } cases[] = {
        {0x00000000, 0, 1},  {0x00000001, -1, 0}, {0x00000100, -1, 0}, {0x00010000, -1, 0},
        {0x44000000, 0, 1},  {0x44FFFFFF, 0, 1},  {0x4C000000, 0, 2},  {0x54000000, 0, 2},
        {0x64000000, 0, 2},  {0x74000000, 0, 3},  {0x7C000000, 0, 4},  {0xC7000000, 0, 1},
        {0x28000000, 0, 1},  {0x38000000, 0, 2},  {0x2C000000, 0, 1},  {0x68000000, 1, 0},
        {0x78000000, 1, 0},  {0x45000000, 0, 1},  {0x04000000, -1, 0}, {0x40000000, -1, 0},
        {0x20000000, -1, 0}, {0x08000000, -1, 0}, {0x80000000, -1, 0}, {0x03000000, -1, 0},
        {0x14000000, -1, 0},
    };
    const int64_t size = 2048 + 6 * std::ssize(left);
    for (const auto &[assignment, left_at, right_at] : cases)
        check_places(std::to_string(assignment),
                     make_wsd({.channels = 6, .assignment = assignment, .file_size = size}), 6,
                     left_at, right_at);
}

// --- The opener ---------------------------------------------------------------------------------

TEST(readers, samples_without_a_format_end_the_program)
{
    const std::pair<wav_settings, int> cases[] = {
        {{.tag = 3, .bits = 64}, 64},
        {{.channels = 0}, 0},
        {{.channels = 4, .block_align = 3}, 0},
        {{.format_bytes = 4}, 0},
        {{.channels = 1, .block_align = 4095}, 32760},
    };
    for (const auto &[settings, width] : cases) {
        const bytes content = wav(settings);
        soundfile file{};
        file.path = const_cast<char *>(memory_file(content.data(), content.size()));
        EXPECT_EXIT(open_soundfile(&file), testing::ExitedWithCode(714 & 0xFF),
                    "sample bit length " + std::to_string(width) + " is not supported.\n");
    }
}

TEST(readers, a_file_that_is_not_open_gives_nothing)
{
    soundfile closed{};
    for (soundfile *file : {static_cast<soundfile *>(nullptr), &closed}) {
        EXPECT_EQ(dsf_read(file, nullptr, 8), -1);
        EXPECT_EQ(dsdiff_read(file, nullptr, 8), -1);
    }
}

// --- Cut files ----------------------------------------------------------------------------------

// Every beginning of a file is refused while its header is not whole. Behind that the sound that is
// there is played.
TEST(readers, a_file_cut_at_any_byte_plays_what_is_there)
{
    const bytes odd = wav_chunk("LIST", noise(3, 5));
    const wav_settings settings = {
        .tag = 0xFFFE, .before_format = odd, .before_data = odd, .data = heard};
    const struct {
        bytes content;
        size_t header; // bytes that must be there
        size_t unit;   // bytes that are played whole or not at all
    } cases[] = {
        {make_wav(settings), 96, 4},
        {make_rf64(settings), 132, 4},
        {make_dsf({.block_bytes = 9, .left = left, .right = right}), 92, 18},
        {make_dsdiff({.frames = heard}), 130, 2},
        {make_wsd({.data_offset = 52, .frames = heard}), 52, 2},
    };
    for (const auto &[content, header, unit] : cases) {
        ASSERT_EQ(content.size(), header + heard.size());
        for (size_t length = 0; length <= content.size(); ++length) {
            file_row row = {std::to_string(length) + " of " + std::to_string(content.size()),
                            first_of(content, length)};
            row.printed.reset();
            const bool pcm = unit == 4;
            row.length = pcm ? 72 : 36;
            const size_t there = length < header ? 0 : (length - header) / unit * unit / 2;
            bytes told = dsd_stream_of(first_of(left, there), first_of(right, there));
            if (pcm) told.resize(2 * there);
            if (length >= header) row.delivered = told;
            check(row);
        }
    }
    dsf_release();
}

} // namespace
