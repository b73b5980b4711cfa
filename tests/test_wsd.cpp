// The WSD reader: the fixed header, the channel assignment, frames.
#include "wsd.h"

#include <gtest/gtest.h>

#include "open_bytes.h"

namespace
{

TEST(Wsd, ChannelAssignments)
{
    const struct {
        uint32_t assignment;
        int left; // -1: refused
        int right;
    } cases[] = {
        {0x00000000, 0, 1},  {0x00000001, -1, 0}, {0x00000100, -1, 0}, {0x00010000, -1, 0},
        {0x44000000, 0, 1},  {0x44FFFFFF, 0, 1},  {0x4C000000, 0, 2},  {0x54000000, 0, 2},
        {0x64000000, 0, 2},  {0x74000000, 0, 3},  {0x7C000000, 0, 4},  {0xC7000000, 0, 1},
        {0x28000000, 0, 1},  {0x38000000, 0, 2},  {0x2C000000, 0, 1},  {0x68000000, 1, 0},
        {0x78000000, 1, 0},  {0x45000000, 0, 1},  {0x04000000, -1, 0}, {0x40000000, -1, 0},
        {0x20000000, -1, 0}, {0x08000000, -1, 0}, {0x80000000, -1, 0}, {0x03000000, -1, 0},
        {0x14000000, -1, 0},
    };
    const bytes left = noise(1, 9);
    const bytes right = noise(2, 9);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.assignment);
        const auto left_at = static_cast<size_t>(std::max(c.left, 0));
        const auto right_at = static_cast<size_t>(c.right);
        opened_file f(wsd_open,
                      make_wsd({.channels = 6,
                                .assignment = c.assignment,
                                .frames = dsd_frames(left, right, 6, left_at, right_at)}));
        EXPECT_EQ(f.verdict, c.left < 0 ? -1 : 0);
        if (f.verdict != 0) continue;
        EXPECT_EQ(f.file.channel_map[0], c.left);
        EXPECT_EQ(f.file.channel_map[1], c.right);
        EXPECT_EQ(read_all(f.file, wsd_read), dsd_stream_of(left, right));
    }
}

TEST(Wsd, HeaderRules)
{
    const bytes frames = noise(1, 64);
    const bytes good = make_wsd({.data_offset = 64, .frames = frames});
    const bytes none = make_wsd({.channels = 0, .assignment = 0x7C000000, .frames = frames});
    const struct {
        const char *what;
        bytes content;
        int32_t verdict;
        int64_t length; // bytes of one channel
    } cases[] = {
        {"another tag", patched(good, 0, {'2'}), -1, 0},
        {"2^32 bytes", make_wsd({.data_offset = 0x80, .file_size = int64_t{1} << 32}), 0,
         ((int64_t{1} << 32) - 0x80) / 2},
        {"offset behind the end", make_wsd({.data_offset = 2048, .file_size = 1024}), 0, -512},
        {"negative offset", patched(good, 24, {0x80}), -1, 0},
        {"bytes that nothing is known of", patched(patched(good, 4, noise(3, 8)), 28, noise(4, 8)),
         0, 32},
        {"8 channels", make_wsd({.channels = 8, .frames = frames}), 0, 8},
        {"9 channels", make_wsd({.channels = 9, .frames = frames}), -1, 0},
        {"no channels", none, 0, 0},
        {"right beyond the frame", make_wsd({.channels = 2, .assignment = 0x54000000}), -1, 0},
        {"right last in the frame", make_wsd({.channels = 3, .assignment = 0x54000000}), 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        opened_file f(wsd_open, c.content);
        EXPECT_EQ(f.verdict, c.verdict);
        if (f.verdict != 0) continue;
        EXPECT_EQ(f.file.bytes_left, c.length);
        EXPECT_EQ(f.file.data_bytes, c.length);
        EXPECT_EQ(f.file.wave.nSamplesPerSec, 2822400);
    }
}

TEST(Wsd, OneChannelPlaysOnBothSides)
{
    const bytes frames = noise(1, 13);
    for (const uint32_t assignment : {0U, 0x7C000000U, 0x68000000U}) {
        opened_file f(wsd_open,
                      make_wsd({.channels = 1, .assignment = assignment, .frames = frames}));
        EXPECT_EQ(read_all(f.file, wsd_read), dsd_stream_of(frames, frames));
    }
}

} // namespace
