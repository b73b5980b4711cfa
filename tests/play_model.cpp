#include "play_model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <utility>

std::vector<std::string> cut_options(const cuts &cut)
{
    std::vector<std::string> options;
    if (cut.left) options.emplace_back("--left-cut");
    if (cut.right) options.emplace_back("--right-cut");
    return options;
}

// --- Sound --------------------------------------------------------------------------------------

pcm_sound random_pcm(const sample_row &sample, size_t channels, int rate, size_t frames,
                     uint32_t seed)
{
    pcm_sound sound = {sample.bytes, sample.floats, channels, rate,
                       noise(seed, frames * channels * sample.bytes)};
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

dsd_sound random_dsd(size_t bytes_per_channel, uint32_t seed, uint32_t rate)
{
    return {noise(seed, bytes_per_channel), noise(seed + 1000, bytes_per_channel), rate};
}

namespace
{

bytes as_dsf(const dsd_sound &s) // ends inside a byte
{
    const auto bits = static_cast<int64_t>(s.left.size() * 8);
    return make_dsf({.rate = s.rate,
                     .sample_count = std::max(bits - 3, int64_t{0}),
                     .left = s.left,
                     .right = s.right});
}

bytes as_dsdiff(const dsd_sound &s) // right comes first
{
    return make_dsdiff({.channels = {"SRGT", "SLFT"},
                        .rate = s.rate,
                        .frames = dsd_frames(s.left, s.right, 2, 1, 0)});
}

bytes as_wsd(const dsd_sound &s) // a channel between left and right
{
    return make_wsd({.channels = 3,
                     .rate = s.rate,
                     .assignment = 0x54000000,
                     .frames = dsd_frames(s.left, s.right, 3, 0, 2)});
}

} // namespace

const std::array<container_row, 3> containers = {
    {{"a.dsf", as_dsf}, {"b.dff", as_dsdiff}, {"c.wsd", as_wsd}}};

// --- What the device gets of PCM ----------------------------------------------------------------

namespace
{

// 2^31 x value, toward zero, saturating.
int32_t word_of_float(float value)
{
    if (std::isnan(value)) return 0;
    const double word = std::trunc(static_cast<double>(value) * 2147483648.0);
    return static_cast<int32_t>(std::fmin(std::fmax(word, -2147483648.0), 2147483647.0));
}

// The stored sample, left-justified: a signed integer, or a float's bits.
uint32_t stored_word(const pcm_sound &sound, const uint8_t *sample)
{
    uint32_t word = 0;
    for (size_t i = 0; i < sound.sample_bytes; ++i)
        word |= static_cast<uint32_t>(sample[i]) << 8 * (4 - sound.sample_bytes + i);
    return sound.sample_bytes == 1 ? word ^ 0x80000000 : word; // unsigned in the file
}

// What goes out for it: its top bytes, or on a device of floats the word times 2^-31.
uint32_t device_word(uint32_t word, bool is_float, const device_form &device)
{
    float value = 0;
    std::memcpy(&value, &word, sizeof value);
    if (device.floats && is_float) return word;
    const int32_t number = is_float ? word_of_float(value) : static_cast<int32_t>(word);
    if (!device.floats) return static_cast<uint32_t>(number >> device.padding);
    value = static_cast<float>(number) * 0x1p-31F;
    std::memcpy(&word, &value, sizeof word);
    return word;
}

} // namespace

bytes device_bytes(const pcm_sound &sound, const device_form &device, cuts cut)
{
    bytes out;
    const size_t frame = sound.sample_bytes * sound.channels;
    for (size_t at = 0; at + frame <= sound.data.size(); at += frame) {
        for (const bool right : {false, true}) {
            const size_t place = right && sound.channels > 1 ? sound.sample_bytes : 0;
            uint32_t word =
                device_word(stored_word(sound, &sound.data[at + place]), sound.floats, device);
            if (right ? cut.right : cut.left) word = 0;
            for (size_t i = 4 - device.bytes; i < 4; ++i)
                out.push_back(static_cast<uint8_t>(word >> 8 * i));
        }
    }
    return out;
}

// --- What the device gets of DSD ----------------------------------------------------------------

namespace
{

// The low 24 bits at the place where the device's samples lie.
void put_dop_sample(bytes &out, const device_form &device, uint32_t sample)
{
    const bool top = device.bytes == 4 && device.padding == 0;
    put_le(out, top ? sample << 8 : sample, static_cast<int>(device.bytes));
}

// Four bytes of a channel, oldest first, as one number.
uint32_t native_word(const uint8_t *stream)
{
    return static_cast<uint32_t>(stream[0] << 24 | stream[2] << 16 | stream[4] << 8 | stream[6]);
}

// 16 bits of left and right in turn, left first.
uint32_t i2s_word(uint8_t left, uint8_t right)
{
    uint32_t word = 0;
    for (int bit = 7; bit >= 0; --bit)
        word = word << 2 | static_cast<uint32_t>((left >> bit & 1) << 1 | (right >> bit & 1));
    return word;
}

// stream: left and right bytes in turn, in whole groups of 8: the first marker comes first in each.
bytes packed(const bytes &stream, const stream_form &form)
{
    // Where 16 bits are all that the device has, a DoP frame takes two of its frames.
    const device_form &device = form.device.bytes == 2 ? s32_le : form.device;
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
            for (const int side : {0, 1})
                put_dop_sample(out, device,
                               marker | static_cast<uint32_t>(b[side] << 8) | b[side + 2]);
        }
    }
    return out;
}

// An even and an odd frame.
bytes silence_of(const stream_form &form)
{
    switch (form.kind) {
    case packing::native:
        return bytes(16, 0x55);
    case packing::i2s:
        return bytes(16, 0x33);
    case packing::dop:
        return packed(bytes(8, 0x55), form);
    default:
        return bytes(form.device.bytes * 4, 0);
    }
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

int device_rate(const stream_form &form, int64_t file_rate)
{
    const int64_t divisor = form.kind == packing::pcm ? 1 : form.kind == packing::dop ? 16 : 32;
    return static_cast<int>(file_rate / divisor);
}

play_settings settings_for(const stream_form &form, std::vector<std::string> arguments)
{
    play_settings settings = {.arguments = std::move(arguments),
                              .capture = {{"FORMATS", form.device.name}}};
    if (form.kind != packing::i2s) return settings;
    shared_block()->state = -1; // told already: no signal
    return beside_controller(settings);
}

// --- The whole stream ---------------------------------------------------------------------------

namespace
{

constexpr uint64_t silence_frames = 8192; // that the player has at hand
constexpr uint64_t nearly_full = 1025;    // room in frames with which a device is left alone

// One write to the device, from its log: frames asked for, taken, and the room there was.
struct device_write {
    uint64_t asked;
    uint64_t taken;
    uint64_t room;
};

bool read_write(const std::string &line, device_write &w)
{
    return std::sscanf(line.c_str(), "write %lu took %lu room %lu", &w.asked, &w.taken, &w.room) ==
           3;
}

// Frames of silence that come first, from the writes as the device took them: even, at least rate,
// and not one write more.
uint64_t told_silence(const play_result &result, uint64_t rate, std::ostream &trouble)
{
    uint64_t sent = 0;
    device_write w{};
    for (const std::string &line : result.log) {
        if (!read_write(line, w)) continue;
        if (w.room <= nearly_full || w.asked >= w.room)
            trouble << "too much for the room: " << line;
        if (sent % 2 == 0 && sent >= rate) continue;
        const bool right =
            sent % 2 == 0 ? w.asked % 2 == 0 && w.asked <= silence_frames : w.asked == 1;
        if (!right) trouble << "silence out of step: " << line;
        sent += w.taken;
    }
    return sent;
}

} // namespace

std::string stream_trouble(const play_result &result, const stream_form &form, int64_t file_rate,
                           const bytes &sound, extent told)
{
    std::ostringstream trouble;
    trouble << result.trouble;
    const int rate = device_rate(form, file_rate);
    const uint64_t silent = told_silence(result, static_cast<uint64_t>(rate), trouble);
    bytes whole;
    for (uint64_t frame = 0; frame < silent; frame += 2) put_bytes(whole, silence_of(form));
    put_bytes(whole, sound);
    if (told == extent::broken_off) whole.resize(std::min(whole.size(), result.capture.size()));

    const std::string params =
        std::string("params ") + form.device.name + " rate " + std::to_string(rate) + " ";
    if (told == extent::whole && result.status != 0)
        trouble << "status " << result.status << "\n" << result.err;
    // A device that took a frame has not played it yet.
    if (told == extent::whole && !all_sounded(result)) trouble << "not all frames sounded\n";
    if (!result.capture.empty() && !log_has(result, params)) trouble << "not " << params << "\n";
    if (result.capture != whole) {
        const auto [at, other] =
            std::mismatch(result.capture.begin(), result.capture.end(), whole.begin(), whole.end());
        trouble << result.capture.size() << " bytes for " << whole.size()
                << ", the first other one at " << at - result.capture.begin() << "\n";
    }
    return trouble.str();
}

// --- Mixed lists --------------------------------------------------------------------------------

mixed_list make_mixed_list(const stream_form &form, size_t files, size_t most_frames, uint32_t seed,
                           cuts cut)
{
    static int lists;
    const std::string name = "list" + std::to_string(++lists);
    mixed_list list = {
        scratch_directory() + "/" + name, form.kind == packing::pcm ? 8000 : 256000, {}};
    std::filesystem::create_directory(list.directory);
    std::mt19937 random(seed);
    for (size_t i = 0; i < files; ++i) {
        std::array<char, 32> path;
        std::snprintf(path.data(), path.size(), "%s/%05zu", name.c_str(), i);
        const bool dsd = i == 0 ? form.kind != packing::pcm : random() % 2 == 0;
        const auto rate = i == 0 ? list.rate : list.rate + static_cast<int64_t>(random() % 1000);
        const size_t frames = random() % (most_frames + 1);
        if (dsd) {
            const auto sound =
                random_dsd(frames * 2 + random() % 2, seed + static_cast<uint32_t>(i),
                           static_cast<uint32_t>(rate));
            scratch_file(path.data(), containers[random() % containers.size()].make(sound));
            put_bytes(list.sound, device_bytes(sound, form, cut));
        } else {
            const auto sound =
                random_pcm(samples[random() % samples.size()], 1 + random() % 6,
                           static_cast<int>(rate), frames, seed + static_cast<uint32_t>(i));
            scratch_file(path.data(), wave_file(sound, wave_kind(random() % 3)));
            put_bytes(list.sound, device_bytes(sound, form.device, cut));
        }
    }
    return list;
}

int soak_size(int usual)
{
    const char *wanted = std::getenv("SONIVANE_SOAK");
    return wanted != nullptr ? std::stoi(wanted) : usual;
}
