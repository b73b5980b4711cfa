// The opener: the record and the slots that it sets, and files that have hurt readers of these
// formats: cut ones, lying ones, huge ones.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <fstream>

#include "dsdiff.h"
#include "dsf.h"
#include "open_bytes.h"
#include "player.h"
#include "wav.h"
#include "wsd.h"

namespace
{

constexpr int refused = -1;

// What the opener and the read function that it chose make of a file.
struct outcome {
    int32_t verdict;
    int32_t container;
    int32_t sample_format;
    int32_t sample_bytes;
    int64_t bytes_left;
    int64_t data_bytes;
    std::array<uint8_t, sizeof(wave_format)> wave;
    long position; // of the first sound byte
    feeder_slot feeder;
    bytes delivered;

    bool operator==(const outcome &) const = default;
};

outcome play(const bytes &content)
{
    soundfile file{};
    file.path = const_cast<char *>(fuzz_file_path(content.data(), content.size()));
    outcome o{};
    o.verdict = open_soundfile(&file);
    if (o.verdict == 0) {
        o.container = file.container;
        o.sample_format = file.sample_format;
        o.sample_bytes = file.sample_bytes;
        o.bytes_left = file.bytes_left;
        o.data_bytes = file.data_bytes;
        std::memcpy(o.wave.data(), &file.wave, sizeof file.wave);
        o.position = std::ftell(file.fp);
        o.feeder = fill_buffer;
        o.delivered = read_all(file, read_samples, file.container == container_wav ? 3072 : 8);
    }
    std::fclose(file.fp);
    return o;
}

// --- What the opener decides --------------------------------------------------------------------

TEST(Opener, ChoosesTheSampleFormatByStoredWidth)
{
    const bytes data = noise(1, 72);
    const struct {
        wav_settings settings;
        int32_t format;
        int32_t width;
    } cases[] = {
        {{.bits = 8}, SND_PCM_FORMAT_U8, 1},
        {{.bits = 16}, SND_PCM_FORMAT_S16_LE, 2},
        {{.channels = 6, .bits = 24}, SND_PCM_FORMAT_S24_3LE, 3},
        {{.bits = 32}, SND_PCM_FORMAT_S32_LE, 4},
        {{.tag = 3, .bits = 32}, SND_PCM_FORMAT_FLOAT_LE, 4},
        {{.tag = 0xFFFE, .bits = 32, .valid_bits = 24}, SND_PCM_FORMAT_S32_LE, 4},
        {{.tag = 0xFFFE, .bits = 32, .sub_format = 3}, SND_PCM_FORMAT_FLOAT_LE, 4},
        {{.tag = 1, .bits = 24, .block_align = 8}, SND_PCM_FORMAT_S32_LE, 4},
    };
    for (const auto &c : cases) {
        wav_settings s = c.settings;
        s.data = data;
        for (const bytes &content : {make_wav(s), make_rf64(s)}) {
            const outcome o = play(content);
            EXPECT_EQ(o.verdict, 0);
            EXPECT_EQ(o.container, container_wav);
            EXPECT_EQ(o.sample_format, c.format);
            EXPECT_EQ(o.sample_bytes, c.width);
            EXPECT_EQ(o.feeder, pcm_feeder);
            EXPECT_EQ(o.delivered.size(), 72U * 2 / static_cast<size_t>(s.channels));
        }
    }
}

TEST(Opener, MakesAllDsdContainersLookAlike)
{
    const bytes left = noise(1, 11);
    const bytes right = noise(2, 11);
    const struct {
        bytes content;
        int32_t container;
    } cases[] = {
        {make_dsf({.left = left, .right = right}), container_dsf},
        {make_dsdiff({.frames = dsd_frames(left, right)}), container_dsdiff},
        {make_wsd({.frames = dsd_frames(left, right)}), container_wsd},
    };
    const wave_format expected = {.nChannels = 2,
                                  .nSamplesPerSec = 2822400,
                                  .nAvgBytesPerSec = 705600,
                                  .nBlockAlign = 2,
                                  .wBitsPerSample = 1,
                                  .cbSize = 22,
                                  .dwChannelMask = 1};
    for (const auto &c : cases) {
        const outcome o = play(c.content);
        EXPECT_EQ(o.verdict, 0);
        EXPECT_EQ(o.container, c.container);
        EXPECT_EQ(o.feeder, dsd_feeder);
        EXPECT_EQ(o.sample_format, 0);
        EXPECT_EQ(o.sample_bytes, 1);
        EXPECT_EQ(o.bytes_left, 11);
        EXPECT_EQ(o.data_bytes, 11);
        EXPECT_EQ(std::memcmp(o.wave.data(), &expected, sizeof expected), 0);
        EXPECT_EQ(o.delivered, dsd_stream_of(left, right));
    }
    const outcome o = play(make_dsf({.sample_count = 5, .left = {0x12}, .right = {0x34}}));
    EXPECT_EQ(o.bytes_left, 1);
    EXPECT_EQ(o.data_bytes, 1);
    const outcome part =
        play(make_dsdiff({.channels = {"C   ", "SLFT", "SRGT"}, .frames = bytes(8)}));
    EXPECT_EQ(part.bytes_left, 2);
    EXPECT_EQ(part.data_bytes, 3);
}

TEST(Opener, SaysWhatItDoesNotKnow)
{
    const std::string short_read = "\nERROR readwrite 223 read() 4 bytes failed.\n";
    const struct {
        std::string content;
        std::string before;
    } cases[] = {
        {"A text file, as it may lie beside the sound.\n", ""},
        {"", short_read + short_read + short_read}, // of the three parsers behind the first
        {"RIF", short_read + short_read + short_read},
        {"RIFF", short_read},
    };
    for (const auto &c : cases) {
        const bytes content(c.content.begin(), c.content.end());
        testing::internal::CaptureStderr();
        EXPECT_EQ(play(content).verdict, refused);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  c.before + "file format of " + fuzz_file_path(content.data(), content.size()) +
                      " unknown. Skip\n");
    }
}

TEST(OpenerDeathTest, EndsTheProgram)
{
    const auto status = testing::ExitedWithCode(714 & 0xFF);
    EXPECT_EXIT(play(make_wav({.tag = 3, .bits = 64})), status,
                "ERROR sonivane 714 sample bit length 64 is not supported.\n");
    EXPECT_EXIT(play(make_wav({.channels = 0})), status, "sample bit length 0 is not supported.\n");
    soundfile file{};
    std::string name = "/no/such file";
    file.path = name.data();
    EXPECT_EXIT(open_soundfile(&file), testing::ExitedWithCode(725 & 0xFF),
                "ERROR sonivane 725 file /no/such file open error.\n");
}

// --- Cut files ----------------------------------------------------------------------------------

// Every beginning of a file is refused while its header is not whole. Behind that the sound that is
// there is played.
TEST(Opener, FilesCutAtEveryByte)
{
    const bytes left = noise(1, 40);
    const bytes right = noise(2, 40);
    const bytes frames = dsd_frames(left, right);
    const bytes odd = wav_chunk("LIST", noise(3, 5));
    const wav_settings wav = {
        .tag = 0xFFFE, .before_format = odd, .before_data = odd, .data = frames};
    bytes more;
    put_bytes(more, dsdiff_chunk("ABSS", bytes(8)));
    put_bytes(more, dsdiff_chunk("LSCO", bytes(2)));
    put_bytes(more, dsdiff_chunk("ODD ", bytes(3)));
    const struct {
        const char *kind;
        bytes content;
        size_t header; // bytes that must be there
        size_t sound;  // where the sound begins
        size_t unit;   // bytes that are played whole or not at all
    } cases[] = {
        {"WAV", make_wav(wav), 96, 96, 4},
        {"RF64", make_rf64(wav), 132, 132, 4},
        {"DSF", make_dsf({.block_bytes = 8, .left = left, .right = right}), 92, 92, 16},
        {"DSDIFF",
         make_dsdiff({.more_properties = more,
                      .before_sound = dsdiff_chunk("COMT", bytes(5)),
                      .frames = frames}),
         198, 198, 2},
        {"WSD", make_wsd({.data_offset = 64, .frames = frames}), 52, 64, 2},
    };
    testing::internal::CaptureStderr(); // thousands of lines
    for (const auto &c : cases) {
        EXPECT_EQ(c.content.size(), c.sound + frames.size()) << c.kind;
        for (size_t length = 0; length <= c.content.size(); ++length) {
            SCOPED_TRACE(testing::Message() << c.kind << " of " << length << " bytes");
            const outcome o =
                play({c.content.begin(), c.content.begin() + static_cast<long>(length)});
            EXPECT_EQ(o.verdict, length < c.header ? refused : 0);
            const size_t there = length > c.sound ? (length - c.sound) / c.unit * c.unit / 2 : 0;
            bytes expected =
                dsd_stream_of({left.begin(), left.begin() + static_cast<long>(there)},
                              {right.begin(), right.begin() + static_cast<long>(there)});
            if (o.container == container_wav) expected.resize(2 * there);
            EXPECT_EQ(o.delivered, o.verdict == 0 ? expected : bytes{});
        }
    }
    dsf_release();
    testing::internal::GetCapturedStderr();
}

// --- What has hurt other readers ----------------------------------------------------------------

bytes number_le(uint64_t value, int width)
{
    bytes result;
    put_le(result, value, width);
    return result;
}
bytes number_be(uint64_t value, int width)
{
    bytes result;
    put_be(result, value, width);
    return result;
}

// The head of a WAV chunk with a size of its own.
bytes wav_head(const std::string &name, uint32_t size)
{
    bytes head(name.begin(), name.end());
    put_bytes(head, number_le(size, 4));
    return head;
}
bytes dsdiff_head(const std::string &name, uint64_t size)
{
    bytes head(name.begin(), name.end());
    put_bytes(head, number_be(size, 8));
    return head;
}

bytes repeated(const bytes &part, int times)
{
    bytes result;
    for (int i = 0; i < times; ++i) put_bytes(result, part);
    return result;
}

const bytes pcm = noise(1, 64);
const bytes dsd = noise(2, 64);

bytes wav_before(const bytes &chunks)
{
    return make_wav({.before_data = chunks, .data = pcm});
}
bytes dsdiff_before(const bytes &chunks)
{
    return make_dsdiff({.before_sound = chunks, .frames = dsd});
}
bytes dsdiff_property(const bytes &chunks)
{
    return make_dsdiff({.more_properties = chunks, .frames = dsd});
}
bytes dsf_with(size_t at, const bytes &with)
{
    return patched(make_dsf({.left = noise(3, 4096), .right = noise(4, 4096)}), at, with);
}

// "ds64" with a body cut to, or filled up to, the given length; its size tells the truth.
bytes rf64_with_sizes_of(size_t length)
{
    bytes file = patched(make_rf64({.data = pcm}), 16, number_le(length, 4));
    const auto body = file.begin() + 20;
    if (length < 28)
        file.erase(body + static_cast<long>(length), body + 28);
    else
        file.insert(body + 28, length - 28, 0);
    return file;
}

bytes without(bytes file, size_t from, size_t count)
{
    file.erase(file.begin() + static_cast<long>(from),
               file.begin() + static_cast<long>(from + count));
    return file;
}

struct hostile_case {
    const char *what;
    bytes content;
    long delivered; // bytes, or refused
};

// The walks over chunks.
std::vector<hostile_case> chunks_that_lie()
{
    return {
        // A size taken as a negative number seeks backward, for ever.
        {"chunk of 0xFFFFFFF7", wav_before(wav_head("LIST", 0xFFFFFFF7)), refused},
        {"chunk of 0x80000000", wav_before(wav_head("LIST", 0x80000000)), refused},
        {"DSDIFF chunk of 2^64 - 9", dsdiff_before(dsdiff_head("COMT", UINT64_MAX - 8)), refused},
        {"DSF chunk of 2^63", dsf_with(4, number_le(uint64_t{1} << 63, 8)), refused},
        {"WSD offset of 2^31", patched(make_wsd({.frames = dsd}), 24, {0x80}), refused},
        // A size and its header wrap: no progress.
        {"chunk of 2^32 - 8", wav_before(wav_head("LIST", 0xFFFFFFF8)), refused},
        {"chunks of 2^32 - 1", wav_before(repeated(wav_head("LIST", 0xFFFFFFFF), 9)), 64},
        {"DSDIFF chunk of 2^64 - 12", dsdiff_before(dsdiff_head("COMT", UINT64_MAX - 11)), refused},
        {"DSDIFF property of 2^64 - 12", dsdiff_property(dsdiff_head("ODD ", UINT64_MAX - 11)),
         refused},
        {"DSF sizes that wrap", dsf_with(32, number_le(UINT64_MAX - 27, 8)), refused},
        // Lists in lists.
        {"lists in lists", wav_before(repeated(wav_head("LIST", 0), 200)), 64},
        {"properties in properties", dsdiff_property(repeated(dsdiff_head("PROP", 0), 200)), 64},
        {"empty chunks", dsdiff_before(repeated(dsdiff_head("COMT", 0), 200)), 64},
        // Odd chunks and their pad byte.
        {"odd list", wav_before(wav_chunk("LIST", bytes(7, 0xEE))), 64},
        {"odd property", dsdiff_property(dsdiff_chunk("ODD ", bytes(7, 0xEE))), 64},
        {"odd comment", dsdiff_before(dsdiff_chunk("COMT", bytes(7, 0xEE))), 64},
        // Valid files that were refused.
        {"400 kB before the data", wav_before(wav_chunk("LIST", bytes(400000, 'd'))), 64},
        {"10000 chunks before the data", wav_before(repeated(wav_chunk("LIST", bytes(3)), 10000)),
         64},
        {"400 kB before the sound", dsdiff_before(dsdiff_chunk("COMT", bytes(400000, 'D'))), 64},
        {"10000 chunks before the sound",
         dsdiff_before(repeated(dsdiff_chunk("COMT", bytes(3)), 10000)), 64},
    };
}

// Counts, widths and lengths of single chunks.
std::vector<hostile_case> fields_that_lie()
{
    const bytes one_channel = dsdiff_chunk("CHNL", hex_bytes("00 01 53 4C 46 54"));
    return {
        // Zero and negative counts.
        {"frame of 0 bytes", make_wav({.block_align = 0, .data = pcm}), refused},
        {"frame of -4 bytes", make_wav({.block_align = 0xFFFC, .data = pcm}), refused},
        {"-2 channels", make_wav({.channels = 0xFFFE, .block_align = 4, .data = pcm}), refused},
        {"-2 channels, frame of -4", make_wav({.channels = 0xFFFE, .block_align = 0xFFFC}),
         refused},
        {"0 bits in a frame of 4", make_wav({.bits = 0, .block_align = 4, .data = pcm}), 64},
        {"rate of 0", make_wav({.rate = 0, .data = pcm}), 64},
        {"rate below 0", make_wav({.rate = -1, .data = pcm}), 64},
        {"DSF without channels", dsf_with(52, {0}), refused},
        {"DSF blocks of 0", dsf_with(72, number_le(0, 4)), 0},
        {"DSF rate of 0", dsf_with(56, number_le(0, 4)), 8192},
        {"WSD without channels", make_wsd({.channels = 0, .frames = dsd}), 0},
        {"DSDIFF with one channel", dsdiff_property(one_channel), refused},
        // Channels times width wraps.
        {"0xFFFF channels of 4 bytes", make_wav({.channels = 0xFFFF, .bits = 32, .data = pcm}),
         refused},
        {"0x4000 channels of 4 bytes", make_wav({.channels = 0x4000, .bits = 32, .data = pcm}),
         refused},
        {"DSF with 2^31 channels", dsf_with(52, number_le(0x80000000, 4)), 8192},
        {"DSF with 2^31 - 1 channels", dsf_with(52, number_le(0x7FFFFFFF, 4)), 8192},
        // A chunk is shorter than its fixed fields.
        {"\"ds64\" of 0", rf64_with_sizes_of(0), refused},
        {"\"ds64\" of 8", rf64_with_sizes_of(8), refused},
        {"\"ds64\" of 16", rf64_with_sizes_of(16), refused},
        {"\"ds64\" of 23", rf64_with_sizes_of(23), refused},
        {"\"ds64\" of 24", rf64_with_sizes_of(24), 64},
        {"\"ds64\" of 27", rf64_with_sizes_of(27), 64},
        {"\"ds64\" of 1000", rf64_with_sizes_of(1000), 64},
        {"\"ds64\" of 2^32 - 1", patched(make_rf64({.data = pcm}), 16, bytes(4, 0xFF)), refused},
        {"rate of 0 bytes", dsdiff_property(dsdiff_chunk("FS  ", {})), refused},
        {"rate of 1 byte", dsdiff_property(dsdiff_chunk("FS  ", bytes(1))), refused},
        {"rate of 2 bytes", dsdiff_property(dsdiff_chunk("FS  ", bytes(2))), refused},
        {"rate of 3 bytes", dsdiff_property(dsdiff_chunk("FS  ", bytes(3))), refused},
        // Memory for a size that nothing proves.
        {"data of 4 GiB in a small file", make_wav({.data_size = 0xFFFFFFFF, .data = pcm}), 64},
        {"DSF blocks of 2^30 - 1", dsf_with(72, number_le(0x3FFFFFFF, 4)), 0},
        {"DSF blocks of 2^31", dsf_with(72, number_le(0x80000000, 4)), refused},
        {"DSF blocks of 2^32 - 1", dsf_with(72, bytes(4, 0xFF)), refused},
    };
}

// What is there twice, or not at all; the size of the sound.
std::vector<hostile_case> chunks_out_of_place()
{
    const bytes format = wav_chunk("fmt ", [] {
        bytes body = number_le(1, 2);
        for (const auto &[value, width] : {std::pair{1, 2}, {8000, 4}, {8000, 4}, {1, 2}, {8, 2}})
            put_bytes(body, number_le(static_cast<uint64_t>(value), width));
        return body;
    }());
    const bytes one_channel = dsdiff_chunk("CHNL", hex_bytes("00 01 53 4C 46 54"));
    const bytes swapped = dsdiff_chunk("CHNL", hex_bytes("00 02 53 52 47 54 53 4C 46 54"));
    bytes second_properties = {'S', 'N', 'D', ' '};
    put_bytes(second_properties, swapped);
    const bytes plain_dsdiff = dsdiff_before({});
    const size_t sound_size = plain_dsdiff.size() - 64 - 8;
    return {
        // A repeated chunk changes what was checked: the first "fmt " counts, the last "CHNL".
        {"two \"fmt \"", wav_before(format), 64},
        {"two \"CHNL\"", dsdiff_property(swapped), 64},
        {"two \"CHNL\", the second one bad", dsdiff_property(one_channel), refused},
        {"two \"PROP\"", dsdiff_before(dsdiff_chunk("PROP", second_properties)), 64},
        {"two sounds", make_dsdiff({.before_sound = dsdiff_chunk("DSD ", bytes(2)), .frames = dsd}),
         80}, // what stands behind the first is read as its frames
        // What is needed is missing.
        {"data before the format", make_wav({.before_format = wav_chunk("data", pcm)}), 0},
        {"no format", without(make_wav({.data = pcm}), 12, 24), refused},
        {"RF64 without \"ds64\"", without(make_rf64({.data = pcm}), 12, 36), refused},
        {"no properties", without(plain_dsdiff, 32, find_text(plain_dsdiff, "CMPR") + 32 - 32),
         refused},
        // Sizes of the sound that lie.
        {"data of 0", make_wav({.data_size = 0, .data = pcm}), 0},
        {"data inside a frame", make_wav({.data_size = 13, .data = pcm}), 12},
        {"data beyond the end", make_wav({.data_size = 1000, .data = pcm}), 64},
        {"RF64 data of 2^64 - 4",
         patched(patched(make_rf64({.data = pcm}), 28, number_le(UINT64_MAX - 3, 8)), 36,
                 number_le(uint64_t{1} << 62, 8)),
         refused},
        {"DSF count of 0", dsf_with(64, number_le(0, 8)), 0},
        {"DSF count of 2^64 - 1", dsf_with(64, bytes(8, 0xFF)), 0},
        {"DSF count of 2^63", dsf_with(64, number_le(uint64_t{1} << 63, 8)), 8192},
        {"DSF data of 0", dsf_with(84, number_le(0, 8)), 8192},
        {"DSDIFF sound of 0", patched(plain_dsdiff, sound_size, number_be(0, 8)), 64},
        {"DSDIFF sound of 2^64 - 1", patched(plain_dsdiff, sound_size, bytes(8, 0xFF)), 64},
        {"WSD of 0 bytes", make_wsd({.file_size = 0, .frames = dsd}), 64},
        {"WSD of 2^63 bytes", make_wsd({.file_size = INT64_MAX, .frames = dsd}), 64},
        {"WSD offset beyond the end", patched(make_wsd({.frames = dsd}), 24, {0x7F}), 0},
    };
}

// Pages that the process has reserved, touched or not.
int64_t reserved_bytes()
{
    int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * getpagesize();
}

int64_t processor_seconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec;
}

TEST(Opener, HostileFiles)
{
    testing::internal::CaptureStderr();
    std::vector<hostile_case> cases = chunks_that_lie();
    for (const auto &more : {fields_that_lie(), chunks_out_of_place()})
        cases.insert(cases.end(), more.begin(), more.end());
    for (const hostile_case &c : cases) {
        SCOPED_TRACE(c.what);
        dsf_release();
        const int64_t reserved = reserved_bytes();
        const int64_t seconds = processor_seconds();
        const outcome probed = play(c.content);
        EXPECT_LT(reserved_bytes() - reserved, 16 << 20);
        EXPECT_LT(processor_seconds() - seconds, 5);
        EXPECT_EQ(probed.verdict, c.delivered == refused ? refused : 0);
        EXPECT_EQ(probed.delivered.size(), static_cast<size_t>(std::max(c.delivered, 0L)));
        EXPECT_EQ(play(c.content), probed); // the second opening must not judge otherwise
    }
    dsf_release();
    testing::internal::GetCapturedStderr();
}

TEST(Opener, FormatChunksOfEveryLength)
{
    for (int length = 0; length <= 44; ++length) {
        bytes file = make_wav({.tag = 0xFFFE, .format_bytes = length, .data = pcm});
        if (length % 2 != 0) file = without(file, 20 + static_cast<size_t>(length), 1);
        const int expected = length < 3 || length > 12 ? 0 : refused; // channels, but no frame
        opened_file f(wav_open, file);
        EXPECT_EQ(f.verdict, expected) << length;
        EXPECT_EQ(read_all(f.file, length < 13 ? dsdiff_read : wav_read, 64).size(),
                  length < 13 ? 0U : 64U);
    }
}

// --- Files beyond 4 GiB -------------------------------------------------------------------------

constexpr int64_t huge = int64_t{5} << 30; // bytes of sound

// The header with huge bytes of silence and, at the end, a last group.
template <typename Check>
void open_huge(const bytes &header, int32_t (*open)(soundfile *), Check check)
{
    opened_file f(open, header); // too early: only to have the file
    const bytes last = hex_bytes("11 22 33 44 55 66 77 88");
    const auto end = static_cast<off64_t>(header.size()) + huge;
    const int fd = ::open(fuzz_file_path(header.data(), header.size()), O_RDWR);
    ASSERT_EQ(ftruncate64(fd, end), 0);
    ASSERT_EQ(pwrite64(fd, last.data(), last.size(), end - 8), 8);
    ::close(fd);
    std::rewind(f.file.fp);
    ASSERT_EQ(open(&f.file), 0);
    EXPECT_EQ(ftello64(f.file.fp), static_cast<off64_t>(header.size()));
    check(f.file);
    ASSERT_EQ(fseeko64(f.file.fp, end - 8, SEEK_SET), 0);
    f.file.bytes_left = std::min<int64_t>(f.file.bytes_left, 8);
    EXPECT_EQ(read_all(f.file, open == wav_open ? wav_read : dsdiff_read), last);
}

TEST(Opener, FilesOfFiveGibibytes)
{
    open_huge(make_rf64({.data_size = huge}), wav_open, [](const soundfile &file) {
        EXPECT_EQ(file.bytes_left, huge);
        EXPECT_EQ(file.data_bytes, huge);
    });
    bytes header = make_dsdiff({});
    header = patched(header, 4, number_be(static_cast<uint64_t>(huge) + header.size() - 12, 8));
    header = patched(header, header.size() - 8, number_be(static_cast<uint64_t>(huge), 8));
    const auto bits = [](const soundfile &file) {
        EXPECT_EQ(file.bytes_left, huge * 4);
        EXPECT_EQ(file.data_bytes, huge * 4);
    };
    open_huge(header, dsdiff_open, bits);
    // A chunk of that size before the sound.
    bytes before = dsdiff_before({});
    const bytes sound(before.end() - 64 - 12, before.end());
    before.resize(before.size() - 64 - 12);
    put_bytes(before, dsdiff_head("COMT", static_cast<uint64_t>(huge) + 8 - 76));
    soundfile file{};
    const char *path = fuzz_file_path(before.data(), before.size());
    const int fd = ::open(path, O_RDWR);
    const auto at = static_cast<off64_t>(before.size()) + huge + 8 - 76;
    ASSERT_EQ(pwrite64(fd, sound.data(), sound.size(), at), 76);
    ::close(fd);
    file.fp = std::fopen(path, "rb");
    EXPECT_EQ(dsdiff_open(&file), 0);
    EXPECT_EQ(read_all(file, dsdiff_read), dsd);
    std::fclose(file.fp);
}

} // namespace
