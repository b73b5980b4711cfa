// The WAV and RF64 reader: what its header gives, what it refuses, and the two channels that it
// hands out.
#include "wav.h"

#include <gtest/gtest.h>

#include "open_bytes.h"

namespace
{

// The first two channels of each whole stored frame; one channel on both sides.
bytes two_channels(const bytes &data, size_t channels, size_t width)
{
    bytes result;
    for (size_t at = 0; at + channels * width <= data.size(); at += channels * width) {
        for (size_t side = 0; side < 2; ++side) {
            const uint8_t *sample = &data[at + std::min(side, channels - 1) * width];
            result.insert(result.end(), sample, sample + width);
        }
    }
    return result;
}

TEST(Wav, DescribesAndDeliversTwoChannels)
{
    const bytes data = noise(1, 720);
    const bytes odd = wav_chunk("LIST", noise(2, 5));
    const wav_settings cases[] = {
        {.data = data},
        {.bits = 8, .data = data},
        {.channels = 1, .data = data},
        {.channels = 6, .bits = 24, .data = data},
        {.channels = 5, .bits = 64, .data = data},
        {.tag = 3, .bits = 32, .data = data},
        {.tag = 0xFFFE, .bits = 32, .valid_bits = 24, .data = data},
        {.tag = 0xFFFE, .format_bytes = 44, .data = data},
        {.format_bytes = 18, .data = data},
        {.before_format = odd, .before_data = odd, .after_data = odd, .data = data},
    };
    for (const wav_settings &s : cases) {
        for (const bool rf64 : {false, true}) {
            SCOPED_TRACE(testing::Message() << "tag " << s.tag << ", " << s.channels << " x "
                                            << s.bits << " bits" << (rf64 ? ", RF64" : ""));
            const auto channels = static_cast<size_t>(s.channels);
            const auto width = static_cast<size_t>(s.bits / 8);
            const bytes expected = two_channels(data, channels, width);
            for (const int32_t count : {static_cast<int32_t>(2 * width), 64, 4096}) {
                opened_file f(wav_open, rf64 ? make_rf64(s) : make_wav(s));
                ASSERT_EQ(f.verdict, 0);
                EXPECT_EQ(f.file.channels, s.channels);
                EXPECT_EQ(f.file.bytes_left, static_cast<int64_t>(720 * 2 / channels));
                EXPECT_EQ(f.file.data_bytes, f.file.bytes_left);
                EXPECT_EQ(f.file.wave.wFormatTag, static_cast<int16_t>(s.tag));
                EXPECT_EQ(f.file.wave.nChannels, 2);
                EXPECT_EQ(f.file.wave.nSamplesPerSec, 44100);
                EXPECT_EQ(f.file.wave.nBlockAlign, static_cast<int16_t>(2 * width));
                EXPECT_EQ(f.file.wave.wBitsPerSample, s.bits);
                EXPECT_EQ(read_all(f.file, wav_read, count), expected);
                EXPECT_EQ(f.file.bytes_left, 0);
            }
        }
    }
}

TEST(Wav, RefusesWhatIsNoSoundFile)
{
    const bytes good = make_wav({.data = noise(1, 16)});
    const bytes rf64 = make_rf64({.data = noise(1, 16)});
    const struct {
        const char *what;
        bytes content;
    } cases[] = {
        {"another start", patched(good, 3, {'X'})},
        {"another form", patched(good, 11, {'X'})},
        {"no \"fmt \"", patched(good, 12, {'f', 'm', 't', 'X'})},
        {"RF64 size word", patched(rf64, 4, {0xFE})},
        {"RF64 form", patched(rf64, 8, {'w'})},
        {"RF64 first chunk", patched(rf64, 12, {'x'})},
        {"RF64 data size", patched(rf64, 28, {17})},
        {"RF64 frame count", patched(rf64, 36, {5})},
        {"\"fmt \" of 45", make_wav({.format_bytes = 45, .data = noise(1, 16)})},
        {"pad byte behind an odd \"fmt \"", make_wav({.format_bytes = 17, .data = noise(1, 16)})},
        {"samples of 32768 bits", make_wav({.channels = 1, .block_align = 4096})},
        // Twice this is below 0 in 64 bits, and a large positive number in the low 32.
        {"RF64 share of 2^64 - 2^32 - 2^31 - 32",
         make_rf64({.channels = 1, .data_size = 0x7FFFFFFF3FFFFFF0, .data = noise(1, 16)})},
    };
    for (const auto &c : cases) EXPECT_EQ(opened_file(wav_open, c.content).verdict, -1) << c.what;
}

TEST(Wav, TakesWhatTheHeaderAllows)
{
    const bytes good = make_wav({.data = noise(1, 16)});
    const bytes rf64 = make_rf64({.data = noise(1, 16)});
    bytes odd_format = patched(make_wav({.format_bytes = 17, .data = noise(1, 16)}), 16, {17});
    odd_format.erase(odd_format.begin() + 37);
    const struct {
        const char *what;
        bytes content;
        int64_t bytes_left;
    } cases[] = {
        {"form size of 0", patched(good, 4, {0, 0, 0, 0}), 16},
        {"odd \"fmt \" without a pad byte", odd_format, 16},
        {"3 GiB of data", make_wav({.data_size = int64_t{3} << 30}), int64_t{3} << 30},
        {"size word of \"data\" in RF64", patched(rf64, 76, {1, 2, 3, 4}), 16},
        {"chunk of 0xFFFFFFFF bytes counts as empty",
         make_wav({.before_data = hex_bytes("4A 55 4E 4B FF FF FF FF"), .data = noise(1, 16)}), 16},
        {"largest share", make_rf64({.channels = 1, .data_size = 0x3FFFFFFFFFFFFFFE}),
         INT64_MAX - 3},
        {"samples of less than a byte",
         make_wav({.channels = 4, .block_align = 3, .data = noise(1, 16)}), 8},
        {"no channels", make_wav({.channels = 0, .block_align = 4, .data = noise(1, 16)}), 0},
    };
    for (const auto &c : cases) {
        opened_file f(wav_open, c.content);
        EXPECT_EQ(f.verdict, 0) << c.what;
        EXPECT_EQ(f.file.bytes_left, c.bytes_left) << c.what;
    }
}

TEST(Wav, EndsWithTheFileOrTheSizeWhicheverComesFirst)
{
    const bytes data = noise(5, 23); // five frames and three bytes
    for (const int channels : {2, 4}) {
        opened_file f(wav_open, make_wav({.channels = channels,
                                          .bits = channels == 2 ? 16 : 8,
                                          .data_size = 400,
                                          .data = data}));
        const int32_t width = channels == 2 ? 2 : 1;
        EXPECT_EQ(read_once(f.file, wav_read, 2 * width - 1), bytes{});
        const int64_t size = f.file.data_bytes;
        EXPECT_EQ(f.file.bytes_left, size);
        EXPECT_EQ(read_once(f.file, wav_read, 3072).size(), static_cast<size_t>(5 * 2 * width));
        EXPECT_EQ(f.file.bytes_left, size - 5 * 2 * width);
        uint8_t byte = 0;
        EXPECT_EQ(wav_read(&f.file, &byte, 3072), -1);
    }
    opened_file f(wav_open, make_wav({.data_size = 11, .data = data}));
    EXPECT_EQ(read_all(f.file, wav_read, 3072), bytes(data.begin(), data.begin() + 8));
    EXPECT_EQ(f.file.bytes_left, 3);
}

} // namespace
