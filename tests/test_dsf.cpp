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
        {"first tag", patched(good, 3, {'X'}), -1, ""},
        {"second tag", patched(good, 28, {'F'}), -1, ""},
        {"third tag", patched(good, 80, {'D'}), -1, ""},
        {"longer chunks", patched(good, 16, noise(3, 12)), 0, ""},
        {"first chunk beyond the end", patched(good, 4, {0, 0, 0, 0, 1}), -1,
         "\nERROR readwrite 223 read() 4 bytes failed.\n"},
        {"format chunk beyond all offsets", patched(good, 39, {0x80}), -1, ""},
        {"sizes that wrap to the data chunk", patched(good, 32, bytes(8, 0xFF)), -1, ""},
        {"version", patched(good, 40, {2, 0xFF}), 0, ""},
        {"format id", patched(good, 44, {1}), -1, ""},
        {"channel type", patched(good, 48, bytes(4, 0xFF)), 0, ""},
        {"one channel", patched(good, 52, {1}), -1, ""},
        {"bits per sample of 0", patched(good, 60, {0}), 0, ""},
        {"bits per sample of 8", patched(good, 60, {8}), -1, ""},
        {"block size of 2048", patched(good, 72, {0, 8}), 0, block_report + "2048\n"},
        {"block size of 2^31", patched(good, 72, {0, 0, 0, 0x80}), -1,
         block_report + "-2147483648\n"},
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
    EXPECT_EQ(f.file.bytes_left, 100);
    EXPECT_EQ(f.file.data_bytes, 100);
    EXPECT_EQ(f.file.wave.nSamplesPerSec, 5644800);
    EXPECT_EQ(std::ftell(f.file.fp), 40 + 61 + 12);
    dsf_release();
}

TEST(Dsf, TurnsTheBitsOfEveryByte)
{
    bytes all(256);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
    const bytes file = make_dsf({.block_bytes = 256, .left = all, .right = all});
    opened_file f(dsf_open, patched(file, 92, all)); // the left block is not turned
    const bytes delivered = read_all(f.file, dsf_read, 512);
    ASSERT_EQ(delivered.size(), 512U);
    const bytes known = hex_bytes("01 80 03 C0 96 69 FF FF 50 0A 47 E2");
    for (size_t i = 0; i < known.size(); ++i) EXPECT_EQ(delivered[2U * known[i]], known[i ^ 1]);
    for (size_t i = 0; i < 256; ++i) EXPECT_EQ(delivered[2 * i + 1], i);
}

// Lengths that end inside a byte, a group of 8, a block; every size of request gives the same.
TEST(Dsf, DeliversUpToTheLastSample)
{
    const struct {
        uint32_t channels;
        uint32_t block_bytes;
        int64_t samples;
    } cases[] = {
        {2, 64, 1},      {2, 64, 797},         {2, 64, 64 * 8},
        {2, 64, 65 * 8}, {6, 16, 100 * 8 - 3}, {3, 1, 23 * 8},
        {2, 3, 13 * 8},  {2, 4096, 8192 * 8},  {6, 4096, 4099 * 8},
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
            for (const int32_t small : {7, 0, -1, -9})
                EXPECT_EQ(dsf_read(&f.file, nullptr, small), 0);
            EXPECT_EQ(read_all(f.file, dsf_read, count), expected);
            uint8_t byte = 0;
            EXPECT_EQ(dsf_read(&f.file, &byte, 8), -1);
        }
    }
    dsf_release();
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
