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
    const auto n = std::min(std::ptrdiff_t{count}, std::ssize(source));
    std::copy_n(source.begin(), n, to);
    source.erase(source.begin(), source.begin() + n);
    return static_cast<int32_t>(n);
}

bytes hex(const char *text)
{
    bytes result;
    for (unsigned value = 0; std::sscanf(text, "%2x", &value) == 1; text += text[2] != 0 ? 3 : 2)
        result.push_back(static_cast<uint8_t>(value));
    return result;
}

// What one call of the feeder stores of a stereo file, in a ring of so many free bytes.
bytes fed(feeder_slot feeder, snd_pcm_format_t device, const bytes &content, uint32_t free = 1000,
          int32_t sample_format = 0, int32_t sample_bytes = 0)
{
    const int32_t width = snd_pcm_format_physical_width(device) / 8;
    file_list = feeding_file = records;
    records[0].bytes_left = 1;
    records[0].next = &records[1];
    records[0].sample_format = sample_format;
    records[0].sample_bytes = sample_bytes;
    records[0].wave.nBlockAlign = static_cast<int16_t>(2 * sample_bytes);
    records[0].out_sample_bytes = width;
    records[0].out_frame_bytes = 2 * width;
    records[1].index = -1;
    output_format = device;
    read_samples = read_source;
    source = content;
    const auto frame = static_cast<uint32_t>(2 * width);
    ringbuffer_free(&ring);
    ring = ringbuffer_new(free + frame, frame, 1);
    const bool done = feeder() != 0;
    EXPECT_EQ(done, source.size() < content.size());
    return {ring_data(ring), ring_data(ring) + ring->bytes_put};
}

constexpr auto s16 = SND_PCM_FORMAT_S16_LE, s24_3 = SND_PCM_FORMAT_S24_3LE,
               s32 = SND_PCM_FORMAT_S32_LE, f64 = SND_PCM_FORMAT_FLOAT64_LE,
               dsd_le = SND_PCM_FORMAT_DSD_U32_LE, dsd_be = SND_PCM_FORMAT_DSD_U32_BE;

TEST(feeders, dsd_of_a_call_is_bounded)
{
    const struct {
        snd_pcm_format_t device;
        uint32_t free, frames;
    } rows[] = {{dsd_be, 2808, 0}, {dsd_be, 2824, 353},    {s32, 2816, 352},
                {s32, 2824, 352},  {dsd_be, 900000, 3528}, {s32, 900000, 3528}};
    for (const auto &row : rows)
        EXPECT_EQ(fed(dsd_feeder, row.device, bytes(40000), row.free).size(), row.frames * 8);
    EXPECT_EQ(fed(dsd_feeder, dsd_le, hex("11 22 33 44 55 66 77 88"), 2816),
              hex("77 55 33 11 88 66 44 22"));
}

TEST(feeders, samples_that_no_container_has)
{
    const struct {
        int format, sample_bytes;
        const char *samples; // left, right
        snd_pcm_format_t device;
        const char *expected;
    } rows[] = {
        {SND_PCM_FORMAT_S24_3BE, 3, "12 34 56 F8 9A BC", s24_3, "56 34 12 BC 9A F8"},
        {SND_PCM_FORMAT_U16_BE, 2, "80 01 00 00", s32, "00 00 01 00 00 00 00 80"},
        {SND_PCM_FORMAT_U32_LE, 4, "01 00 00 80 00 00 00 00", s32, "01 00 00 00 00 00 00 80"},
        {SND_PCM_FORMAT_U24_3LE, 3, "01 00 80 00 00 00", s24_3, "01 00 00 00 00 80"},
        {SND_PCM_FORMAT_FLOAT_BE, 4, "3F 00 00 00 BF 00 00 00", s16, "00 40 00 C0"},
        {SND_PCM_FORMAT_S16_LE, 2, "34 12 78 56", f64, ""},
    };
    for (const auto &row : rows) {
        const auto stored =
            fed(pcm_feeder, row.device, hex(row.samples), 1000, row.format, row.sample_bytes);
        EXPECT_EQ(stored, hex(row.expected)) << row.format;
        EXPECT_EQ(pcm_feeder(), -1); // meets the end of the file
        EXPECT_EQ(ring->more_coming, 0);
    }
    EXPECT_EXIT(fed(pcm_feeder, s32, {1, 2}, 1000, SND_PCM_FORMAT_MU_LAW, 1),
                testing::ExitedWithCode(533 & 0xFF), "Unsupported input format 20.");
}

} // namespace
