// The feeders, fed by a read function of the test's own: forms of samples and devices that no file
// or no device of the end-to-end tests has, and the bounds of a call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "sonivane.h"

namespace
{

using bytes = std::vector<uint8_t>;

bytes source;         // what the read function still has to give
soundfile records[3]; // the file, a second one, the sentinel

int32_t read_source(soundfile *, uint8_t *to, int32_t count)
{
    const size_t n = std::min(source.size(), static_cast<size_t>(count));
    std::copy_n(source.begin(), n, to);
    source.erase(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(n));
    return static_cast<int32_t>(n);
}

// A list of one file, and a ring in the device's frames.
void set_up(int32_t device_format, uint32_t ring_bytes = 1 << 20)
{
    const int32_t width =
        snd_pcm_format_physical_width(static_cast<snd_pcm_format_t>(device_format));
    file_list = feeding_file = records;
    records[0].fp = nullptr;
    records[0].index = 0;
    records[0].bytes_left = 1;
    records[0].next = &records[1];
    records[1].index = -1;
    records[0].out_sample_bytes = width / 8;
    records[0].out_frame_bytes = width / 4;
    output_format = device_format;
    read_samples = read_source;
    ringbuffer_free(&ring);
    ring = ringbuffer_new(ring_bytes, static_cast<uint32_t>(width / 4), 1);
    left_cut = right_cut = oversample = 0;
    i2s_mode = 0;
    interrupted = stop_output = 0;
}

bytes stored()
{
    const uint8_t *data = ring_data(ring);
    return {data + ring->bytes_sent, data + ring->bytes_put};
}

bytes hex(const char *text)
{
    bytes result;
    for (unsigned value = 0; std::sscanf(text, "%2x", &value) == 1; text += text[2] != 0 ? 3 : 2)
        result.push_back(static_cast<uint8_t>(value));
    return result;
}

constexpr int s16 = SND_PCM_FORMAT_S16_LE, s32 = SND_PCM_FORMAT_S32_LE, s24 = SND_PCM_FORMAT_S24_LE,
              s24_3 = SND_PCM_FORMAT_S24_3LE, dsd_le = SND_PCM_FORMAT_DSD_U32_LE,
              dsd_be = SND_PCM_FORMAT_DSD_U32_BE;
enum : uint8_t { none = 0, left = 1, right = 2, both = 3 };

TEST(DsdFeeder, PacksEachForm)
{
    const char *chunk = "11 22 33 44 55 66 77 88";
    const struct {
        int format;
        int i2s;
        uint8_t cut;
        const char *expected;
    } cases[] = {
        {dsd_le, 0, none, "77 55 33 11 88 66 44 22"},
        {dsd_be, -1, none, "11 33 55 77 22 44 66 88"},
        {dsd_le, 0, right, "77 55 33 11 AA AA AA AA"},
        {s24_3, 0, none, "33 11 FA 44 22 FA 77 55 05 88 66 05"},
        {s32, 0, right, "00 33 11 FA 00 55 55 FA 00 77 55 05 00 55 55 05"},
        {s16, 0, none, "00 33 11 FA 00 44 22 FA 00 77 55 05 00 88 66 05"},
        {s32, -1, both, "00 00 00 00 00 00 00 00"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.expected);
        set_up(c.format);
        i2s_mode = c.i2s;
        left_cut = c.cut & left;
        right_cut = c.cut & right;
        source = hex(chunk);
        EXPECT_EQ(dsd_feeder(), -1);
        EXPECT_EQ(stored(), hex(c.expected));
        EXPECT_EQ(dsd_feeder(), -1); // the source ran dry: the file ended
        EXPECT_EQ(feeding_file, &records[1]);
        EXPECT_EQ(dsd_feeder(), 0);
    }
    const struct {
        uint8_t cut;
        const char *expected;
    } i2s_words[] = {{none, "55 AA 99 99"}, {right, "00 AA 88 88"}, {left, "55 00 11 11"}};
    for (const auto &c : i2s_words) {
        set_up(s32);
        i2s_mode = -1;
        left_cut = c.cut & left;
        right_cut = c.cut & right;
        source = hex("AA 55 F0 0F 00 00 00 00");
        dsd_feeder();
        EXPECT_EQ(bytes(ring_data(ring), ring_data(ring) + 4), hex(c.expected));
    }
}

TEST(DsdFeeder, WorksInBoundedCallsOnly)
{
    const struct {
        int format;
        uint32_t free;
        size_t frames;
    } cases[] = {{dsd_be, 2815, 0}, {dsd_be, 2824, 353},    {s32, 2816, 352},
                 {s32, 2824, 352},  {dsd_be, 900000, 3528}, {s32, 900000, 3528}};
    for (const auto &c : cases) {
        set_up(c.format);
        ring->bytes_put = ring->usable_size; // at the start of the data area again
        ring->bytes_sent = c.free + 8;
        source.assign(40000, 0x69);
        EXPECT_EQ(dsd_feeder(), c.frames == 0 ? 0 : -1);
        EXPECT_EQ(ring->bytes_put - ring->usable_size, c.frames * 8);
    }
    set_up(dsd_be);
    interrupted = -1;
    EXPECT_EQ(dsd_feeder(), 0);
}

TEST(PcmFeeder, DecodesAndPacksEachWidth)
{
    constexpr int u8 = SND_PCM_FORMAT_U8, s24_be = SND_PCM_FORMAT_S24_3BE,
                  u16_be = SND_PCM_FORMAT_U16_BE, u32_le = SND_PCM_FORMAT_U32_LE,
                  u24 = SND_PCM_FORMAT_U24_3LE, f32 = SND_PCM_FORMAT_FLOAT_LE,
                  f32_be = SND_PCM_FORMAT_FLOAT_BE, f64 = SND_PCM_FORMAT_FLOAT64_LE;
    const struct {
        int format;
        int sample_bytes;
        const char *samples; // left, right
        int device;
        uint8_t cut;
        const char *expected;
    } cases[] = {
        {s24_be, 3, "12 34 56 F8 9A BC", s24_3, none, "56 34 12 BC 9A F8"},
        {u8, 1, "00 81", s16, none, "00 80 00 01"},
        {u16_be, 2, "80 01 00 00", s32, none, "00 00 01 00 00 00 00 80"},
        {u32_le, 4, "01 00 00 80 00 00 00 00", s32, none, "01 00 00 00 00 00 00 80"},
        {u24, 3, "01 00 80 00 00 00", s24_3, none, "01 00 00 00 00 80"},
        {f32, 4, "00 00 80 3F 00 00 80 BF", s32, none, "FF FF FF 7F 00 00 00 80"},
        {f32, 4, "00 00 80 7F 00 00 80 FF", s24_3, none, "FF FF 7F 00 00 80"},
        {f32, 4, "00 00 80 3F 00 00 80 BF", f32, none, "00 00 80 3F 00 00 80 BF"},
        {f32, 4, "00 00 80 3F 00 00 80 BF", f32, left, "00 00 00 00 00 00 80 BF"},
        {f32_be, 4, "3F 00 00 00 BF 00 00 00", s16, none, "00 40 00 C0"},
        {s16, 2, "34 12 78 56", f64, none, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.format << " to " << c.device << ": " << c.samples);
        set_up(c.device);
        records[0].sample_format = c.format;
        records[0].sample_bytes = c.sample_bytes;
        records[0].wave.nBlockAlign = static_cast<int16_t>(2 * c.sample_bytes);
        left_cut = c.cut & left;
        right_cut = c.cut & right;
        source = hex(c.samples);
        EXPECT_EQ(pcm_feeder(), -1);
        EXPECT_EQ(stored(), hex(c.expected));
        EXPECT_NE(ring->more_coming, 0);
        EXPECT_EQ(pcm_feeder(), -1); // meets the end of the file
        EXPECT_EQ(ring->more_coming, 0);
        EXPECT_EQ(pcm_feeder(), 0);
    }
    set_up(s32);
    records[0].sample_format = SND_PCM_FORMAT_MU_LAW;
    source = hex("01 02 03 04 05 06 07 08");
    EXPECT_EXIT(pcm_feeder(), testing::ExitedWithCode(533 & 0xFF),
                "ERROR sonivane 533 Unsupported input format 20.");
}

} // namespace
