// What the device must get for a list of files: reckoned from the sound alone, sample by sample,
// with none of the player's code.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "make_files.h"
#include "run_player.h"

// The form of a sample on the device.
struct device_form {
    const char *name; // of the ALSA format
    size_t bytes;     // of a sample
    int padding;      // bits above the sample's in its word
};
inline constexpr device_form s8 = {"S8", 1, 0};
inline constexpr device_form s16_le = {"S16_LE", 2, 0};
inline constexpr device_form s24_3le = {"S24_3LE", 3, 0};
inline constexpr device_form s24_le = {"S24_LE", 4, 8};
inline constexpr device_form s32_le = {"S32_LE", 4, 0};
inline constexpr device_form float_le = {"FLOAT_LE", 4, 0};
inline constexpr device_form dsd_u32_be = {"DSD_U32_BE", 4, 0};

struct cuts {
    bool left;
    bool right;
};

// --- PCM ----------------------------------------------------------------------------------------

// Sound as a WAV file stores it.
struct pcm_sound {
    size_t sample_bytes;
    bool floats;
    size_t channels;
    int rate;
    bytes data;
};

// 2^31 x value, toward zero, saturating.
inline int32_t word_of_float(float value)
{
    if (std::isnan(value)) return 0;
    const double word = std::trunc(static_cast<double>(value) * 2147483648.0);
    return static_cast<int32_t>(std::fmin(std::fmax(word, -2147483648.0), 2147483647.0));
}

// The sample, left-justified and signed.
inline int32_t word_of_sample(const pcm_sound &sound, const uint8_t *sample)
{
    uint32_t word = 0;
    for (size_t i = 0; i < sound.sample_bytes; ++i)
        word |= static_cast<uint32_t>(sample[i]) << 8 * (4 - sound.sample_bytes + i);
    if (sound.sample_bytes == 1) word ^= 0x80000000; // unsigned in the file
    float value = 0;
    std::memcpy(&value, &word, sizeof value);
    return sound.floats ? word_of_float(value) : static_cast<int32_t>(word);
}

inline bytes device_bytes(const pcm_sound &sound, const device_form &device, cuts cut = {})
{
    bytes out;
    const size_t frame = sound.sample_bytes * sound.channels;
    for (size_t at = 0; at + frame <= sound.data.size(); at += frame) {
        for (const bool right : {false, true}) {
            const size_t place = right && sound.channels > 1 ? sound.sample_bytes : 0;
            int32_t word = word_of_sample(sound, &sound.data[at + place]);
            if (right ? cut.right : cut.left) word = 0;
            word >>= device.padding;
            for (size_t i = 4 - device.bytes; i < 4; ++i)
                out.push_back(static_cast<uint8_t>(word >> 8 * i));
        }
    }
    return out;
}

// Random samples; floats in and around -1 to 1, with those that have no place there.
inline pcm_sound random_pcm(size_t sample_bytes, bool floats, size_t channels, int rate,
                            size_t frames, unsigned seed)
{
    pcm_sound sound = {sample_bytes, floats, channels, rate,
                       noise(seed, frames * channels * sample_bytes)};
    if (!floats) return sound;
    const float odd_ones[] = {1.0F, -1.0F, NAN, -NAN, INFINITY, -INFINITY, 1e-40F, 0.9999999F};
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> spread(-1.1F, 1.1F);
    for (size_t i = 0; i < frames * channels; ++i) {
        const float value = i % 16 < 8 ? odd_ones[i % 16] : spread(random);
        std::memcpy(&sound.data[i * 4], &value, 4);
    }
    return sound;
}

// --- DSD ----------------------------------------------------------------------------------------

enum class dsd_packing { native, dop, i2s };

struct dsd_form {
    device_form device;
    dsd_packing packing;
    int bits_per_frame; // of one channel
};
inline constexpr dsd_form native = {dsd_u32_be, dsd_packing::native, 32};
inline constexpr dsd_form dop_s32 = {s32_le, dsd_packing::dop, 16};
inline constexpr dsd_form dop_s24 = {s24_le, dsd_packing::dop, 16};
inline constexpr dsd_form dop_s24_3 = {s24_3le, dsd_packing::dop, 16};
inline constexpr dsd_form i2s = {s32_le, dsd_packing::i2s, 32};

// The low 24 bits at the place where the device's samples lie.
inline void put_dop_sample(bytes &out, const device_form &device, uint32_t sample)
{
    const bool top = device.bytes == 4 && device.padding == 0;
    put_le(out, top ? sample << 8 : sample, static_cast<int>(device.bytes));
}

inline uint8_t dop_marker_of(uint64_t frame)
{
    return frame % 2 == 0 ? 0xFA : 0x05;
}

// A group of 4 bytes of a channel, oldest first, as one number.
inline uint32_t native_word(const uint8_t *stream)
{
    return static_cast<uint32_t>(stream[0] << 24 | stream[2] << 16 | stream[4] << 8 | stream[6]);
}

// 16 bits of left and right in turn, left first.
inline uint32_t i2s_word(uint8_t left, uint8_t right)
{
    uint32_t word = 0;
    for (int bit = 7; bit >= 0; --bit)
        word = word << 2 | static_cast<uint32_t>((left >> bit & 1) << 1 | (right >> bit & 1));
    return word;
}

// stream: left and right bytes in turn, oldest bit highest. dop_frame: of the first DoP frame in
// the whole run without the silence, from 0.
inline bytes device_bytes(const bytes &stream, const dsd_form &form, uint64_t dop_frame = 0,
                          cuts cut = {})
{
    const uint8_t fill = form.packing == dsd_packing::native ? 0xAA
                         : form.packing == dsd_packing::dop  ? 0x55
                                                             : 0;
    bytes in = stream;
    for (size_t i = 0; i < in.size(); ++i)
        if (i % 2 == 0 ? cut.left : cut.right) in[i] = fill;
    bytes out;
    for (size_t at = 0; at < in.size(); at += 4) {
        const uint8_t *b = &in[at];
        if (form.packing == dsd_packing::i2s) {
            put_le(out, i2s_word(b[0], b[1]) << 16 | i2s_word(b[2], b[3]), 4);
        } else if (form.packing == dsd_packing::native) {
            if (at % 8 == 0) put_be(out, native_word(b), 4);
            if (at % 8 == 0) put_be(out, native_word(b + 1), 4);
        } else {
            const uint32_t marker = static_cast<uint32_t>(dop_marker_of(dop_frame++)) << 16;
            for (const int side : {0, 1})
                put_dop_sample(out, form.device,
                               marker | static_cast<uint32_t>(b[side] << 8) | b[side + 2]);
        }
    }
    return out;
}

// An even and an odd frame.
inline bytes silence_of(const dsd_form &form)
{
    if (form.packing == dsd_packing::native) return bytes(16, 0x55);
    if (form.packing == dsd_packing::i2s) return bytes(16, 0x33);
    return device_bytes(bytes(8, 0x55), form);
}

enum class wave_kind { riff, rf64, extensible };

inline bytes wave_file(const pcm_sound &sound, wave_kind kind = wave_kind::riff)
{
    const int code = sound.floats ? 3 : 1;
    const wav_settings settings = {.tag = kind == wave_kind::extensible ? 0xFFFE : code,
                                   .channels = static_cast<int>(sound.channels),
                                   .rate = sound.rate,
                                   .bits = static_cast<int>(sound.sample_bytes * 8),
                                   .sub_format = code,
                                   .before_format = {},
                                   .before_data = {},
                                   .after_data = wav_chunk("LIST", noise(7, 100)),
                                   .data = sound.data};
    return kind == wave_kind::rf64 ? make_rf64(settings) : make_wav(settings);
}

// --- The whole stream ---------------------------------------------------------------------------

inline testing::AssertionResult same_bytes(const bytes &got, const bytes &told)
{
    if (got == told) return testing::AssertionSuccess();
    const auto [at, other] = std::mismatch(got.begin(), got.end(), told.begin(), told.end());
    return testing::AssertionFailure() << got.size() << " bytes for " << told.size()
                                       << ", the first other one at " << at - got.begin();
}

// The run ended in order, and the device got silence for a second, and then the sound: nothing
// before, between or behind. silence is an even and an odd frame of it.
inline void expect_stream(const play_result &result, const device_form &device, int rate,
                          const bytes &silence, const bytes &sound)
{
    EXPECT_EQ(result.status, 0) << result.err;
    const std::string params =
        std::string("params ") + device.name + " rate " + std::to_string(rate) + " ";
    EXPECT_TRUE(log_has(result, params)) << params << " not among\n" << result.err;
    bytes whole;
    const uint64_t preroll = told_preroll(result, static_cast<uint64_t>(rate));
    for (uint64_t frame = 0; frame < preroll; frame += 2) put_bytes(whole, silence);
    put_bytes(whole, sound);
    EXPECT_TRUE(same_bytes(result.capture, whole));
}

inline void expect_dsd_stream(const play_result &result, const dsd_form &form, uint32_t bit_rate,
                              const bytes &sound)
{
    const int rate = static_cast<int>(bit_rate) / form.bits_per_frame;
    expect_stream(result, form.device, rate, silence_of(form), sound);
}

inline void expect_pcm_stream(const play_result &result, const device_form &device, int rate,
                              const bytes &sound)
{
    expect_stream(result, device, rate, bytes(device.bytes * 4, 0), sound);
}
