// The DSDIFF reader: chunks and sub-chunks, the channel list, frames and tails.
#include "dsdiff.h"

#include <gtest/gtest.h>

#include "open_bytes.h"

namespace
{

using names = std::vector<std::string>;

// "CHNL" with a count of its own.
bytes channel_list(const names &channels, int count = -1)
{
    bytes body = be(count >= 0 ? static_cast<uint64_t>(count) : channels.size(), 2);
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

const bytes version = dsdiff_chunk("FVER", be(0x01050000, 4));
const bytes rate = dsdiff_chunk("FS  ", be(2822400, 4));
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
        {"no version", minimal, 0},
        {"another tag", patched(good, 3, {'9'}), -1},
        {"another form", patched(good, 15, {'X'}), -1},
        {"any version", patched(good, 28, bytes(4, 0xFF)), 0},
        {"another property type", patched(minimal, 28, text("snd ")), -1},
        {"rate of 3 bytes", with_property(dsdiff_chunk("FS  ", bytes(3))), -1},
        {"rate of 8 bytes", with_property(dsdiff_chunk("FS  ", bytes(8))), -1},
        {"no rate", form({properties({stereo}), sound}), -1},
        {"two bytes less told than the list has", patched(patched(minimal, 27, {40}), 59, {8}), -1},
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
        {"text of 3", with_property(compression("DSD ", "raw")), 0},
        {"text of 0", with_property(compression("DSD ", "")), 0},
        {"DST as a property", with_property(compression("DST ", "DST Encoded")), 0},
        {"another compression", with_property(compression("MP3 ", "no")), -1},
        {"version of 8 bytes", with_chunk(dsdiff_chunk("FVER", bytes(8))), -1},
        {"comment beyond the end", with_chunk(joined({text("COMT"), be(100000, 8)})), -1},
        {"form of 3 bytes", patched(good, 4, be(3, 8)), 0},
        {"form that ends at its first chunk", patched(good, 4, be(4, 8)), -1},
        {"properties of 0 bytes", patched(minimal, 20, bytes(8)), -1},
        {"properties that go on", patched(minimal, 20, be(1000, 8)), -1},
        {"DST sound", with_chunk(dsdiff_chunk("DST ", bytes(6))), -1},
        {"DST index", with_chunk(dsdiff_chunk("DSTI", bytes(6))), -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        opened_file f(dsdiff_open, c.content);
        EXPECT_EQ(f.verdict, c.verdict);
        if (c.verdict != 0) continue;
        EXPECT_EQ(f.file.bytes_left, 500);
        EXPECT_EQ(f.file.data_bytes, 500);
        EXPECT_EQ(f.file.wave.nSamplesPerSec, 2822400);
        EXPECT_EQ(std::ftell(f.file.fp), static_cast<long>(c.content.size() - 1000));
    }
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
        SCOPED_TRACE(testing::PrintToString(c.channels));
        const size_t count = c.channels.size();
        const bytes left = noise(1, 9);
        const bytes right = noise(2, 9);
        const bytes frames =
            dsd_frames(left, right, std::max(count, size_t{2}),
                       static_cast<size_t>(std::max(c.left, 0)), static_cast<size_t>(c.right));
        opened_file f(dsdiff_open, make_dsdiff({.channels = c.channels, .frames = frames}));
        EXPECT_EQ(f.verdict, c.left < 0 ? -1 : 0);
        if (f.verdict != 0) continue;
        EXPECT_EQ(f.file.channels, static_cast<int32_t>(count));
        EXPECT_EQ(f.file.channel_map[0], c.left);
        EXPECT_EQ(f.file.channel_map[1], c.right);
        EXPECT_EQ(f.file.bytes_left, 9);
        EXPECT_EQ(read_all(f.file, dsdiff_read), dsd_stream_of(left, right));
    }
    const names two = {"SLFT", "SRGT"};
    for (const bytes &list : {channel_list(two, 3), dsdiff_chunk("CHNL", be(2, 2)),
                              dsdiff_chunk("CHNL", joined({be(2, 2), text("SLFTSRGT"), {0, 0}}))})
        EXPECT_EQ(opened_file(dsdiff_open, with_property(list)).verdict, -1);
    const bytes repeated = form(
        {properties({rate, channel_list({"C   ", "LS  ", "RS  "}), channel_list({"SRGT", "SLFT"})}),
         sound});
    opened_file f(dsdiff_open, repeated);
    EXPECT_EQ(f.file.channel_map[0], 1);
    EXPECT_EQ(f.file.channel_map[1], 0);
    EXPECT_EQ(f.file.bytes_left, 500);
}

// The sound ends with the file: a part of a frame is dropped, what stands behind is read as sound.
TEST(Dsdiff, ReadsToTheEndOfTheFile)
{
    for (size_t frames = 0; frames < 18; ++frames) {
        for (const size_t channels : {2U, 3U, 6U}) {
            const bytes left = noise(1, frames);
            const bytes right = noise(2, frames);
            bytes content = dsd_frames(left, right, channels);
            names list = {"SLFT", "SRGT", "C   ", "LFE ", "LS  ", "RS  "};
            list.resize(channels);
            bytes file = make_dsdiff({.channels = list, .frames = content});
            if (content.size() % 2 != 0) file.pop_back(); // no pad byte
            file.resize(file.size() + channels - 1, 0xEE);
            for (const int32_t count : {8, 15, 24, 4096}) {
                opened_file f(dsdiff_open, file);
                f.file.bytes_left = 1; // not looked at
                EXPECT_EQ(read_all(f.file, dsdiff_read, count), dsd_stream_of(left, right));
                EXPECT_EQ(dsdiff_read(&f.file, content.data(), 8), -1);
            }
        }
    }
    opened_file f(dsdiff_open, joined({with_chunk({}), text("MANFMA")}));
    EXPECT_EQ(read_all(f.file, dsdiff_read).size(), 1008U);
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
