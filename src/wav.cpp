#include "wav.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "readwrite.h"

namespace
{

constexpr size_t format_bytes_limit = sizeof(wave_format);
constexpr uint32_t rf64_size_word = 0xFFFFFFFF;
constexpr uint32_t ds64_fixed_bytes = 24;        // form size, data size, sample count
constexpr int32_t widest_sample = INT16_MAX / 8; // bytes; limited by wBitsPerSample

// --- Chunks -------------------------------------------------------------------------------------

// Skips chunks up to the wanted one and leaves the stream at the size field of that chunk. A body
// of odd size is followed by a pad byte. The padded size wraps at 32 bits, so that a size of
// 0xFFFFFFFF counts as 0.
bool walk_to(std::FILE *fp, const char *wanted)
{
    chunk_name name;
    while (read_name(fp, &name)) {
        if (name_is(name, wanted)) return true;
        uint32_t size = 0;
        if (read_le32(fp, &size) == 0) return false;
        const uint32_t padded = (size + 1) & ~1U;
        if (!skip_bytes(fp, padded)) return false;
    }
    return false;
}

// The sizes of the "ds64" chunk, the first chunk of an RF64 file.
struct ds64_sizes {
    uint64_t data_bytes;
    uint64_t frames;
};

// Reads an RF64 header, from the byte after "RF64" to the end of "ds64".
bool read_rf64_header(std::FILE *fp, ds64_sizes *sizes)
{
    uint32_t size_word = 0;
    uint32_t body = 0;
    return read_le32(fp, &size_word) != 0 && size_word == rf64_size_word &&
           check_tag(fp, "WAVEds64", 8) != 0 && read_le32(fp, &body) != 0 && skip_bytes(fp, 8) &&
           read_le64(fp, &sizes->data_bytes) != 0 && read_le64(fp, &sizes->frames) != 0 &&
           body >= ds64_fixed_bytes && skip_bytes(fp, body - ds64_fixed_bytes);
}

// Reads the body of "fmt ". Fields that the chunk does not have are 0.
bool read_format(std::FILE *fp, wave_format *wave)
{
    *wave = {};
    uint32_t size = 0;
    if (read_le32(fp, &size) == 0 || size > format_bytes_limit) return false;
    std::array<uint8_t, format_bytes_limit> b{};
    if (std::fread(b.data(), 1, size, fp) != size) return false;

    const auto signed16 = [&b](size_t at) { return static_cast<int16_t>(le16(&b[at])); };
    const auto signed32 = [&b](size_t at) { return static_cast<int32_t>(le32(&b[at])); };
    wave->wFormatTag = signed16(0);
    wave->nChannels = signed16(2);
    wave->nSamplesPerSec = signed32(4);
    wave->nAvgBytesPerSec = signed32(8);
    wave->nBlockAlign = signed16(12);
    wave->wBitsPerSample = signed16(14);
    wave->cbSize = signed16(16);
    wave->wValidBitsPerSample = le16(&b[18]);
    wave->dwChannelMask = le32(&b[20]);
    std::copy_n(&b[24], wave->SubFormat.size(), wave->SubFormat.begin());
    std::copy_n(&b[40], wave->rest.size(), wave->rest.begin());
    return true;
}

// --- The two-channel description ----------------------------------------------------------------

// Bytes of one stored sample; 0 if the file has no channels.
int32_t sample_width(const wave_format &wave)
{
    return wave.nChannels == 0 ? 0 : wave.nBlockAlign / wave.nChannels;
}

// Scales size, the bytes of all stored channels, to the bytes of the two played channels.
uint64_t played_bytes(const wave_format &wave, uint64_t size)
{
    return wave.nChannels == 0 ? 0 : size * stream_channels / static_cast<uint64_t>(wave.nChannels);
}

// Changes the record to describe the two channels that are played. False if the header's values
// are out of range.
bool rewrite_to_stereo(soundfile *file, uint64_t size)
{
    wave_format &wave = file->wave;
    const int32_t width = sample_width(wave);
    if (wave.nChannels < 0 || width < 0 || width > widest_sample) return false;
    const uint64_t played = played_bytes(wave, size);
    if (played > INT64_MAX) return false; // does not fit into bytes_left

    file->bytes_left = static_cast<int64_t>(played);
    file->data_bytes = file->bytes_left;
    file->channels = wave.nChannels;
    wave.nChannels = stream_channels;
    wave.nBlockAlign = static_cast<int16_t>(stream_channels * width);
    wave.wBitsPerSample = static_cast<int16_t>(8 * width);
    return true;
}

// --- Delivery -----------------------------------------------------------------------------------

// Reads stored frames one by one and keeps the first two channels. Result: bytes stored.
int32_t read_frames(const soundfile *file, int32_t width, uint8_t *bytes, int32_t limit)
{
    std::array<uint8_t, INT16_MAX + 1> frame_buffer;
    const auto sample = static_cast<size_t>(width);
    const size_t stored = static_cast<size_t>(file->channels) * sample;
    const size_t second = file->channels > 1 ? sample : 0; // mono: the first channel again
    int32_t delivered = 0;
    while (delivered + stream_channels * width <= limit &&
           std::fread(frame_buffer.data(), stored, 1, file->fp) == 1) {
        std::memcpy(bytes + delivered, frame_buffer.data(), sample);
        std::memcpy(bytes + delivered + width, frame_buffer.data() + second, sample);
        delivered += stream_channels * width;
    }
    return delivered;
}

} // namespace

int32_t wav_open(soundfile *file)
{
    std::FILE *fp = file->fp;
    chunk_name form;
    if (!read_name(fp, &form)) return -1;

    const bool rf64 = name_is(form, "RF64");
    file->rf64 = rf64 ? flag_on : flag_off;
    ds64_sizes sizes{};
    if (rf64) {
        if (!read_rf64_header(fp, &sizes)) return -1;
    } else if (!name_is(form, "RIFF") || !skip_bytes(fp, 4) || check_tag(fp, "WAVE", 4) == 0) {
        return -1;
    }

    uint32_t data_size = 0;
    if (!walk_to(fp, "fmt ") || !read_format(fp, &file->wave)) return -1;
    if (!walk_to(fp, "data") || read_le32(fp, &data_size) == 0) return -1;

    const auto frame_bytes = static_cast<uint64_t>(int64_t{file->wave.nBlockAlign});
    if (rf64 && frame_bytes * sizes.frames != sizes.data_bytes) return -1;
    return rewrite_to_stereo(file, rf64 ? sizes.data_bytes : data_size) ? 0 : -1;
}

bool wav_skip(soundfile *file, int64_t count)
{
    const int32_t width = sample_width(file->wave);
    file->bytes_left -= count * stream_channels * width;
    const auto stored = static_cast<uint64_t>(int64_t{file->channels} * width);
    return skip_bytes(file->fp, static_cast<uint64_t>(count) * stored);
}

int32_t wav_read(soundfile *file, uint8_t *bytes, int32_t count)
{
    const int32_t width = sample_width(file->wave);
    const int32_t frame = stream_channels * width;
    const auto limit = static_cast<int32_t>(std::min<int64_t>(file->bytes_left, count));
    if (frame < 1 || limit < frame) return -1;

    int32_t delivered = 0;
    if (file->channels == stream_channels) { // the frames are read as they are stored
        const auto frames = static_cast<size_t>(limit / frame);
        const size_t got = std::fread(bytes, static_cast<size_t>(frame), frames, file->fp);
        delivered = static_cast<int32_t>(got) * frame;
    } else {
        delivered = read_frames(file, width, bytes, limit);
    }
    if (delivered == 0) return -1;
    file->bytes_left -= delivered;
    return delivered;
}
