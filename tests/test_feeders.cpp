// The feeders, fed by a read function of the test's own: forms of samples and devices that no file
// or no device of the played lists has, and the bounds of a call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "sonivane.h"

namespace
{

using bytes = std::vector<uint8_t>;

bytes source;         // what the read function still has to give
soundfile records[2]; // the file and the sentinel

int32_t read_source(soundfile *, uint8_t *to, int32_t count)
{
    const size_t n = std::min(source.size(), static_cast<size_t>(count));
    std::copy_n(source.begin(), n, to);
    source.erase(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(n));
    return static_cast<int32_t>(n);
}

// A list of one file of stereo frames, and a ring in the device's frames.
void set_up(int32_t device_format, int32_t sample_format = 0, int32_t sample_bytes = 0)
{
    const int32_t width =
        snd_pcm_format_physical_width(static_cast<snd_pcm_format_t>(device_format));
    file_list = feeding_file = records;
    records[0].bytes_left = 1;
    records[0].next = &records[1];
    records[0].sample_format = sample_format;
    records[0].sample_bytes = sample_bytes;
    records[0].wave.nBlockAlign = static_cast<int16_t>(2 * sample_bytes);
    records[0].out_sample_bytes = width / 8;
    records[0].out_frame_bytes = width / 4;
    records[1].index = -1;
    output_format = device_format;
    read_samples = read_source;
    ringbuffer_free(&ring);
    ring = ringbuffer_new(1 << 20, static_cast<uint32_t>(width / 4), 1);
}

bytes stored()
{
    return {ring_data(ring), ring_data(ring) + ring->bytes_put};
}

bytes hex(const char *text)
{
    bytes result;
    for (unsigned value = 0; std::sscanf(text, "%2x", &value) == 1; text += text[2] != 0 ? 3 : 2)
        result.push_back(static_cast<uint8_t>(value));
    return result;
}

constexpr int s16 = SND_PCM_FORMAT_S16_LE, s32 = SND_PCM_FORMAT_S32_LE,
              s24_3 = SND_PCM_FORMAT_S24_3LE, dsd_le = SND_PCM_FORMAT_DSD_U32_LE,
              dsd_be = SND_PCM_FORMAT_DSD_U32_BE;

TEST(feeders, native_words_lowest_byte_first)
{
    set_up(dsd_le);
    source = hex("11 22 33 44 55 66 77 88");
    EXPECT_EQ(dsd_feeder(), -1);
    EXPECT_EQ(stored(), hex("77 55 33 11 88 66 44 22"));
}

TEST(feeders, a_call_of_dsd_is_bounded)
{
    const struct {
        int format;
        uint32_t free;
        uint32_t frames;
    } cases[] = {{dsd_be, 2815, 0}, {dsd_be, 2824, 353},    {s32, 2816, 352},
                 {s32, 2824, 352},  {dsd_be, 900000, 3528}, {s32, 900000, 3528}};
    for (const auto &c : cases) {
        set_up(c.format);
        ring->bytes_put = ring->usable_size; // at the start of the data area again
        ring->bytes_sent = c.free + 8;
        source.assign(40000, 0x69);
        EXPECT_EQ(dsd_feeder(), c.frames == 0 ? 0 : -1);
        EXPECT_EQ(ring->bytes_put - ring->usable_size, c.frames * 8) << c.free;
    }
}

TEST(feeders, samples_that_no_container_has)
{
    const struct {
        int format;
        int sample_bytes;
        const char *samples; // left, right
        int device;
        const char *expected;
    } cases[] = {
        {SND_PCM_FORMAT_S24_3BE, 3, "12 34 56 F8 9A BC", s24_3, "56 34 12 BC 9A F8"},
        {SND_PCM_FORMAT_U16_BE, 2, "80 01 00 00", s32, "00 00 01 00 00 00 00 80"},
        {SND_PCM_FORMAT_U32_LE, 4, "01 00 00 80 00 00 00 00", s32, "01 00 00 00 00 00 00 80"},
        {SND_PCM_FORMAT_U24_3LE, 3, "01 00 80 00 00 00", s24_3, "01 00 00 00 00 80"},
        {SND_PCM_FORMAT_FLOAT_BE, 4, "3F 00 00 00 BF 00 00 00", s16, "00 40 00 C0"},
        {SND_PCM_FORMAT_S16_LE, 2, "34 12 78 56", SND_PCM_FORMAT_FLOAT64_LE, ""},
    };
    for (const auto &c : cases) {
        set_up(c.device, c.format, c.sample_bytes);
        source = hex(c.samples);
        EXPECT_EQ(pcm_feeder(), -1);
        EXPECT_EQ(stored(), hex(c.expected)) << c.format << " to " << c.device;
        EXPECT_EQ(pcm_feeder(), -1); // meets the end of the file
        EXPECT_EQ(ring->more_coming, 0);
        EXPECT_EQ(pcm_feeder(), 0);
    }
    set_up(s32, SND_PCM_FORMAT_MU_LAW, 1);
    source = hex("01 02");
    EXPECT_EXIT(pcm_feeder(), testing::ExitedWithCode(533 & 0xFF),
                "ERROR sonivane 533 Unsupported input format 20.");
}

} // namespace
