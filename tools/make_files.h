// Builds sound files of every kind in memory, valid ones and broken ones: the demo's, those of the
// tests and benchmarks, and fuzz seeds.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

// Appends numbers of width bytes, and bytes.
void put_le(bytes &to, uint64_t value, int width);
void put_be(bytes &to, uint64_t value, int width);
void put_bytes(bytes &to, const bytes &more);

// The bytes of a number, lowest or highest first, and of words; parts behind each other; and
// content with other bytes at a place.
template <std::integral T> bytes le(T value, int width)
{
    bytes result;
    put_le(result, static_cast<uint64_t>(value), width);
    return result;
}
template <std::integral T> bytes be(T value, int width)
{
    bytes result;
    put_be(result, static_cast<uint64_t>(value), width);
    return result;
}
bytes text(const std::string &words);
bytes joined(std::initializer_list<bytes> parts);
bytes patched(bytes content, size_t at, const bytes &with);

// n bytes that look random; the same for the same seed.
bytes noise(uint32_t seed, size_t n);

// A chunk as it stands in a file: little-endian 32-bit size (WAV) or big-endian 64-bit size
// (DSDIFF).
bytes wav_chunk(const std::string &name, const bytes &body);
bytes dsdiff_chunk(const std::string &name, const bytes &body);

// Parts of a DSDIFF file: the head of a chunk, the form, its properties, their channel list.
bytes dsdiff_head(const std::string &name, uint64_t size);
bytes dsdiff_form(std::initializer_list<bytes> chunks);
bytes dsdiff_properties(std::initializer_list<bytes> chunks);
bytes dsdiff_channels(const std::string &names, size_t count);

struct wav_settings {
    int tag = 1; // 1 PCM, 3 float, 0xFFFE extended
    int channels = 2;
    int rate = 44100;                   // Hz
    int bits = 16;                      // stored width of a sample
    int sub_format = 1;                 // of the extended form
    std::optional<int> block_align;     // bytes of a frame; else as channels and bits give it
    std::optional<size_t> format_bytes; // of the "fmt " body; else 16, or 40 extended
    bytes before_format;                // whole chunks
    bytes before_data;
    bytes after_data;
    std::optional<uint64_t> data_size; // as the header tells it; else the truth
    bytes data;                        // stored frames
};
bytes make_wav(const wav_settings &s);
bytes make_rf64(const wav_settings &s); // data_size stands in the "ds64" chunk

struct dsf_settings {
    uint32_t channels = 2;
    uint32_t rate = 2822400; // Hz
    uint32_t block_bytes = 4096;
    int64_t sample_count = -1; // bits per channel; -1: all of left
    bytes left;                // oldest bit highest; the file gets it turned
    bytes right;               // as long as left; further channels get noise
};
bytes make_dsf(const dsf_settings &s);

struct dsdiff_settings {
    std::vector<std::string> channels = {"SLFT", "SRGT"};
    uint32_t rate = 2822400;
    bytes frames; // stored frames, one byte a channel
};
bytes make_dsdiff(const dsdiff_settings &s);

struct wsd_settings {
    int channels = 2;
    uint32_t rate = 2822400;
    uint32_t assignment = 0; // four bytes, the first one highest
    uint32_t data_offset = 2048;
    std::optional<uint64_t> file_size; // as the header tells it; else the truth
    bytes frames;
};
bytes make_wsd(const wsd_settings &s);

// Stored DSD frames of the given channel count with left and right at the given places, noise in
// the other channels.
bytes dsd_frames(const bytes &left, const bytes &right, size_t channels = 2, size_t left_at = 0,
                 size_t right_at = 1);

// What a DSD reader delivers for the two channels: in turn, the last group of 8 filled with 0x96.
bytes dsd_stream_of(const bytes &left, const bytes &right);

void write_file(const std::string &path, const bytes &content);

// A path that opens the input as a regular file without a disk, until the next call.
const char *memory_file(const uint8_t *data, size_t size);

// A fresh directory below the system's temporary one, removed at the end of the process.
std::string make_directory();
