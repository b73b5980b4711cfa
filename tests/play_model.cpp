#include "play_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <span>
#include <utility>

// --- Sound --------------------------------------------------------------------------------------

pcm_sound random_pcm(int rate, size_t frames, uint32_t seed, sample_row sample, size_t channels)
{
    pcm_sound sound = {sample, channels, rate, noise(seed, frames * channels * sample.bytes)};
    if (!sample.floats) return sound;
    const float odd_ones[] = {1.0F, -1.0F, NAN, -NAN, INFINITY, -INFINITY, 1e-40F, 0.9999999F};
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> spread(-1.1F, 1.1F);
    for (size_t i = 0; i < frames * channels; ++i) {
        const float value = i % 16 < 8 ? odd_ones[i % 16] : spread(random);
        std::memcpy(&sound.data[i * 4], &value, 4);
    }
    return sound;
}

bytes wave_file(const pcm_sound &sound, wave_kind kind)
{
    const int code = sound.sample.floats ? 3 : 1;
    const wav_settings settings = {.tag = kind == wave_kind::extensible ? 0xFFFE : code,
                                   .channels = static_cast<int>(sound.channels),
                                   .rate = sound.rate,
                                   .bits = static_cast<int>(sound.sample.bytes * 8),
                                   .sub_format = code,
                                   .before_format = {},
                                   .before_data = {},
                                   .after_data = wav_chunk("LIST", noise(7, 100)),
                                   .data = sound.data};
    return kind == wave_kind::rf64 ? make_rf64(settings) : make_wav(settings);
}

std::string scratch_wave(const std::string &name, int rate, size_t frames, uint32_t seed)
{
    return scratch_file(name, wave_file(random_pcm(rate, frames, seed)));
}

dsd_sound random_dsd(size_t bytes_per_channel, uint32_t seed, uint32_t rate)
{
    return {noise(seed, bytes_per_channel), noise(seed + 1000, bytes_per_channel), rate};
}

const std::array<bytes (*)(const dsd_sound &), 3> dsd_containers = {
    [](const dsd_sound &s) { // the sample count ends inside a byte
        const int64_t bits = std::ssize(s.left) * 8;
        return make_dsf({.rate = s.rate,
                         .sample_count = std::max(bits - 3, int64_t{0}),
                         .left = s.left,
                         .right = s.right});
    },
    [](const dsd_sound &s) { // the right channel is stored first
        return make_dsdiff({.channels = {"SRGT", "SLFT"},
                            .rate = s.rate,
                            .frames = dsd_frames(s.left, s.right, 2, 1, 0)});
    },
    [](const dsd_sound &s) { // a third channel is stored between left and right
        return make_wsd({.channels = 3,
                         .rate = s.rate,
                         .assignment = 0x54000000,
                         .frames = dsd_frames(s.left, s.right, 3, 0, 2)});
    }};

namespace
{

// --- What the device gets of PCM ----------------------------------------------------------------

// The stored sample as a left-justified word: a signed integer, or the bits of a float.
uint32_t stored_word(const pcm_sound &sound, const uint8_t *sample)
{
    const size_t width = sound.sample.bytes;
    uint32_t word = 0;
    for (size_t i = 0; i < width; ++i)
        word |= static_cast<uint32_t>(sample[i]) << 8 * (4 - width + i);
    return width == 1 ? word ^ 0x80000000 : word; // unsigned in the file
}

// The sample that the device gets for a word: its top bytes, or, as a float, the word times 2^-31.
uint32_t device_word(uint32_t word, bool is_float, const stream_form &form)
{
    if (form.floats && is_float) return word;
    float value = 0;
    std::memcpy(&value, &word, sizeof value);
    auto number = static_cast<int32_t>(word);
    if (is_float) { // 2^31 x value, rounded toward zero and saturated
        const double wide = std::isnan(value) ? 0 : std::trunc(double{value} * 2147483648.0);
        number = static_cast<int32_t>(std::clamp(wide, -2147483648.0, 2147483647.0));
    }
    if (!form.floats) return static_cast<uint32_t>(number >> form.padding);
    value = static_cast<float>(number) * 0x1p-31F;
    std::memcpy(&word, &value, sizeof word);
    return word;
}

} // namespace

bytes device_bytes(const pcm_sound &sound, const stream_form &form, cuts cut)
{
    bytes out;
    const size_t frame = sound.sample.bytes * sound.channels;
    for (size_t at = 0; at + frame <= sound.data.size(); at += frame) {
        for (const bool right : {false, true}) {
            const uint8_t *sample = &sound.data[at];
            if (right && sound.channels > 1) sample += sound.sample.bytes;
            uint32_t word = device_word(stored_word(sound, sample), sound.sample.floats, form);
            if (right ? cut.right : cut.left) word = 0;
            put_le(out, word >> 8 * (4 - form.bytes), static_cast<int>(form.bytes));
        }
    }
    return out;
}

namespace
{

// --- What the device gets of DSD ----------------------------------------------------------------

// Four bytes of a channel as one number, the oldest byte highest.
uint32_t native_word(const uint8_t *stream)
{
    return static_cast<uint32_t>(stream[0] << 24 | stream[2] << 16 | stream[4] << 8 | stream[6]);
}

// Two bytes, whose bits alternate in the result, a bit of left first.
uint32_t i2s_word(uint8_t left, uint8_t right)
{
    uint32_t word = 0;
    for (int bit = 7; bit >= 0; --bit)
        word = word << 2 | static_cast<uint32_t>((left >> bit & 1) << 1 | (right >> bit & 1));
    return word;
}

// stream: left and right bytes in turn, in groups of 8. Each group starts with the first marker.
bytes packed(const bytes &stream, const stream_form &form)
{
    // A device of 8 or 16 bits still gets 4-byte DoP samples, which take several of its frames.
    const int width = form.bytes < 3 ? 4 : static_cast<int>(form.bytes);
    const int below = width == 4 && form.padding == 0 ? 8 : 0; // unused bits below the sample
    bytes out;
    for (size_t at = 0; at < stream.size(); at += 4) {
        const uint8_t *b = &stream[at];
        if (form.kind == packing::i2s) {
            put_le(out, i2s_word(b[0], b[1]) << 16 | i2s_word(b[2], b[3]), 4);
        } else if (form.kind == packing::native) {
            if (at % 8 == 0) put_be(out, native_word(b), 4);
            if (at % 8 == 0) put_be(out, native_word(b + 1), 4);
        } else {
            const uint32_t marker = (at % 8 == 0 ? 0xFAU : 0x05U) << 16;
            for (const uint8_t *side : {b, b + 1})
                put_le(out, (marker | uint32_t{side[0]} << 8 | side[2]) << below, width);
        }
    }
    return out;
}

// Two frames, the first one even and the second one odd.
bytes silence_of(const stream_form &form)
{
    if (form.kind == packing::pcm) return bytes(form.bytes * 4, 0);
    if (form.kind == packing::dop) return packed(bytes(8, 0x55), form);
    return bytes(16, form.kind == packing::native ? 0x55 : 0x33);
}

} // namespace

bytes device_bytes(const dsd_sound &sound, const stream_form &form, cuts cut)
{
    const uint8_t fill = form.kind == packing::native ? 0xAA : form.kind == packing::i2s ? 0 : 0x55;
    bytes stream = dsd_stream_of(sound.left, sound.right);
    for (size_t i = 0; i < stream.size(); ++i)
        if (i % 2 == 0 ? cut.left : cut.right) stream[i] = fill;
    return packed(stream, form);
}

play_settings settings_for(const stream_form &form, std::vector<std::string> arguments)
{
    play_settings settings = {.arguments = std::move(arguments),
                              .capture = {{"FORMATS", form.name}}};
    if (form.kind != packing::i2s) return settings;
    shared_block()->state = -1; // the state I2S: no signal is sent
    return beside_controller(settings);
}

// --- The whole stream ---------------------------------------------------------------------------

namespace
{

constexpr uint64_t silence_frames = 8192; // size of the player's block of silence
constexpr uint64_t nearly_full = 1025;    // with so many free frames the player does not write

// Frames that the device got from one start of the sound to the next.
struct stretch {
    uint64_t silence, sound;
};

// Computed from the writes that the device took. A stretch begins with silence. Unless the device
// stops during it, that is an even number of frames, at least rate, in no more writes than needed.
std::vector<stretch> logged_stretches(const play_result &result, uint64_t rate)
{
    std::vector<stretch> stretches = {{}};
    for (const std::string &line : result.log) {
        uint64_t asked = 0, taken = 0, room = 0;
        if (line.starts_with("prepare after ") && !line.starts_with("prepare after 0 "))
            stretches.push_back({});
        auto &[sent, sound] = stretches.back();
        if (std::sscanf(line.c_str(), "write %" SCNu64 " took %" SCNu64 " room %" SCNu64, &asked,
                        &taken, &room) != 3)
            continue;
        EXPECT_TRUE(room > nearly_full && asked < room) << "more than the room allows: " << line;
        if (sent % 2 == 0 && sent >= rate) {
            sound += taken;
            continue;
        }
        EXPECT_TRUE(sent % 2 == 0 ? asked % 2 == 0 && asked <= silence_frames : asked == 1)
            << "silence not in pairs: " << line;
        sent += taken;
    }
    return stretches;
}

// Appends the silence that comes before the sound. Under DoP the last marker of the silence differs
// from the first marker of the sound.
void put_silence(bytes &out, uint64_t frames, const stream_form &form,
                 std::span<const uint8_t> sound)
{
    const size_t frame = 2 * form.bytes,
                 marker = form.bytes - 1 - static_cast<size_t>(form.padding) / 8;
    bytes pair = silence_of(form);
    if (form.kind == packing::dop && !sound.empty() && sound[marker] == pair[frame + marker])
        std::rotate(pair.begin(), pair.begin() + static_cast<std::ptrdiff_t>(frame), pair.end());
    for (uint64_t i = 0; i < frames * frame; ++i)
        out.push_back(pair[static_cast<size_t>(i % pair.size())]);
}

} // namespace

void expect_stream(const play_result &result, const stream_form &form, int64_t file_rate,
                   const bytes &sound, bool whole, const named_parts &parts)
{
    const int64_t divisor = form.kind == packing::pcm ? 1 : form.kind == packing::dop ? 16 : 32;
    const auto rate = static_cast<uint64_t>(file_rate / divisor);
    const size_t frame = 2 * form.bytes;
    bytes expected;
    std::span<const uint8_t> rest = sound;
    std::ptrdiff_t silence = 0; // bytes of silence in the first stretch
    const auto stretches = logged_stretches(result, rate);
    for (const auto &[silent, sounding] : stretches) {
        put_silence(expected, silent, form, rest);
        if (silence == 0) silence = std::ssize(expected);
        const bool last = &silent == &stretches.back().silence;
        const auto part = rest.first(
            last ? rest.size() : std::min(rest.size(), static_cast<size_t>(sounding) * frame));
        expected.insert(expected.end(), part.begin(), part.end());
        rest = rest.subspan(part.size());
    }
    if (whole) {
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(all_sounded(result)); // not only taken
        const auto frames = expected.size() / frame;
        EXPECT_TRUE(log_has(result, "runs on after " + std::to_string(frames)));
    } else {
        expected.resize(std::min(expected.size(), result.capture.size()));
    }
    if (!result.capture.empty()) {
        EXPECT_TRUE(log_has(result, std::string("params ") + form.name + " rate " +
                                        std::to_string(rate) + " channels 2 "));
    }
    if (result.capture == expected) return;
    const auto at = std::ranges::mismatch(result.capture, expected).in1 - result.capture.begin();
    const auto part = std::prev(
        parts.upper_bound(static_cast<size_t>(std::max(at - silence, std::ptrdiff_t{0}))));
    unsigned long sent = 0, taken = 0; // bytes, frames
    std::string write;
    for (const std::string &line : result.log)
        if (std::cmp_less_equal(sent, at) &&
            std::sscanf(line.c_str(), "write %*u took %lu", &taken) == 1)
            sent += taken * frame, write = line;
    ADD_FAILURE() << result.err << form.name << ": " << result.capture.size() << " bytes, expected "
                  << expected.size() << ", first difference at byte "
                  << at - silence - static_cast<long>(part->first) << " of " << part->second
                  << ", in: " << write;
}

// --- Mixed lists --------------------------------------------------------------------------------

mixed_list make_mixed_list(const stream_form &form, size_t files, size_t most_frames, cuts cut)
{
    static int lists;
    const std::string name = "list" + std::to_string(++lists);
    mixed_list list = {name, form.kind == packing::pcm ? 8000 : 256000, {}, {}};
    std::mt19937 random(1);
    for (uint32_t i = 0; i < files; ++i) {
        std::string kind;
        bytes file, played;
        const bool dsd = i == 0 ? form.kind != packing::pcm : random() % 2 == 0;
        const auto rate =
            static_cast<uint32_t>(list.rate) + static_cast<uint32_t>(i == 0 ? 0 : random() % 1000);
        const size_t frames = random() % (most_frames + 1);
        if (dsd) {
            const auto sound = random_dsd(frames * 2 + random() % 2, i, rate);
            const size_t container = random() % 3;
            kind = std::array{"dsf", "dff", "wsd"}[container];
            file = dsd_containers[container](sound);
            played = device_bytes(sound, form, cut);
        } else {
            const auto sound = random_pcm(static_cast<int>(rate), frames, i,
                                          samples[random() % samples.size()], 1 + random() % 6);
            const size_t container = random() % 3;
            kind = std::to_string(sound.channels) + "x" + std::to_string(sound.sample.bytes) +
                   (sound.sample.floats ? " float" : "") +
                   std::array{".wav", ".rf64", " extensible.wav"}[container];
            file = wave_file(sound, wave_kind(container));
            played = device_bytes(sound, form, cut);
        }
        std::array<char, 64> path;
        std::snprintf(path.data(), path.size(), "%s/%05u %s", name.c_str(), i, kind.c_str());
        list.parts[list.sound.size()] = scratch_file(path.data(), file);
        put_bytes(list.sound, played);
    }
    return list;
}
