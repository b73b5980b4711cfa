// The DSF reader: header rules, blocks, bit order and tails.
#include "dsf.h"

#include <gtest/gtest.h>

#include "open_bytes.h"

namespace
{

dsf_settings settings(size_t length, uint32_t block_bytes = 64, uint32_t channels = 2)
{
    return {.channels = channels,
            .block_bytes = block_bytes,
            .left = noise(1, length),
            .right = noise(2, length)};
}

TEST(Dsf, HeaderRules)
{
    const bytes good = make_dsf(settings(10, 4096));
    const std::string block_report = "\nERROR dsf 142 DSF block size if ";
    const struct {
        const char *what;
        bytes content;
        int32_t verdict;
        std::string printed;
    } cases[] = {
        {"as it should be", good, 0, ""},
        {"first tag", patched(good, 3, {'X'}), -1, ""},
        {"second tag", patched(good, 28, {'F'}), -1, ""},
        {"third tag", patched(good, 80, {'D'}), -1, ""},
        {"longer chunks", patched(good, 16, noise(3, 12)), 0, ""},
        {"first chunk beyond the end", patched(good, 4, {0, 0, 0, 0, 1}), -1,
         "\nERROR readwrite 223 read() 4 bytes failed.\n"},
        {"first chunk beyond all offsets", patched(good, 11, {0x80}), -1, ""},
        {"format chunk beyond all offsets", patched(good, 39, {0x80}), -1, ""},
        {"sizes that wrap to the data chunk", patched(good, 32, bytes(8, 0xFF)), -1, ""},
        {"version", patched(good, 40, {2, 0xFF}), 0, ""},
        {"format id", patched(good, 44, {1}), -1, ""},
        {"channel type", patched(good, 48, bytes(4, 0xFF)), 0, ""},
        {"no channels", patched(good, 52, {0}), -1, ""},
        {"one channel", patched(good, 52, {1}), -1, ""},
        {"bits per sample of 0", patched(good, 60, {0}), 0, ""},
        {"bits per sample of 8", patched(good, 60, {8}), -1, ""},
        {"block size of 2048", patched(good, 72, {0, 8}), 0, block_report + "2048\n"},
        {"block size of 0", patched(good, 72, {0, 0}), 0, block_report + "0\n"},
        {"block size of 2^31 - 1", patched(good, 72, {0xFF, 0xFF, 0xFF, 0x7F}), 0,
         block_report + "2147483647\n"},
        {"block size of 2^31", patched(good, 72, {0, 0, 0, 0x80}), -1,
         block_report + "-2147483648\n"},
        {"block size of 2^32 - 1", patched(good, 72, bytes(4, 0xFF)), -1, block_report + "-1\n"},
        {"block size of 2^30 - 1", patched(good, 72, {0xFF, 0xFF, 0xFF, 0x3F}), 0,
         block_report + "1073741823\n"},
        {"size of the data", patched(good, 84, bytes(8, 0xFF)), 0, ""},
        {"end before the data chunk's size", bytes(good.begin(), good.begin() + 87), -1,
         "fread() failed.\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        testing::internal::CaptureStderr();
        opened_file f(dsf_open, c.content);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.printed);
        EXPECT_EQ(f.verdict, c.verdict);
    }
    dsf_release();
}

TEST(Dsf, FieldsOfTheRecord)
{
    dsf_settings s = settings(100, 16, 6);
    s.sample_count = 797;
    s.rate = 5644800;
    s.dsd_chunk_bytes = 40;
    s.format_chunk_bytes = 61;
    opened_file f(dsf_open, make_dsf(s));
    ASSERT_EQ(f.verdict, 0);
    EXPECT_EQ(f.file.channels, 6);
    EXPECT_EQ(f.file.block_bytes, 16);
    EXPECT_EQ(f.file.dsf_bytes_left, 100);
    EXPECT_EQ(f.file.bytes_left, 800);
    EXPECT_EQ(f.file.data_bytes, 800);
    EXPECT_EQ(f.file.wave.nSamplesPerSec, 5644800);
    EXPECT_EQ(std::ftell(f.file.fp), 40 + 61 + 12);
    dsf_release();
}

TEST(Dsf, TurnsTheBitsOfEveryByte)
{
    bytes all(256);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
    bytes file = make_dsf({.block_bytes = 256, .left = all, .right = all});
    for (size_t i = 0; i < 256; ++i) file[92 + i] = all[i]; // the left block, not turned
    opened_file f(dsf_open, file);
    const bytes delivered = read_all(f.file, dsf_read, 512);
    ASSERT_EQ(delivered.size(), 512U);
    const uint8_t known[][2] = {
        {0x01, 0x80}, {0x03, 0xC0}, {0x96, 0x69}, {0xFF, 0xFF}, {0x50, 0x0A}};
    for (const auto &row : known) {
        EXPECT_EQ(delivered[2U * row[0]], row[1]);
        EXPECT_EQ(delivered[2U * row[1]], row[0]);
    }
    for (size_t i = 0; i < 256; ++i) EXPECT_EQ(delivered[2 * i + 1], i);
    dsf_release();
}

// Lengths that end inside a byte, a group of 8, a block; every size of request gives the same.
TEST(Dsf, DeliversUpToTheLastSample)
{
    const struct {
        uint32_t channels;
        uint32_t block_bytes;
        int64_t samples;
    } cases[] = {
        {2, 64, 1},       {2, 64, 17},    {2, 64, 32},         {2, 64, 64 * 8},
        {2, 64, 64 * 16}, {2, 64, 797},   {2, 64, 65 * 8},     {6, 16, 100 * 8 - 3},
        {3, 1, 23 * 8},   {2, 6, 15 * 8}, {2, 4096, 8192 * 8}, {6, 4096, 4099 * 8},
        {2, 3, 13 * 8},
    };
    for (const auto &c : cases) {
        dsf_settings s =
            settings(static_cast<size_t>(c.samples + 7) / 8, c.block_bytes, c.channels);
        s.sample_count = c.samples;
        const bytes expected = dsd_stream_of(s.left, s.right);
        for (const int32_t count : {8, 15, 16, 4096, 65536}) {
            SCOPED_TRACE(testing::Message() << c.channels << " channels, blocks of "
                                            << c.block_bytes << ", " << c.samples << " samples");
            opened_file f(dsf_open, make_dsf(s));
            EXPECT_EQ(read_all(f.file, dsf_read, count), expected);
            uint8_t byte = 0;
            EXPECT_EQ(dsf_read(&f.file, &byte, 8), -1);
        }
    }
    dsf_release();
}

TEST(Dsf, EndsWithTheLastWholePairOfBlocks)
{
    dsf_settings s = settings(64, 16);
    bytes file = make_dsf(s);
    file.resize(92 + 3 * 32 + 31); // the fourth pair lacks a byte
    opened_file f(dsf_open, file);
    s.left.resize(48);
    s.right.resize(48);
    EXPECT_EQ(read_all(f.file, dsf_read, 64), dsd_stream_of(s.left, s.right));
    uint8_t byte = 0;
    EXPECT_EQ(dsf_read(&f.file, &byte, 8), -1);
}

TEST(Dsf, EndsAtOnceWithoutAPairOfBlocks)
{
    dsf_release();
    const bytes good = make_dsf(settings(4096, 4096));
    const struct {
        bytes content;
        int32_t second; // result of the second call
    } cases[] = {
        {bytes(good.begin(), good.begin() + 92), -1},      // no block
        {bytes(good.begin(), good.end() - 1), -1},         // one byte short
        {patched(good, 72, {0xFF, 0xFF, 0xFF, 0x3F}), -1}, // blocks larger than the file
        {patched(good, 72, {0, 0}), 0},                    // blocks of 0 bytes
    };
    std::array<uint8_t, 8> to;
    for (const auto &c : cases) {
        opened_file f(dsf_open, c.content);
        ASSERT_EQ(f.verdict, 0);
        EXPECT_EQ(dsf_read(&f.file, to.data(), 8), 0);
        EXPECT_EQ(dsf_read(&f.file, to.data(), 8), c.second);
    }
    opened_file empty(dsf_open, patched(good, 64, bytes(8, 0)));
    EXPECT_EQ(empty.verdict, 0);
    EXPECT_EQ(dsf_read(&empty.file, to.data(), 8), -1);
    empty.file.dsf_bytes_left = 8;
    EXPECT_EQ(dsf_read(nullptr, to.data(), 8), -1);
    dsf_release();
}

TEST(Dsf, SmallRequestsTakeNothing)
{
    const dsf_settings s = settings(12);
    opened_file f(dsf_open, make_dsf(s));
    std::array<uint8_t, 8> to;
    for (const int32_t count : {7, 1, 0, -1, -8, -9})
        EXPECT_EQ(dsf_read(&f.file, to.data(), count), 0);
    EXPECT_EQ(read_all(f.file, dsf_read), dsd_stream_of(s.left, s.right));
    dsf_release();
}

// The buffer stays with its largest size; what an earlier file left in it is never heard.
TEST(Dsf, FilesOfDifferentBlockSizesFollowEachOther)
{
    for (const uint32_t block_bytes : {64U, 8192U, 4096U, 16U}) {
        for (const size_t length : {40U, 9000U}) {
            const dsf_settings s = settings(length, block_bytes);
            opened_file f(dsf_open, make_dsf(s));
            EXPECT_EQ(read_all(f.file, dsf_read), dsd_stream_of(s.left, s.right));
            opened_file left_early(dsf_open, make_dsf(settings(length, block_bytes)));
            read_once(left_early.file, dsf_read, 24);
        }
    }
    dsf_release();
}

} // namespace
