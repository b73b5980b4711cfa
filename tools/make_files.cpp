#include "make_files.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

void put_le(bytes &to, uint64_t value, int width)
{
    for (int i = 0; i < width; ++i) to.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void put_be(bytes &to, uint64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i) to.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void put_bytes(bytes &to, const bytes &more)
{
    to.insert(to.end(), more.begin(), more.end());
}

bytes text(const std::string &words)
{
    return {words.begin(), words.end()};
}

bytes joined(std::initializer_list<bytes> parts)
{
    bytes result;
    for (const bytes &part : parts) put_bytes(result, part);
    return result;
}

bytes patched(bytes content, size_t at, const bytes &with)
{
    std::copy(with.begin(), with.end(), content.begin() + static_cast<std::ptrdiff_t>(at));
    return content;
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

// --- WAV ----------------------------------------------------------------------------------------

namespace
{

constexpr int extended_tag = 0xFFFE;

bytes pad_byte(const bytes &body)
{
    return bytes(body.size() % 2);
}

bytes format_body(const wav_settings &s)
{
    const int align = s.block_align.value_or(s.channels * s.bits / 8);
    bytes body = joined({le(s.tag, 2), le(s.channels, 2), le(s.rate, 4),
                         le(int64_t{s.rate} * align, 4), le(align, 2), le(s.bits, 2)});
    if (s.tag == extended_tag) {
        put_bytes(body, joined({le(22, 2), le(s.bits, 2), le(3, 4), le(s.sub_format, 2),
                                be(0x1000, 6), be(0x800000AA00389B71, 8)}));
    }
    body.resize(s.format_bytes.value_or(body.size()));
    return body;
}

// All that follows "WAVE" in a WAV file.
bytes wav_body(const wav_settings &s, uint64_t data_size)
{
    return joined({s.before_format, wav_chunk("fmt ", format_body(s)), s.before_data, text("data"),
                   le(data_size, 4), s.data, pad_byte(s.data), s.after_data});
}

} // namespace

bytes wav_chunk(const std::string &name, const bytes &body)
{
    return joined({text(name), le(body.size(), 4), body, pad_byte(body)});
}

bytes make_wav(const wav_settings &s)
{
    const bytes body = wav_body(s, s.data_size.value_or(s.data.size()));
    return joined({text("RIFF"), le(body.size() + 4, 4), text("WAVE"), body});
}

bytes make_rf64(const wav_settings &s)
{
    const bytes body = wav_body(s, 0xFFFFFFFF);
    const uint64_t size = s.data_size.value_or(s.data.size());
    const auto align = static_cast<uint64_t>(s.block_align.value_or(s.channels * s.bits / 8));
    const bytes sizes = joined(
        {le(body.size() + 4 + 36, 8), le(size, 8), le(align == 0 ? 0 : size / align, 8), le(0, 4)});
    return joined({text("RF64"), le(0xFFFFFFFF, 4), text("WAVE"), wav_chunk("ds64", sizes), body});
}

// --- DSD ----------------------------------------------------------------------------------------

namespace
{

uint8_t turned(uint8_t byte)
{
    uint8_t result = 0;
    for (int i = 0; i < 8; ++i) result = static_cast<uint8_t>(result << 1 | (byte >> i & 1));
    return result;
}

} // namespace

bytes make_dsf(const dsf_settings &s)
{
    bytes sound;
    for (size_t from = 0; from < s.left.size(); from += s.block_bytes) {
        for (const bytes *side : {&s.left, &s.right}) // padded with bytes that must never be played
            for (size_t i = from; i < from + s.block_bytes; ++i)
                sound.push_back(i < side->size() ? turned((*side)[i]) : uint8_t{0xEE});
        put_bytes(sound, noise(77, (s.channels - 2) * s.block_bytes));
    }
    const auto all = static_cast<int64_t>(s.left.size() * 8);
    return joined({text("DSD "), le(28, 8), le(92 + sound.size(), 8), le(0, 8), text("fmt "),
                   le(52, 8), le(1, 4), le(0, 4), le(2, 4), le(s.channels, 4), le(s.rate, 4),
                   le(1, 4), le(s.sample_count >= 0 ? s.sample_count : all, 8),
                   le(s.block_bytes, 4), le(0, 4), text("data"), le(sound.size() + 12, 8), sound});
}

bytes dsdiff_head(const std::string &name, uint64_t size)
{
    return joined({text(name), be(size, 8)});
}

bytes dsdiff_chunk(const std::string &name, const bytes &body)
{
    return joined({dsdiff_head(name, body.size()), body, pad_byte(body)});
}

bytes dsdiff_form(std::initializer_list<bytes> chunks)
{
    return dsdiff_chunk("FRM8", joined({text("DSD "), joined(chunks)}));
}

bytes dsdiff_properties(std::initializer_list<bytes> chunks)
{
    return dsdiff_chunk("PROP", joined({text("SND "), joined(chunks)}));
}

bytes dsdiff_channels(const std::string &names, size_t count)
{
    return dsdiff_chunk("CHNL", joined({be(count, 2), text(names)}));
}

bytes make_dsdiff(const dsdiff_settings &s)
{
    std::string names;
    for (const std::string &name : s.channels) names += name;
    return dsdiff_form(
        {dsdiff_chunk("FVER", {1, 5, 0, 0}),
         dsdiff_properties(
             {dsdiff_chunk("FS  ", be(s.rate, 4)), dsdiff_channels(names, s.channels.size()),
              dsdiff_chunk("CMPR", joined({text("DSD "), {14}, text("not compressed"), {0}}))}),
         dsdiff_head("DSD ", s.frames.size()), s.frames});
}

bytes make_wsd(const wsd_settings &s)
{
    const uint64_t size = s.file_size.value_or(s.data_offset + s.frames.size());
    bytes head = joined({text("1bit"), be(0x11, 8), be(size & 0xFFFFFFFF, 4), be(size >> 32, 4),
                         be(128, 4), be(s.data_offset, 4), be(0, 8), be(s.rate, 4), be(0, 4),
                         be(s.channels, 1), be(0, 3), be(s.assignment, 4)});
    head.resize(std::max<size_t>(s.data_offset, head.size()));
    return joined({head, s.frames});
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

// --- Places -------------------------------------------------------------------------------------

void write_file(const std::string &path, const bytes &content)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(content.data()),
               static_cast<std::streamsize>(content.size()));
    if (!file) std::abort();
}

const char *memory_file(const uint8_t *data, size_t size)
{
    static const int memory = memfd_create("input", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(memory);
    if (ftruncate(memory, 0) != 0 || pwrite(memory, data, size, 0) != static_cast<ssize_t>(size))
        std::abort();
    return path.c_str();
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
