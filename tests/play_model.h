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
    for (uint64_t frame = told_preroll(result, static_cast<uint64_t>(rate)); frame > 0; frame -= 2)
        put_bytes(whole, silence);
    put_bytes(whole, sound);
    EXPECT_TRUE(same_bytes(result.capture, whole));
}

inline void expect_pcm_stream(const play_result &result, const device_form &device, int rate,
                              const bytes &sound)
{
    expect_stream(result, device, rate, bytes(device.bytes * 4, 0), sound);
}
