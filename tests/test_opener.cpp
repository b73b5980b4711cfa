// The opener: the record and the slots that it sets, and files that have hurt readers of these
// formats: cut ones, lying ones, huge ones.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <fstream>

#include "dsf.h"
#include "open_bytes.h"
#include "player.h"

namespace
{

constexpr int refused = -1;

// What the opener and the read function that it chose make of a file.
struct played {
    soundfile file{};
    int32_t verdict;
    bytes delivered;

    explicit played(const bytes &content)
    {
        file.path = const_cast<char *>(fuzz_file_path(content.data(), content.size()));
        verdict = open_soundfile(&file);
        if (verdict == 0)
            delivered = read_all(file, read_samples, file.container == container_wav ? 3072 : 8);
        std::fclose(file.fp);
    }
};

// --- What the opener decides --------------------------------------------------------------------

TEST(Opener, ChoosesTheSampleFormatByStoredWidth)
{
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
        s.data = noise(1, 72);
        const played o(make_wav(s));
        EXPECT_EQ(o.file.container, container_wav);
        EXPECT_EQ(o.file.sample_format, c.format);
        EXPECT_EQ(o.file.sample_bytes, c.width);
        EXPECT_EQ(fill_buffer, pcm_feeder);
        EXPECT_EQ(o.delivered.size(), 72U * 2 / static_cast<size_t>(s.channels));
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
    const wave_format expected = {0, 2, 2822400, 705600, 2, 1, 22, 0, 1, {}, {}};
    for (const auto &c : cases) {
        const played o(c.content);
        EXPECT_EQ(o.file.container, c.container);
        EXPECT_EQ(fill_buffer, dsd_feeder);
        EXPECT_EQ(o.file.sample_format, 0);
        EXPECT_EQ(o.file.sample_bytes, 1);
        EXPECT_EQ(o.file.bytes_left, 11);
        EXPECT_EQ(o.file.data_bytes, 11);
        EXPECT_EQ(std::memcmp(&o.file.wave, &expected, sizeof expected), 0);
        EXPECT_EQ(o.delivered, dsd_stream_of(left, right));
    }
    EXPECT_EQ(played(make_dsf({.sample_count = 5, .left = {1}, .right = {2}})).file.data_bytes, 1);
    const played part(make_dsdiff({.channels = {"C   ", "SLFT", "SRGT"}, .frames = bytes(8)}));
    EXPECT_EQ(part.file.bytes_left, 2);
    EXPECT_EQ(part.file.data_bytes, 3);
}

TEST(Opener, SaysWhatItDoesNotKnow)
{
    const std::string short_read = "\nERROR readwrite 223 read() 4 bytes failed.\n";
    const std::pair<std::string, std::string> cases[] = {
        {"A text file, as it may lie beside the sound.\n", ""},
        {"RIF", short_read + short_read + short_read}, // of the three parsers behind the first
        {"RIFF", short_read},
    };
    for (const auto &[content, printed] : cases) {
        testing::internal::CaptureStderr();
        const played o(text(content));
        EXPECT_EQ(o.verdict, refused);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  printed + "file format of " + o.file.path + " unknown. Skip\n");
    }
}

TEST(OpenerDeathTest, EndsTheProgram)
{
    const auto status = testing::ExitedWithCode(714 & 0xFF);
    EXPECT_EXIT(played(make_wav({.tag = 3, .bits = 64})), status,
                "ERROR sonivane 714 sample bit length 64 is not supported.\n");
    EXPECT_EXIT(played(make_wav({.channels = 0})), status,
                "sample bit length 0 is not supported.\n");
    EXPECT_EXIT(played(make_wav({.format_bytes = 4})), status,
                "sample bit length 0 is not supported.\n");
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
    const bytes more = joined({dsdiff_chunk("ABSS", bytes(8)), dsdiff_chunk("LSCO", bytes(2)),
                               dsdiff_chunk("ODD ", bytes(3))});
    const bytes comment = dsdiff_chunk("COMT", bytes(5));
    const struct {
        bytes content;
        size_t header; // bytes that must be there
        size_t sound;  // where the sound begins
        size_t unit;   // bytes that are played whole or not at all
    } cases[] = {
        {make_wav(wav), 96, 96, 4},
        {make_rf64(wav), 132, 132, 4},
        {make_dsf({.block_bytes = 8, .left = left, .right = right}), 92, 92, 16},
        {make_dsdiff({.more_properties = more, .before_sound = comment, .frames = frames}), 198,
         198, 2},
        {make_wsd({.data_offset = 64, .frames = frames}), 52, 64, 2},
    };
    testing::internal::CaptureStderr(); // thousands of lines
    for (const auto &c : cases) {
        EXPECT_EQ(c.content.size(), c.sound + frames.size());
        for (size_t length = 0; length <= c.content.size(); ++length) {
            SCOPED_TRACE(testing::Message() << length << " bytes, sound at " << c.sound);
            const played o(bytes(c.content.data(), c.content.data() + length));
            EXPECT_EQ(o.verdict, length < c.header ? refused : 0);
            const size_t there = length > c.sound ? (length - c.sound) / c.unit * c.unit / 2 : 0;
            bytes expected = dsd_stream_of({left.data(), left.data() + there},
                                           {right.data(), right.data() + there});
            if (o.file.container == container_wav) expected.resize(2 * there);
            EXPECT_EQ(o.delivered, expected);
        }
    }
    dsf_release();
    testing::internal::GetCapturedStderr();
}

// --- What has hurt other readers ----------------------------------------------------------------

const bytes pcm = noise(1, 64);
const bytes dsd = noise(2, 64);

// The head of a chunk with a size of its own.
bytes list_of(uint32_t size)
{
    return joined({text("LIST"), le(size, 4)});
}
bytes chunk_of(const char *name, uint64_t size)
{
    return joined({text(name), be(size, 8)});
}

bytes repeated(const bytes &part, int times)
{
    bytes result;
    for (int i = 0; i < times; ++i) put_bytes(result, part);
    return result;
}

bytes wav_before(const bytes &chunks)
{
    return make_wav({.before_data = chunks, .data = pcm});
}
bytes dff_before(const bytes &chunks)
{
    return make_dsdiff({.before_sound = chunks, .frames = dsd});
}
bytes dff_property(const bytes &chunks)
{
    return make_dsdiff({.more_properties = chunks, .frames = dsd});
}
bytes dff_sound_of(uint64_t size)
{
    const bytes file = dff_before({});
    return patched(file, file.size() - 64 - 8, be(size, 8));
}
bytes dsf_with(size_t at, uint64_t value, int width)
{
    return patched(make_dsf({.left = noise(3, 4096), .right = noise(4, 4096)}), at,
                   le(value, width));
}
bytes wsd_with_offset(uint8_t first)
{
    return patched(make_wsd({.frames = dsd}), 24, {first});
}

// "ds64" with a body cut to, or filled up to, the given length; its size tells the truth.
bytes rf64_with_sizes_of(size_t length)
{
    const bytes file = patched(make_rf64({.data = pcm}), 16, le(length, 4));
    bytes body(file.data() + 20, file.data() + 48);
    body.resize(length);
    return joined({{file.data(), file.data() + 20}, body, {&file[48], &file[0] + file.size()}});
}

bytes without(bytes file, long from, long count)
{
    file.erase(file.begin() + from, file.begin() + from + count);
    return file;
}

struct hostile_case {
    const char *what;
    bytes content;
    long delivered; // bytes, or refused
};

std::vector<hostile_case> hostile_files()
{
    constexpr uint64_t top = uint64_t{1} << 63;
    const bytes mono = wav_chunk("fmt ", hex_bytes("01 00 01 00 40 1F 0 0 40 1F 0 0 01 00 08 00"));
    const bytes one = dsdiff_chunk("CHNL", joined({be(1, 2), text("SLFT")}));
    const bytes swapped = dsdiff_chunk("CHNL", joined({be(2, 2), text("SRGTSLFT")}));
    return {
        // A size taken as a negative number seeks backward, for ever.
        {"chunk of 0xFFFFFFF7", wav_before(list_of(0xFFFFFFF7)), refused},
        {"DSF chunk of 2^63", dsf_with(4, top, 8), refused},
        // A size and its header wrap: no progress.
        {"chunk of 2^32 - 8", wav_before(list_of(0xFFFFFFF8)), refused},
        {"DSDIFF chunk of 2^64 - 12", dff_before(chunk_of("COMT", UINT64_MAX - 11)), refused},
        {"property of 2^64 - 12", dff_property(chunk_of("ODD ", UINT64_MAX - 11)), refused},
        {"DSF sizes that wrap", dsf_with(32, UINT64_MAX - 27, 8), refused},
        // Lists in lists.
        {"lists in lists", wav_before(repeated(list_of(0), 200)), 64},
        {"properties in properties", dff_property(repeated(chunk_of("PROP", 0), 200)), 64},
        // Odd chunks and their pad byte.
        {"odd comment", dff_before(dsdiff_chunk("COMT", bytes(7, 0xEE))), 64},
        // Valid files that were refused: much before the sound.
        {"10000 chunks", wav_before(repeated(wav_chunk("LIST", bytes(3)), 10000)), 64},
        {"400 kB in DSDIFF", dff_before(dsdiff_chunk("COMT", bytes(400000, 'D'))), 64},
        // Zero and negative counts; channels times width wraps.
        {"-2 channels, frame of -4", make_wav({.channels = 0xFFFE, .block_align = 0xFFFC}), -1},
        {"0 bits in a frame of 4", make_wav({.bits = 0, .block_align = 4, .data = pcm}), 64},
        {"rate of 0", make_wav({.rate = 0, .data = pcm}), 64},
        {"0xFFFF channels of 4", make_wav({.channels = 0xFFFF, .bits = 32, .data = pcm}), refused},
        {"DSF rate of 0", dsf_with(56, 0, 4), 8192},
        {"DSF with 2^31 channels", dsf_with(52, 0x80000000, 4), 8192},
        // A chunk is shorter than its fixed fields.
        {"\"ds64\" of 23", rf64_with_sizes_of(23), refused},
        {"\"ds64\" of 24", rf64_with_sizes_of(24), 64},
        {"\"ds64\" of 2^32 - 1", patched(make_rf64({.data = pcm}), 16, bytes(4, 0xFF)), refused},
        {"DSDIFF rate of 0 bytes", dff_property(dsdiff_chunk("FS  ", {})), refused},
        // Memory for a size that nothing proves.
        {"4 GiB in a small file", make_wav({.data_size = 0xFFFFFFFF, .data = pcm}), 64},
        {"DSF blocks of 2^30 - 1", dsf_with(72, 0x3FFFFFFF, 4), 0},
        // A repeated chunk changes what was checked: the first "fmt " counts, the last "CHNL".
        {"two \"fmt \"", wav_before(mono), 64},
        {"two \"CHNL\"", dff_property(swapped), 64},
        {"two \"CHNL\", the second one bad", dff_property(one), refused},
        {"two \"PROP\"", dff_before(dsdiff_chunk("PROP", joined({text("SND "), swapped}))), 64},
        {"two sounds, the second one heard", dff_before(dsdiff_chunk("DSD ", bytes(2))), 80},
        // What is needed is missing.
        {"data before the format", make_wav({.before_format = wav_chunk("data", pcm)}), 0},
        {"no format", without(make_wav({.data = pcm}), 12, 24), refused},
        {"RF64 without \"ds64\"", without(make_rf64({.data = pcm}), 12, 36), refused},
        // Sizes of the sound that lie.
        {"data inside a frame", make_wav({.data_size = 13, .data = pcm}), 12},
        {"RF64 data of 2^64 - 4",
         patched(make_rf64({.data = pcm}), 28, joined({le(UINT64_MAX - 3, 8), le(top / 2, 8)})),
         -1},
        {"DSF count of 0", dsf_with(64, 0, 8), 0},
        {"DSF count of 2^64 - 1", dsf_with(64, UINT64_MAX, 8), 0},
        {"DSF count of 2^63", dsf_with(64, top, 8), 8192},
        {"DSF data of 0", dsf_with(84, 0, 8), 8192},
        {"DSDIFF sound of 2^64 - 1", dff_sound_of(UINT64_MAX), 64},
        {"WSD of 2^63 bytes", make_wsd({.file_size = INT64_MAX, .frames = dsd}), 64},
        {"WSD offset beyond the end", wsd_with_offset(0x7F), 0},
    };
}

// Pages that the process has reserved, touched or not.
int64_t reserved_bytes()
{
    int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * getpagesize();
}

TEST(Opener, HostileFiles)
{
    testing::internal::CaptureStderr();
    for (const hostile_case &c : hostile_files()) {
        SCOPED_TRACE(c.what);
        dsf_release();
        const int64_t reserved = reserved_bytes();
        const std::clock_t begin = std::clock(); // processor time
        const played first(c.content);
        EXPECT_LT(reserved_bytes() - reserved, 16 << 20);
        EXPECT_LT(std::clock() - begin, 5 * CLOCKS_PER_SEC);
        EXPECT_EQ(first.verdict, c.delivered == refused ? refused : 0);
        EXPECT_EQ(first.delivered.size(), static_cast<size_t>(std::max(c.delivered, 0L)));
        const played second(c.content); // must not judge otherwise
        EXPECT_EQ(second.verdict, first.verdict);
        EXPECT_EQ(second.delivered, first.delivered);
    }
    dsf_release();
    testing::internal::GetCapturedStderr();
}

// Sparse files of 5 GiB: the sound, or what stands before it, is that large.
TEST(Opener, FilesOfFiveGibibytes)
{
    constexpr int64_t huge = int64_t{5} << 30;
    const bytes file = dff_before({});
    const bytes head(file.begin(), file.end() - 64 - 12);
    const struct {
        bytes begin;
        bytes end; // huge bytes behind the beginning
        int64_t sound;
        int64_t bytes_left;
    } cases[] = {
        {make_rf64({.data_size = huge + 8}), noise(5, 8), 0, huge + 8},
        {joined({head, chunk_of("DSD ", huge + 8)}), noise(5, 8), 0, huge / 2 + 4},
        {joined({head, chunk_of("COMT", huge)}), {file.end() - 76, file.end()}, huge + 12, 64 / 2},
    };
    for (const auto &c : cases) {
        soundfile f{};
        f.path = const_cast<char *>(fuzz_file_path(c.begin.data(), c.begin.size()));
        const int fd = ::open(f.path, O_RDWR);
        const auto begin = static_cast<off64_t>(c.begin.size());
        const auto size = static_cast<ssize_t>(c.end.size());
        EXPECT_EQ(pwrite64(fd, c.end.data(), c.end.size(), begin + huge), size);
        ::close(fd);
        ASSERT_EQ(open_soundfile(&f), 0);
        EXPECT_EQ(ftello64(f.fp), begin + c.sound);
        EXPECT_EQ(f.bytes_left, c.bytes_left);
        f.bytes_left = 8;
        ASSERT_EQ(fseeko64(f.fp, -8, SEEK_END), 0);
        EXPECT_EQ(read_all(f, read_samples, 8), bytes(c.end.end() - 8, c.end.end()));
        std::fclose(f.fp);
    }
}

} // namespace
