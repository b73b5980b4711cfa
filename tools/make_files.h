// Builds valid and invalid sound files of every container in memory, for the demo, the tests, the
// benchmarks and the fuzz corpus.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

// Append value in `width` bytes, lowest (le) or highest (be) byte first; put_bytes appends bytes.
void put_le(bytes &to, uint64_t value, int width);
void put_be(bytes &to, uint64_t value, int width);
void put_bytes(bytes &to, const bytes &more);

// le, be: the bytes of a number, lowest or highest byte first. text: the bytes of a string. joined:
// parts one after the other. patched: content with the bytes at offset `at` replaced.
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

// n pseudo-random bytes, the same for the same seed.
bytes noise(uint32_t seed, size_t n);

// A whole chunk with name, size and pad byte. WAV: little-endian 32-bit size. DSDIFF: big-endian
// 64-bit size.
bytes wav_chunk(const std::string &name, const bytes &body);
bytes dsdiff_chunk(const std::string &name, const bytes &body);

// Parts of a DSDIFF file: a chunk header, the form chunk, the property chunk, the channel list.
bytes dsdiff_head(const std::string &name, uint64_t size);
bytes dsdiff_form(std::initializer_list<bytes> chunks);
bytes dsdiff_properties(std::initializer_list<bytes> chunks);
bytes dsdiff_channels(const std::string &names, size_t count);

struct wav_settings {
    int tag = 1; // 1 PCM, 3 float, 0xFFFE extended
    int channels = 2;
    int rate = 44100;                   // Hz
    int bits = 16;                      // stored width of a sample
    int sub_format = 1;                 // for tag 0xFFFE
    std::optional<int> block_align;     // bytes of a frame; default: channels * bits / 8
    std::optional<size_t> format_bytes; // size of the "fmt " body; default: 16, or 40 if extended
    bytes before_format;                // whole chunks
    bytes before_data;
    bytes after_data;
    std::optional<uint64_t> data_size; // the header's value; default: the size of data
    bytes data;                        // stored frames
};
bytes make_wav(const wav_settings &s);
bytes make_rf64(const wav_settings &s); // data_size is in the "ds64" chunk

struct dsf_settings {
    uint32_t channels = 2;
    uint32_t rate = 2822400; // Hz
    uint32_t block_bytes = 4096;
    int64_t sample_count = -1; // bits per channel; -1: those of left
    bytes left;                // oldest bit highest, although the file has it lowest
    bytes right;               // as long as left; further channels are noise
};
bytes make_dsf(const dsf_settings &s);

struct dsdiff_settings {
    std::vector<std::string> channels = {"SLFT", "SRGT"};
    uint32_t rate = 2822400;
    bytes frames; // stored frames, one byte per channel
};
bytes make_dsdiff(const dsdiff_settings &s);

struct wsd_settings {
    int channels = 2;
    uint32_t rate = 2822400;
    uint32_t assignment = 0; // the four bytes of the header, the first one highest
    uint32_t data_offset = 2048;
    std::optional<uint64_t> file_size; // the header's value; default: the real size
    bytes frames;
};
bytes make_wsd(const wsd_settings &s);

// Stored DSD frames of the given number of channels. left and right are at the given places, the
// other channels are noise.
bytes dsd_frames(const bytes &left, const bytes &right, size_t channels = 2, size_t left_at = 0,
                 size_t right_at = 1);

// What a DSD reader must deliver for the two channels: bytes alternating, the last group of 8
// padded with 0x96.
bytes dsd_stream_of(const bytes &left, const bytes &right);

void write_file(const std::string &path, const bytes &content);

// Puts data into a file in memory and returns its path. Valid until the next call.
const char *memory_file(const uint8_t *data, size_t size);

// Makes a new directory in the system's temporary directory. It is removed when the process exits.
std::string make_directory();
