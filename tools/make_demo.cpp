// Writes the demo files, compares what a device got with them, and writes silent files for
// measurements.
//
//   make_demo write DIRECTORY           writes the files
//   make_demo compare CAPTURE FILE...   compares the capture with the files, bit for bit, in order
//   make_demo count-os CAPTURE FILE...  checks the number of frames of a capture with -os
//   make_demo silence FILE RATE BITS SECONDS   writes a silent file: DSF if BITS is 1, else WAV
//
// A capture has no header. Its frames are two 32-bit words: S32_LE, or DSD_U32_BE for DSD.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <span>
#include <string>
#include <vector>

#include "make_files.h"

namespace
{

enum class file_kind { wav, rf64, dsf, dsdiff, wsd };

struct demo_file {
    const char *name;
    file_kind kind;
    uint32_t rate;    // frames, or DSD bits of a channel, per second
    uint32_t bits;    // of a sample
    uint32_t seconds; // length
    double left_hz;   // frequency of the tone, or at the start of the sweep
    double right_hz;  // the same for the right channel
    double sweep;     // end frequency / start frequency; 1: a tone
};

// Each list is in the order in which the player sorts it. The lengths of the DSD files are whole
// groups of bytes, so that the player adds no fill bytes.
constexpr demo_file demo_files[] = {
    {"1-tone-44100-16.wav", file_kind::wav, 44100, 16, 3, 440, 660, 1},
    {"2-tone-44100-24.wav", file_kind::wav, 44100, 24, 2, 1000, 1500, 1},
    {"3-sweep-44100-24-rf64.wav", file_kind::rf64, 44100, 24, 3, 40, 60, 300},
    {"1-tone.dff", file_kind::dsdiff, 2822400, 1, 2, 440, 660, 1},
    {"2-tone.dsf", file_kind::dsf, 2822400, 1, 2, 550, 825, 1},
    {"3-tone.wsd", file_kind::wsd, 2822400, 1, 2, 660, 990, 1},
};

constexpr double level = 0.5;
constexpr double fade_seconds = 0.01;

constexpr size_t device_frame_bytes = 8;
constexpr size_t silence_frames = 8192; // the player writes silence in pieces of this size
constexpr uint32_t oversampled_rate = 352800;
constexpr uint32_t dsd_bits_per_word = 32;

bool is_dsd(const demo_file &file)
{
    return file.bits == 1;
}

size_t frame_count(const demo_file &file) // DSD: bits of a channel
{
    return size_t{file.rate} * file.seconds;
}

[[noreturn]] void give_up(const char *what, const char *path)
{
    std::fprintf(stderr, "make_demo: %s %s\n", what, path);
    std::exit(EXIT_FAILURE);
}

// --- Sound --------------------------------------------------------------------------------------

// The signal of one channel at a time in seconds. The frequency of a sweep rises exponentially.
double signal_at(const demo_file &file, double hertz, double time)
{
    const double length = file.seconds;
    const double rise = std::log(file.sweep) / length;
    const double turns = rise == 0 ? hertz * time : hertz * std::expm1(rise * time) / rise;
    const double fade = std::min({1.0, time / fade_seconds, (length - time) / fade_seconds});
    return level * fade * std::sin(2 * std::numbers::pi * turns);
}

bytes pcm_sound(const demo_file &file)
{
    bytes sound;
    const double full_scale = std::ldexp(1, static_cast<int>(file.bits) - 1) - 1;
    for (size_t i = 0; i < frame_count(file); ++i) {
        const double time = static_cast<double>(i) / file.rate;
        for (const double hertz : {file.left_hz, file.right_hz}) {
            const double value = full_scale * signal_at(file, hertz, time);
            put_le(sound, static_cast<uint64_t>(std::llround(value)),
                   static_cast<int>(file.bits / 8));
        }
    }
    return sound;
}

// One channel, converted by a second-order delta-sigma modulator. The oldest bit of a byte is
// highest.
bytes dsd_channel(const demo_file &file, double hertz)
{
    bytes stream(frame_count(file) / 8);
    double first = 0;
    double second = 0;
    for (size_t i = 0; i < frame_count(file); ++i) {
        const double input = signal_at(file, hertz, static_cast<double>(i) / file.rate);
        const double output = second >= 0 ? 1 : -1;
        second += 0.5 * (first - output);
        first += 0.5 * (input - output);
        if (output > 0) stream[i / 8] = static_cast<uint8_t>(stream[i / 8] | 0x80 >> i % 8);
    }
    return stream;
}

bytes left_of(const demo_file &file)
{
    return dsd_channel(file, file.left_hz);
}

bytes right_of(const demo_file &file)
{
    return dsd_channel(file, file.right_hz);
}

// --- Writing ------------------------------------------------------------------------------------

// The content of the whole file.
bytes content_of(const demo_file &file)
{
    const wav_settings wav = {.rate = static_cast<int>(file.rate),
                              .bits = static_cast<int>(file.bits),
                              .data = is_dsd(file) ? bytes{} : pcm_sound(file)};
    switch (file.kind) {
    case file_kind::wav:
        return make_wav(wav);
    case file_kind::rf64:
        return make_rf64(wav);
    case file_kind::dsf:
        return make_dsf({.rate = file.rate, .left = left_of(file), .right = right_of(file)});
    case file_kind::dsdiff:
        return make_dsdiff(
            {.rate = file.rate, .frames = dsd_frames(left_of(file), right_of(file))});
    case file_kind::wsd:
        break;
    }
    return make_wsd({.rate = file.rate, .frames = dsd_frames(left_of(file), right_of(file))});
}

int write_demo(const std::string &directory)
{
    for (const demo_file &file : demo_files) {
        write_file(directory + "/" + file.name, content_of(file));
    }
    return EXIT_SUCCESS;
}

int write_silence(const std::string &path, uint32_t rate, uint32_t bits, uint32_t seconds)
{
    constexpr uint8_t dsd_silence = 0x96;
    const bytes channel(size_t{rate} * bits / 8 * seconds, bits == 1 ? dsd_silence : uint8_t{0});
    write_file(path, bits == 1 ? make_dsf({.rate = rate, .left = channel, .right = channel})
                               : make_wav({.rate = static_cast<int>(rate),
                                           .bits = static_cast<int>(bits),
                                           .data = joined({channel, channel})}));
    return EXIT_SUCCESS;
}

// --- Comparing ----------------------------------------------------------------------------------

bytes read_file(const char *path)
{
    bytes content;
    std::FILE *fp = std::fopen(path, "rb");
    if (fp == nullptr) give_up("cannot read", path);
    std::array<uint8_t, 65536> piece;
    while (const size_t got = std::fread(piece.data(), 1, piece.size(), fp))
        content.insert(content.end(), piece.data(), piece.data() + got);
    std::fclose(fp);
    return content;
}

const demo_file &find_demo(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    const char *name = slash == nullptr ? path : slash + 1;
    for (const demo_file &file : demo_files)
        if (std::strcmp(file.name, name) == 0) return file;
    give_up("not of the demo list:", path);
}

// Left-justified words of 4 bytes, lowest byte first.
void append_pcm_frames(bytes &frames, const demo_file &file)
{
    const bytes sound = pcm_sound(file);
    const size_t width = file.bits / 8;
    for (size_t i = 0; i < sound.size(); i += width) {
        frames.insert(frames.end(), 4 - width, uint8_t{0});
        frames.insert(frames.end(), &sound[i], &sound[i] + width);
    }
}

// Four bytes of the left channel, then four of the right one, oldest first.
void append_dsd_frames(bytes &frames, const demo_file &file)
{
    const bytes left = left_of(file);
    const bytes right = right_of(file);
    for (size_t i = 0; i < left.size(); i += 4) {
        frames.insert(frames.end(), &left[i], &left[i] + 4);
        frames.insert(frames.end(), &right[i], &right[i] + 4);
    }
}

// The bytes of one second of silence, rounded up to whole pieces.
size_t pre_roll_bytes(uint32_t rate)
{
    return (rate + silence_frames - 1) / silence_frames * silence_frames * device_frame_bytes;
}

// Ends the program unless all bytes are silence.
void require_silence(std::span<const uint8_t> capture, uint8_t silence, const char *path)
{
    const bool silent = std::all_of(capture.begin(), capture.end(),
                                    [silence](uint8_t byte) { return byte == silence; });
    if (!silent) give_up("the pre-roll is not silent in", path);
}

int compare_capture(const char *capture_path, std::span<char *> paths)
{
    const demo_file &first = find_demo(paths[0]);
    const uint32_t device_rate = is_dsd(first) ? first.rate / dsd_bits_per_word : first.rate;
    const size_t pre_roll = pre_roll_bytes(device_rate);

    bytes frames;
    for (const char *path : paths) {
        const demo_file &file = find_demo(path);
        if (read_file(path) != content_of(file)) give_up("not as it was written:", path);
        (is_dsd(file) ? append_dsd_frames : append_pcm_frames)(frames, file);
    }
    const bytes capture = read_file(capture_path);
    if (capture.size() != pre_roll + frames.size()) give_up("wrong length:", capture_path);
    require_silence(std::span(capture).first(pre_roll), is_dsd(first) ? 0x55 : 0, capture_path);
    const auto difference =
        std::mismatch(frames.begin(), frames.end(), capture.begin() + static_cast<long>(pre_roll));
    if (difference.first != frames.end()) give_up("other bits than the files in", capture_path);
    std::printf("%zu frames after %zu of silence: bit for bit what the files hold\n",
                frames.size() / device_frame_bytes, pre_roll / device_frame_bytes);
    return EXIT_SUCCESS;
}

int count_oversampled(const char *capture_path, std::span<char *> paths)
{
    // The first file's rate determines the factor for the whole list.
    const size_t factor = oversampled_rate / find_demo(paths[0]).rate;
    size_t frames = 0;
    for (const char *path : paths) frames += factor * frame_count(find_demo(path));

    const size_t pre_roll = pre_roll_bytes(oversampled_rate);
    const bytes capture = read_file(capture_path);
    if (capture.size() != pre_roll + frames * device_frame_bytes)
        give_up("wrong length:", capture_path);
    require_silence(std::span(capture).first(pre_roll), 0, capture_path);
    const auto sound = std::span(capture).subspan(pre_roll);
    if (std::all_of(sound.begin(), sound.end(), [](uint8_t byte) { return byte == 0; }))
        give_up("nothing but silence in", capture_path);
    std::printf("%zu frames after %zu of silence: %zu for each frame of the files; their values "
                "are not compared here\n",
                frames, pre_roll / device_frame_bytes, factor);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    const auto arguments = std::span(argv, static_cast<size_t>(argc));
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "write" && argc == 3) return write_demo(argv[2]);
    if (command == "compare" && argc > 3) return compare_capture(argv[2], arguments.subspan(3));
    if (command == "count-os" && argc > 3) return count_oversampled(argv[2], arguments.subspan(3));
    if (command == "silence" && argc == 6) {
        const auto number = [argv](int i) {
            return static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10));
        };
        return write_silence(argv[2], number(3), number(4), number(5));
    }
    std::fputs("usage: make_demo write DIRECTORY\n"
               "       make_demo compare CAPTURE FILE...\n"
               "       make_demo count-os CAPTURE FILE...\n"
               "       make_demo silence FILE RATE BITS SECONDS\n",
               stderr);
    return EXIT_FAILURE;
}
