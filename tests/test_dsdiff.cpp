// The DSDIFF reader: chunks and sub-chunks, the channel list, frames and tails.
#include "dsdiff.h"

#include <gtest/gtest.h>

#include "open_bytes.h"

namespace
{

using names = std::vector<std::string>;

bytes number(uint64_t value, int width)
{
    bytes result;
    put_be(result, value, width);
    return result;
}

bytes joined(std::initializer_list<bytes> parts)
{
    bytes result;
    for (const bytes &part : parts) put_bytes(result, part);
    return result;
}

bytes text(const std::string &s)
{
    return {s.begin(), s.end()};
}

// "CHNL" with a count of its own.
bytes channel_list(const names &channels, int count = -1)
{
    bytes body = number(count >= 0 ? static_cast<uint64_t>(count) : channels.size(), 2);
    for (const std::string &name : channels) put_text(body, name);
    return dsdiff_chunk("CHNL", body);
}

bytes compression(const std::string &name, const std::string &words)
{
    bytes body = text(name);
    body.push_back(static_cast<uint8_t>(words.size()));
    put_text(body, words);
    if (words.size() % 2 == 0) body.push_back(0);
    return dsdiff_chunk("CMPR", body);
}

const bytes version = dsdiff_chunk("FVER", number(0x01050000, 4));
const bytes rate = dsdiff_chunk("FS  ", number(2822400, 4));
const bytes stereo = channel_list({"SLFT", "SRGT"});
const bytes sound = dsdiff_chunk("DSD ", noise(4, 1000));

bytes properties(std::initializer_list<bytes> parts)
{
    return dsdiff_chunk("PROP", joined({text("SND "), joined(parts)}));
}

bytes form(std::initializer_list<bytes> parts)
{
    return dsdiff_chunk("FRM8", joined({text("DSD "), joined(parts)}));
}

// A file with one more property; one with one more chunk before the sound.
bytes with_property(const bytes &chunk)
{
    return form({version, properties({rate, stereo, chunk}), sound});
}
bytes with_chunk(const bytes &chunk)
{
    return form({version, properties({rate, stereo}), chunk, sound});
}

TEST(Dsdiff, HeaderRules)
{
    const bytes good = with_chunk({});
    const bytes minimal = form({properties({rate, stereo}), sound});
    const struct {
        const char *what;
        bytes content;
        int32_t verdict;
    } cases[] = {
        {"as it should be", good, 0},
        {"no version", minimal, 0},
        {"another tag", patched(good, 3, {'9'}), -1},
        {"another form", patched(good, 15, {'X'}), -1},
        {"any version", patched(good, 28, bytes(4, 0xFF)), 0},
        {"version of 8 bytes",
         form({dsdiff_chunk("FVER", bytes(8)), properties({rate, stereo}), sound}), -1},
        {"another property type", patched(minimal, 28, text("snd ")), -1},
        {"empty properties", form({properties({}), properties({rate, stereo}), sound}), 0},
        {"rate of 3 bytes", with_property(dsdiff_chunk("FS  ", bytes(3))), -1},
        {"rate of 8 bytes", with_property(dsdiff_chunk("FS  ", bytes(8))), -1},
        {"no rate", form({properties({stereo}), sound}), -1},
        {"no channels", form({properties({rate}), sound}), -1},
        {"sound before the properties", form({sound, properties({rate, stereo})}), -1},
        {"properties apart", form({properties({rate}), properties({stereo}), sound}), 0},
        {"no sound", form({version, properties({rate, stereo})}), -1},
        {"time", with_property(dsdiff_chunk("ABSS", bytes(8))), 0},
        {"time of 6 bytes", with_property(dsdiff_chunk("ABSS", bytes(6))), -1},
        {"layout", with_property(dsdiff_chunk("LSCO", bytes(2))), 0},
        {"layout of 4 bytes", with_property(dsdiff_chunk("LSCO", bytes(4))), -1},
        {"unknown properties, odd ones too",
         with_property(joined({dsdiff_chunk("ODD ", bytes(5)), dsdiff_chunk("EVEN", bytes(6))})),
         0},
        {"text of 14", with_property(compression("DSD ", "not compressed")), 0},
        {"text of 3", with_property(compression("DSD ", "raw")), 0},
        {"text of 0", with_property(compression("DSD ", "")), 0},
        {"DST as a property", with_property(compression("DST ", "DST Encoded")), 0},
        {"another compression", with_property(compression("MP3 ", "no")), -1},
        {"odd comment", with_chunk(dsdiff_chunk("COMT", bytes(5))), 0},
        {"unknown chunk", with_chunk(dsdiff_chunk("DIIN", bytes(6))), 0},
        {"DST sound", with_chunk(dsdiff_chunk("DST ", bytes(6))), -1},
        {"DST index", with_chunk(dsdiff_chunk("DSTI", bytes(6))), -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        opened_file f(dsdiff_open, c.content);
        EXPECT_EQ(f.verdict, c.verdict);
        if (c.verdict != 0) continue;
        EXPECT_EQ(f.file.bytes_left, 4000);
        EXPECT_EQ(f.file.data_bytes, 4000);
        EXPECT_EQ(f.file.wave.nSamplesPerSec, 2822400);
        EXPECT_EQ(std::ftell(f.file.fp), static_cast<long>(c.content.size() - 1000));
    }
}

// Sizes that lie. A walk past its end runs on until a read fails; none of them meets a header
// twice.
TEST(Dsdiff, SizesThatLie)
{
    const bytes good = with_chunk(dsdiff_chunk("COMT", bytes(6)));
    const size_t comment = find_text(good, "COMT") + 4;
    const size_t property = find_text(good, "PROP") + 4;
    const struct {
        const char *what;
        bytes content;
        int32_t verdict;
    } cases[] = {
        {"backward", patched(good, comment, number(UINT64_MAX - 11, 8)), -1},
        {"2^64 - 1", patched(good, comment, bytes(8, 0xFF)), -1},
        {"2^63 - 1", patched(good, comment, number(INT64_MAX, 8)), -1},
        {"beyond the end", patched(good, comment, number(100000, 8)), -1},
        {"form of 0 bytes", patched(good, 4, bytes(8)), 0},
        {"form of 3 bytes", patched(good, 4, number(3, 8)), 0},
        {"form that ends at its first chunk", patched(good, 4, number(4, 8)), -1},
        {"properties of 0 bytes", patched(good, property, bytes(8)), -1},
        {"properties one byte too long", patched(good, property, number(1000, 8)), -1},
        {"sound of 0 bytes", patched(good, good.size() - 1008, bytes(8)), 0},
        {"sound of 2^64 - 1", patched(good, good.size() - 1008, bytes(8, 0xFF)), 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(opened_file(dsdiff_open, c.content).verdict, c.verdict) << c.what;
}

TEST(Dsdiff, ChannelLists)
{
    const struct {
        names channels;
        int left; // -1: refused
        int right;
    } cases[] = {
        {{"SLFT", "SRGT"}, 0, 1},
        {{"SRGT", "SLFT"}, 1, 0},
        {{"MLFT", "MRGT", "C   ", "LFE ", "LS  ", "RS  "}, 0, 1},
        {{"C   ", "SLFT", "SRGT"}, 1, 2},
        {{"C   ", "LFE ", "MRGT", "MLFT"}, 3, 2},
        {{"LS  ", "RS  "}, 0, 1},
        {{"C   ", "LFE "}, 0, 1},
        {{"SRGT", "LFE ", "SLFT"}, 2, 0},         // a right channel found before place 1 stays
        {{"SLFT", "SRGT", "SRGT", "SLFT"}, 3, 2}, // the last one counts
        {{"SRGT", "LS  "}, 1, 0},
        {{"LS  ", "SLFT"}, 1, 0},
        {{"SLFT", "SLFT"}, 1, 0},
        {{"SRGT", "SRGT"}, 0, 1},
        {{"SLFT", "slft"}, -1, 0},
        {{"SLFT"}, -1, 0},
        {{}, -1, 0},
        {{"SLFT", "SRGT", "C   ", "LFE ", "LS  ", "RS  ", "C   "}, -1, 0},
    };
    for (const auto &c : cases) {
        testing::Message trace;
        for (const std::string &name : c.channels) trace << name << '|';
        SCOPED_TRACE(trace);
        const size_t count = c.channels.size();
        const bytes left = noise(1, 9);
        const bytes right = noise(2, 9);
        const bytes frames = c.left < 0
                                 ? bytes(24)
                                 : dsd_frames(left, right, count, static_cast<size_t>(c.left),
                                              static_cast<size_t>(c.right));
        opened_file f(dsdiff_open, make_dsdiff({.channels = c.channels, .frames = frames}));
        EXPECT_EQ(f.verdict, c.left < 0 ? -1 : 0);
        if (f.verdict != 0) continue;
        EXPECT_EQ(f.file.channels, static_cast<int32_t>(count));
        EXPECT_EQ(f.file.channel_map[0], c.left);
        EXPECT_EQ(f.file.channel_map[1], c.right);
        EXPECT_EQ(f.file.bytes_left, 9 * 8);
        EXPECT_EQ(read_all(f.file, dsdiff_read), dsd_stream_of(left, right));
    }
    const names two = {"SLFT", "SRGT"};
    for (const bytes &list :
         {channel_list(two, 3), dsdiff_chunk("CHNL", number(2, 2)),
          dsdiff_chunk("CHNL", joined({number(2, 2), text("SLFTSRGT"), {0, 0}}))})
        EXPECT_EQ(opened_file(dsdiff_open, with_property(list)).verdict, -1);
    const bytes repeated = form(
        {properties({rate, channel_list({"C   ", "LS  ", "RS  "}), channel_list({"SRGT", "SLFT"})}),
         sound});
    opened_file f(dsdiff_open, repeated);
    EXPECT_EQ(f.file.channel_map[0], 1);
    EXPECT_EQ(f.file.channel_map[1], 0);
    EXPECT_EQ(f.file.bytes_left, 4000);
}

// The sound ends with the file: a part of a frame is dropped, what stands behind is read as sound.
TEST(Dsdiff, ReadsToTheEndOfTheFile)
{
    for (size_t frames = 0; frames < 18; ++frames) {
        for (const size_t channels : {2U, 3U, 6U}) {
            const bytes left = noise(1, frames);
            const bytes right = noise(2, frames);
            bytes content = dsd_frames(left, right, channels);
            content.resize(content.size() + channels - 1, 0xEE);
            names list = {"SLFT", "SRGT", "C   ", "LFE ", "LS  ", "RS  "};
            list.resize(channels);
            for (const int32_t count : {8, 15, 24, 4096}) {
                opened_file f(dsdiff_open, make_dsdiff({.channels = list, .frames = content}));
                f.file.bytes_left = 1; // not looked at
                // The pad byte behind an odd number of frame bytes completes a frame.
                if (content.size() % 2 != 0) {
                    const bytes even = read_all(f.file, dsdiff_read, count);
                    EXPECT_EQ(even.size(), (frames + 1 + 3) / 4 * 8);
                    continue;
                }
                EXPECT_EQ(read_all(f.file, dsdiff_read, count), dsd_stream_of(left, right));
                uint8_t byte = 0;
                EXPECT_EQ(dsdiff_read(&f.file, &byte, 8), -1);
            }
        }
    }
    opened_file f(dsdiff_open, form({properties({rate, stereo}), dsdiff_chunk("DSD ", noise(1, 4)),
                                     dsdiff_chunk("MANF", {})}));
    EXPECT_EQ(read_all(f.file, dsdiff_read), joined({noise(1, 4), text("MANF"), bytes(8)}));
}

TEST(Dsdiff, SmallRequestsTakeNothing)
{
    const bytes frames = noise(3, 24);
    opened_file f(dsdiff_open, make_dsdiff({.frames = frames}));
    std::array<uint8_t, 8> to;
    for (const int32_t count : {7, 1, 0, -1, -9})
        EXPECT_EQ(dsdiff_read(&f.file, to.data(), count), 0);
    EXPECT_EQ(read_all(f.file, dsdiff_read), frames);
    EXPECT_EQ(dsdiff_read(nullptr, to.data(), 8), -1);
    soundfile closed{};
    EXPECT_EQ(dsdiff_read(&closed, to.data(), 8), -1);
}

} // namespace
