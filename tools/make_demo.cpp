// Writes the demo list, and holds what a device got against it.
//
//   make_demo write DIRECTORY           writes the files
//   make_demo compare CAPTURE FILE...   the capture is the files, played in that order, bit for bit
//   make_demo count-os CAPTURE FILE...  the capture of -os has the right number of frames
//
// A capture is raw and holds frames of two 32-bit words: S32_LE, or DSD_U32_BE for DSD.
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

namespace
{

using byte_vector = std::vector<uint8_t>;

enum class file_kind { wav, rf64, dsf, dsdiff, wsd };

struct demo_file {
    const char *name;
    file_kind kind;
    uint32_t rate;    // frames, or DSD bits of a channel, per second
    uint32_t bits;    // of a sample
    uint32_t seconds; // length
    double left_hz;   // tone, or start of the sweep
    double right_hz;  // tone, or start of the sweep
    double sweep;     // the frequency at the end, as a multiple; 1: a tone
};

// In the order in which the player sorts them. The DSD lengths fill whole groups of bytes.
constexpr demo_file demo_files[] = {
    {"1-tone-44100-16.wav", file_kind::wav, 44100, 16, 3, 440, 660, 1},
    {"2-tone-96000-24.wav", file_kind::wav, 96000, 24, 2, 1000, 1500, 1},
    {"3-sweep-44100-24-rf64.wav", file_kind::rf64, 44100, 24, 3, 40, 60, 300},
    {"1-tone.dff", file_kind::dsdiff, 2822400, 1, 2, 440, 660, 1},
    {"2-tone.dsf", file_kind::dsf, 2822400, 1, 2, 550, 825, 1},
    {"3-tone.wsd", file_kind::wsd, 2822400, 1, 2, 660, 990, 1},
};

constexpr uint32_t channels = 2;
constexpr double level = 0.5;
constexpr double fade_seconds = 0.01;

constexpr size_t device_frame_bytes = 8;
constexpr size_t silence_frames = 8192; // the player sends silence in steps of as many
constexpr uint32_t oversampled_rate = 352800;
constexpr uint32_t dsd_bits_per_word = 32;

constexpr size_t dsf_block_bytes = 4096;

bool is_dsd(const demo_file &file)
{
    return file.bits == 1;
}

size_t frame_count(const demo_file &file) // of DSD: bits of a channel
{
    return size_t{file.rate} * file.seconds;
}

size_t dsd_channel_bytes(const demo_file &file)
{
    return frame_count(file) / 8;
}

size_t dsf_block_count(const demo_file &file) // of a channel
{
    return (dsd_channel_bytes(file) + dsf_block_bytes - 1) / dsf_block_bytes;
}

size_t sound_bytes(const demo_file &file)
{
    if (file.kind == file_kind::dsf) return dsf_block_count(file) * dsf_block_bytes * channels;
    return frame_count(file) * channels * file.bits / 8;
}

[[noreturn]] void give_up(const char *what, const char *path)
{
    std::fprintf(stderr, "make_demo: %s %s\n", what, path);
    std::exit(EXIT_FAILURE);
}

// --- Headers ------------------------------------------------------------------------------------

void put_text(byte_vector &to, const char *text)
{
    to.insert(to.end(), text, text + std::strlen(text));
}

void put_le(byte_vector &to, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) to.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void put_be(byte_vector &to, uint64_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i) to.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void put_wav_format(byte_vector &to, const demo_file &file)
{
    const uint32_t frame_bytes = channels * file.bits / 8;
    put_text(to, "fmt ");
    put_le(to, 16, 4);
    put_le(to, 1, 2); // PCM
    put_le(to, channels, 2);
    put_le(to, file.rate, 4);
    put_le(to, uint64_t{file.rate} * frame_bytes, 4);
    put_le(to, frame_bytes, 2);
    put_le(to, file.bits, 2);
    put_text(to, "data");
}

byte_vector wav_header(const demo_file &file)
{
    byte_vector header;
    put_text(header, "RIFF");
    put_le(header, 36 + sound_bytes(file), 4);
    put_text(header, "WAVE");
    put_wav_format(header, file);
    put_le(header, sound_bytes(file), 4);
    return header;
}

// EBU Tech 3306: the sizes stand in the ds64 chunk.
byte_vector rf64_header(const demo_file &file)
{
    byte_vector header;
    put_text(header, "RF64");
    put_le(header, 0xFFFFFFFF, 4);
    put_text(header, "WAVEds64");
    put_le(header, 28, 4);
    put_le(header, 72 + sound_bytes(file), 8);
    put_le(header, sound_bytes(file), 8);
    put_le(header, frame_count(file), 8);
    put_le(header, 0, 4); // no table of further sizes
    put_wav_format(header, file);
    put_le(header, 0xFFFFFFFF, 4);
    return header;
}

// DSF file format 1.01.
byte_vector dsf_header(const demo_file &file)
{
    byte_vector header;
    put_text(header, "DSD ");
    put_le(header, 28, 8);
    put_le(header, 28 + 52 + 12 + sound_bytes(file), 8);
    put_le(header, 0, 8); // no metadata
    put_text(header, "fmt ");
    put_le(header, 52, 8);
    // Version, raw DSD, stereo, channels, rate; bits of a sample: oldest bit lowest.
    for (const uint32_t value : {1U, 0U, 2U, channels, file.rate, 1U}) put_le(header, value, 4);
    put_le(header, frame_count(file), 8);
    put_le(header, dsf_block_bytes, 4);
    put_le(header, 0, 4);
    put_text(header, "data");
    put_le(header, 12 + sound_bytes(file), 8);
    return header;
}

// DSDIFF 1.5.
byte_vector dsdiff_header(const demo_file &file)
{
    byte_vector properties;
    put_text(properties, "SND FS  ");
    put_be(properties, 4, 8);
    put_be(properties, file.rate, 4);
    put_text(properties, "CHNL");
    put_be(properties, 10, 8);
    put_be(properties, channels, 2);
    put_text(properties, "SLFTSRGTCMPR");
    put_be(properties, 20, 8);
    put_text(properties, "DSD \x0Enot compressed");
    put_be(properties, 0, 1);

    byte_vector header;
    put_text(header, "FRM8");
    put_be(header, 4 + 16 + 12 + properties.size() + 12 + sound_bytes(file), 8);
    put_text(header, "DSD FVER");
    put_be(header, 4, 8);
    put_be(header, 0x01050000, 4);
    put_text(header, "PROP");
    put_be(header, properties.size(), 8);
    header.insert(header.end(), properties.begin(), properties.end());
    put_text(header, "DSD ");
    put_be(header, sound_bytes(file), 8);
    return header;
}

// WSD 1.1: general information up to 32, data information up to 128, text up to 2048.
byte_vector wsd_header(const demo_file &file)
{
    constexpr size_t data_offset = 2048;
    byte_vector header;
    put_text(header, "1bit");
    put_be(header, 0, 4);
    put_be(header, 0x11, 1); // version 1.1
    put_be(header, 0, 3);
    put_be(header, data_offset + sound_bytes(file), 4); // low half of the file's size
    put_be(header, 0, 4);                               // high half
    put_be(header, 128, 4);                             // offset of the text
    put_be(header, data_offset, 4);
    put_be(header, 0, 8);
    put_be(header, file.rate, 4);
    put_be(header, 0, 4);
    put_be(header, channels, 1);
    put_be(header, 0, 3);
    put_be(header, 0x44000000, 4); // front left, front right
    header.resize(data_offset, ' ');
    return header;
}

byte_vector make_header(const demo_file &file)
{
    switch (file.kind) {
    case file_kind::wav:
        return wav_header(file);
    case file_kind::rf64:
        return rf64_header(file);
    case file_kind::dsf:
        return dsf_header(file);
    case file_kind::dsdiff:
        return dsdiff_header(file);
    default:
        return wsd_header(file);
    }
}

// --- Sound --------------------------------------------------------------------------------------

// The signal of one channel at a time in seconds. A sweep rises exponentially.
double signal_at(const demo_file &file, double hertz, double time)
{
    const double length = file.seconds;
    const double rise = std::log(file.sweep) / length;
    const double turns = rise == 0 ? hertz * time : hertz * std::expm1(rise * time) / rise;
    const double fade = std::min({1.0, time / fade_seconds, (length - time) / fade_seconds});
    return level * fade * std::sin(2 * std::numbers::pi * turns);
}

byte_vector pcm_sound(const demo_file &file)
{
    byte_vector sound;
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

// One channel through a second-order delta-sigma modulator; oldest bit highest in each byte.
byte_vector dsd_channel(const demo_file &file, double hertz)
{
    byte_vector bytes(dsd_channel_bytes(file));
    double first = 0;
    double second = 0;
    for (size_t i = 0; i < frame_count(file); ++i) {
        const double input = signal_at(file, hertz, static_cast<double>(i) / file.rate);
        const double output = second >= 0 ? 1 : -1;
        second += 0.5 * (first - output);
        first += 0.5 * (input - output);
        if (output > 0) bytes[i / 8] = static_cast<uint8_t>(bytes[i / 8] | 0x80 >> i % 8);
    }
    return bytes;
}

uint8_t reverse_bits(uint8_t byte)
{
    unsigned reversed = 0;
    for (unsigned bit = 0; bit < 8; ++bit) reversed |= (byte >> bit & 1U) << (7 - bit);
    return static_cast<uint8_t>(reversed);
}

// Where byte i of a channel stands in the file's sound.
size_t dsd_byte_place(const demo_file &file, size_t channel, size_t i)
{
    if (file.kind != file_kind::dsf) return i * channels + channel;
    const size_t block = i / dsf_block_bytes * channels + channel;
    return block * dsf_block_bytes + i % dsf_block_bytes;
}

byte_vector dsd_sound(const demo_file &file)
{
    byte_vector sound(sound_bytes(file));
    for (size_t channel = 0; channel < channels; ++channel) {
        const byte_vector bytes = dsd_channel(file, channel == 0 ? file.left_hz : file.right_hz);
        for (size_t i = 0; i < bytes.size(); ++i) {
            const uint8_t stored = file.kind == file_kind::dsf ? reverse_bits(bytes[i]) : bytes[i];
            sound[dsd_byte_place(file, channel, i)] = stored;
        }
    }
    return sound;
}

// --- Writing ------------------------------------------------------------------------------------

void write_file(const std::string &path, std::span<const uint8_t> header,
                std::span<const uint8_t> sound)
{
    std::FILE *fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) give_up("cannot write", path.c_str());
    const size_t written = std::fwrite(header.data(), 1, header.size(), fp) +
                           std::fwrite(sound.data(), 1, sound.size(), fp);
    if (std::fclose(fp) != 0 || written != header.size() + sound.size())
        give_up("cannot write", path.c_str());
}

int write_demo(const std::string &directory)
{
    for (const demo_file &file : demo_files) {
        const byte_vector sound = is_dsd(file) ? dsd_sound(file) : pcm_sound(file);
        write_file(directory + "/" + file.name, make_header(file), sound);
    }
    return EXIT_SUCCESS;
}

// --- Comparing ----------------------------------------------------------------------------------

byte_vector read_file(const char *path)
{
    byte_vector bytes;
    std::FILE *fp = std::fopen(path, "rb");
    if (fp == nullptr) give_up("cannot read", path);
    std::array<uint8_t, 65536> piece;
    while (const size_t got = std::fread(piece.data(), 1, piece.size(), fp))
        bytes.insert(bytes.end(), piece.data(), piece.data() + got);
    std::fclose(fp);
    return bytes;
}

const demo_file &find_demo(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    const char *name = slash == nullptr ? path : slash + 1;
    for (const demo_file &file : demo_files)
        if (std::strcmp(file.name, name) == 0) return file;
    give_up("not of the demo list:", path);
}

// The sound of a file as it lies on the disk, behind its header.
byte_vector stored_sound(const demo_file &file, const char *path)
{
    const byte_vector bytes = read_file(path);
    const size_t header = make_header(file).size();
    if (bytes.size() != header + sound_bytes(file)) give_up("wrong length:", path);
    return {bytes.begin() + static_cast<std::ptrdiff_t>(header), bytes.end()};
}

// Left-justified words of 4 bytes, lowest byte first.
void append_pcm_frames(byte_vector &frames, const demo_file &file, const byte_vector &sound)
{
    const size_t width = file.bits / 8;
    for (size_t i = 0; i < sound.size(); i += width) {
        frames.insert(frames.end(), 4 - width, uint8_t{0});
        frames.insert(frames.end(), &sound[i], &sound[i] + width);
    }
}

// Four bytes of the left channel, then four of the right one, oldest first.
void append_dsd_frames(byte_vector &frames, const demo_file &file, const byte_vector &sound)
{
    for (size_t i = 0; i < dsd_channel_bytes(file); i += 4) {
        for (size_t channel = 0; channel < channels; ++channel) {
            for (size_t k = i; k < i + 4; ++k) {
                const uint8_t byte = sound[dsd_byte_place(file, channel, k)];
                frames.push_back(file.kind == file_kind::dsf ? reverse_bits(byte) : byte);
            }
        }
    }
}

// A second of silence, in whole steps.
size_t pre_roll_bytes(uint32_t rate)
{
    return (rate + silence_frames - 1) / silence_frames * silence_frames * device_frame_bytes;
}

// The pre-roll is silence and nothing else.
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

    byte_vector frames;
    for (const char *path : paths) {
        const demo_file &file = find_demo(path);
        const byte_vector sound = stored_sound(file, path);
        (is_dsd(file) ? append_dsd_frames : append_pcm_frames)(frames, file, sound);
    }
    const byte_vector capture = read_file(capture_path);
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
    // The first file's rate settles the factor for the whole list.
    const size_t factor = oversampled_rate / find_demo(paths[0]).rate;
    size_t frames = 0;
    for (const char *path : paths) frames += factor * frame_count(find_demo(path));

    const size_t pre_roll = pre_roll_bytes(oversampled_rate);
    const byte_vector capture = read_file(capture_path);
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
    std::fputs("usage: make_demo write DIRECTORY\n"
               "       make_demo compare CAPTURE FILE...\n"
               "       make_demo count-os CAPTURE FILE...\n",
               stderr);
    return EXIT_FAILURE;
}
