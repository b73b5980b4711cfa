#include "make_files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

void put_le(bytes &to, uint64_t value, int count)
{
    for (int i = 0; i < count; ++i) to.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void put_be(bytes &to, uint64_t value, int count)
{
    for (int i = count - 1; i >= 0; --i) to.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void put_text(bytes &to, const std::string &text)
{
    to.insert(to.end(), text.begin(), text.end());
}

void put_bytes(bytes &to, const bytes &more)
{
    to.insert(to.end(), more.begin(), more.end());
}

bytes noise(uint32_t seed, size_t n)
{
    bytes result(n);
    uint32_t state = seed * 2654435761U + 1;
    for (uint8_t &byte : result) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return result;
}

bytes wav_chunk(const std::string &name, const bytes &body)
{
    bytes chunk;
    put_text(chunk, name);
    put_le(chunk, body.size(), 4);
    put_bytes(chunk, body);
    if (body.size() % 2 != 0) chunk.push_back(0);
    return chunk;
}

bytes dsdiff_chunk(const std::string &name, const bytes &body)
{
    bytes chunk;
    put_text(chunk, name);
    put_be(chunk, body.size(), 8);
    put_bytes(chunk, body);
    if (body.size() % 2 != 0) chunk.push_back(0);
    return chunk;
}

namespace
{

constexpr int extended_tag = 0xFFFE;

int block_align_of(const wav_settings &s)
{
    return s.block_align >= 0 ? s.block_align : s.channels * s.bits / 8;
}

bytes format_body(const wav_settings &s)
{
    bytes body;
    const int align = block_align_of(s);
    put_le(body, static_cast<uint64_t>(s.tag), 2);
    put_le(body, static_cast<uint64_t>(s.channels), 2);
    put_le(body, static_cast<uint64_t>(s.rate), 4);
    put_le(body, static_cast<uint64_t>(int64_t{s.rate} * align), 4);
    put_le(body, static_cast<uint64_t>(align), 2);
    put_le(body, static_cast<uint64_t>(s.bits), 2);
    if (s.tag == extended_tag) {
        put_le(body, 22, 2);
        put_le(body, static_cast<uint64_t>(s.valid_bits != 0 ? s.valid_bits : s.bits), 2);
        put_le(body, 3, 4);
        put_le(body, static_cast<uint64_t>(s.sub_format), 2);
        put_bytes(body, {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71});
    }
    if (s.format_bytes >= 0) body.resize(static_cast<size_t>(s.format_bytes));
    return body;
}

bytes wav_body(const wav_settings &s, uint64_t data_size)
{
    bytes body = s.before_format;
    put_bytes(body, wav_chunk("fmt ", format_body(s)));
    put_bytes(body, s.before_data);
    put_text(body, "data");
    put_le(body, data_size, 4);
    put_bytes(body, s.data);
    if (!s.after_data.empty() && s.data.size() % 2 != 0) body.push_back(0);
    put_bytes(body, s.after_data);
    return body;
}

} // namespace

bytes make_wav(const wav_settings &s)
{
    const bytes body =
        wav_body(s, s.data_size >= 0 ? static_cast<uint64_t>(s.data_size) : s.data.size());
    bytes file;
    put_text(file, "RIFF");
    put_le(file, body.size() + 4, 4);
    put_text(file, "WAVE");
    put_bytes(file, body);
    return file;
}

bytes make_rf64(const wav_settings &s)
{
    const bytes body = wav_body(s, 0xFFFFFFFF);
    const uint64_t data_size =
        s.data_size >= 0 ? static_cast<uint64_t>(s.data_size) : s.data.size();
    const auto align = static_cast<uint64_t>(block_align_of(s));
    bytes ds64;
    put_le(ds64, body.size() + 4 + 36, 8);
    put_le(ds64, data_size, 8);
    put_le(ds64, align == 0 ? 0 : data_size / align, 8);
    put_le(ds64, 0, 4);
    bytes file;
    put_text(file, "RF64");
    put_le(file, 0xFFFFFFFF, 4);
    put_text(file, "WAVE");
    put_bytes(file, wav_chunk("ds64", ds64));
    put_bytes(file, body);
    return file;
}

namespace
{

uint8_t turned(uint8_t byte)
{
    uint8_t result = 0;
    for (int i = 0; i < 8; ++i) result = static_cast<uint8_t>(result << 1 | (byte >> i & 1));
    return result;
}

// One channel's block; behind the channel's end it is filled with a byte that must never be heard.
void put_dsf_block(bytes &to, const bytes &channel, size_t from, size_t length)
{
    for (size_t i = from; i < from + length; ++i)
        to.push_back(i < channel.size() ? turned(channel[i]) : uint8_t{0xEE});
}

} // namespace

bytes make_dsf(const dsf_settings &s)
{
    const uint64_t count =
        s.sample_count >= 0 ? static_cast<uint64_t>(s.sample_count) : s.left.size() * 8;
    bytes sound;
    for (size_t from = 0; s.block_bytes > 0 && from < s.left.size(); from += s.block_bytes) {
        put_dsf_block(sound, s.left, from, s.block_bytes);
        if (s.channels > 1) put_dsf_block(sound, s.right, from, s.block_bytes);
        if (s.channels > 2) put_bytes(sound, noise(77, (s.channels - 2) * s.block_bytes));
    }
    bytes file;
    put_text(file, "DSD ");
    put_le(file, s.dsd_chunk_bytes, 8);
    put_le(file, s.dsd_chunk_bytes + s.format_chunk_bytes + 12 + sound.size(), 8);
    put_le(file, 0, 8);
    file.resize(s.dsd_chunk_bytes);
    put_text(file, "fmt ");
    put_le(file, s.format_chunk_bytes, 8);
    put_le(file, 1, 4);
    put_le(file, s.format_id, 4);
    put_le(file, 2, 4);
    put_le(file, s.channels, 4);
    put_le(file, s.rate, 4);
    put_le(file, s.bits_per_sample, 4);
    put_le(file, count, 8);
    put_le(file, s.block_bytes, 4);
    file.resize(s.dsd_chunk_bytes + s.format_chunk_bytes);
    put_text(file, "data");
    put_le(file, sound.size() + 12, 8);
    put_bytes(file, sound);
    return file;
}

bytes make_dsdiff(const dsdiff_settings &s)
{
    bytes rate;
    put_be(rate, s.rate, 4);
    bytes channels;
    put_be(channels, s.channels.size(), 2);
    for (const std::string &name : s.channels) put_text(channels, name);
    bytes compression;
    put_text(compression, s.compression);
    compression.push_back(14);
    put_text(compression, "not compressed");
    compression.push_back(0);

    bytes properties;
    put_text(properties, "SND ");
    put_bytes(properties, dsdiff_chunk("FS  ", rate));
    put_bytes(properties, dsdiff_chunk("CHNL", channels));
    put_bytes(properties, dsdiff_chunk("CMPR", compression));
    put_bytes(properties, s.more_properties);

    bytes form;
    put_text(form, "DSD ");
    put_bytes(form, dsdiff_chunk("FVER", {1, 5, 0, 0}));
    put_bytes(form, dsdiff_chunk("PROP", properties));
    put_bytes(form, s.before_sound);
    put_text(form, s.compression);
    put_be(form, s.frames.size(), 8);
    put_bytes(form, s.frames);
    put_bytes(form, s.after_sound);
    return dsdiff_chunk("FRM8", form);
}

bytes make_wsd(const wsd_settings &s)
{
    const uint64_t size =
        s.file_size >= 0 ? static_cast<uint64_t>(s.file_size) : s.data_offset + s.frames.size();
    bytes file;
    put_text(file, "1bit");
    put_be(file, 0x11, 8);
    put_be(file, size & 0xFFFFFFFF, 4);
    put_be(file, size >> 32, 4);
    put_be(file, 128, 4);
    put_be(file, s.data_offset, 4);
    put_be(file, 0, 4);
    put_be(file, 0, 4);
    put_be(file, s.rate, 4);
    put_be(file, 0, 4);
    put_be(file, static_cast<uint64_t>(s.channels), 1);
    put_be(file, 0, 3);
    put_be(file, s.assignment, 4);
    if (s.data_offset > file.size()) file.resize(s.data_offset);
    put_bytes(file, s.frames);
    return file;
}

bytes dsd_frames(const bytes &left, const bytes &right, size_t channels, size_t left_at,
                 size_t right_at)
{
    bytes frames = noise(99, left.size() * channels);
    for (size_t i = 0; i < left.size(); ++i) {
        frames[i * channels + left_at] = left[i];
        frames[i * channels + right_at] = right[i];
    }
    return frames;
}

bytes dsd_stream_of(const bytes &left, const bytes &right)
{
    bytes stream = dsd_frames(left, right);
    while (stream.size() % 8 != 0) stream.push_back(0x96);
    return stream;
}

void write_file(const std::string &path, const bytes &content)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(content.data()),
               static_cast<std::streamsize>(content.size()));
    if (!file) std::abort();
}

std::string make_directory()
{
    static std::vector<std::string> made;
    if (made.empty()) {
        std::atexit([] {
            for (const std::string &path : made) {
                std::error_code ignored;
                std::filesystem::remove_all(path, ignored);
            }
        });
    }
    std::string path = (std::filesystem::temp_directory_path() / "sonivane-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) std::abort();
    made.push_back(path);
    return path;
}
