#include "wsd.h"

#include <optional>

#include "dsdiff.h"
#include "readwrite.h"

namespace
{

constexpr int32_t most_channels = 8;

// The fields of the header that are used. Sizes and offsets are in bytes.
struct wsd_header {
    uint32_t file_size_low;            // at 12: size of the whole file with its header
    uint32_t file_size_high;           // at 16
    uint32_t data_offset;              // at 24
    uint32_t frequency;                // at 36, in Hz
    int32_t channels;                  // at 44
    std::array<uint8_t, 4> assignment; // at 48
};

bool read_plain(std::FILE *fp, std::array<uint8_t, 4> *bytes)
{
    return std::fread(bytes->data(), 1, bytes->size(), fp) == bytes->size();
}

// Reads the fixed layout up to the channel count, in file order. A skip beyond the end of the file
// succeeds; the next read then fails.
bool read_layout(std::FILE *fp, wsd_header *h)
{
    uint32_t unused = 0;
    std::array<uint8_t, 4> plain;
    if (check_tag(fp, "1bit", 4) == 0 || !skip_bytes(fp, 8)) return false;
    if (read_be32(fp, &h->file_size_low) == 0 || read_be32(fp, &h->file_size_high) == 0 ||
        read_be32(fp, &unused) == 0 || read_be32(fp, &h->data_offset) == 0 || !skip_bytes(fp, 4))
        return false;
    if (!read_plain(fp, &plain) || read_be32(fp, &h->frequency) == 0 || !skip_bytes(fp, 4))
        return false;
    h->channels = std::fgetc(fp);
    return h->channels <= most_channels;
}

// Places of left and right in a stored frame. The channels of a frame are in the order of the bits
// of the assignment's first byte, highest bit first.
struct places {
    uint8_t left;
    uint8_t right;
};

std::optional<places> places_of(const std::array<uint8_t, 4> &assignment)
{
    const uint8_t b = assignment[0];
    const auto bit = [b](int n) { return b >> n & 1; };
    if (b == 0) {
        if ((assignment[1] | assignment[2] | assignment[3]) != 0) return std::nullopt;
        return places{0, 1};
    }
    if ((b & 0x44) == 0x44) return places{0, static_cast<uint8_t>(1 + bit(5) + bit(4) + bit(3))};
    if ((b & 0x28) != 0x28) return std::nullopt;
    if (bit(6) != 0) return places{1, 0};
    return places{0, static_cast<uint8_t>(1 + bit(4))};
}

// Sets the record's channel map. A mono file plays on both sides. False if the assignment is not
// supported, or if it names a channel that the file does not have. The second condition is not
// checked for a mono file.
bool set_channel_map(soundfile *file, const std::array<uint8_t, 4> &assignment)
{
    const auto found = places_of(assignment);
    if (!found) return false;
    file->channel_map[0] = file->channels == 1 ? 0 : found->left;
    file->channel_map[1] = file->channels == 1 ? 0 : found->right;
    return file->channels < 2 || (found->left < file->channels && found->right < file->channels);
}

// Bits of one channel. Negative if the data offset is after the end of the file.
int64_t bits_per_channel(const wsd_header &h)
{
    if (h.channels < 1) return 0;
    const uint64_t file_size = uint64_t{h.file_size_high} << 32 | h.file_size_low;
    const auto offset = static_cast<uint64_t>(int64_t{static_cast<int32_t>(h.data_offset)});
    return static_cast<int64_t>((file_size - offset) * 8) / h.channels;
}

} // namespace

int32_t wsd_open(soundfile *file)
{
    wsd_header h{};
    if (!read_layout(file->fp, &h)) return -1;
    file->channels = h.channels;
    set_dsd_length(file, bits_per_channel(h));
    if (!skip_bytes(file->fp, 3) || !read_plain(file->fp, &h.assignment) ||
        !set_channel_map(file, h.assignment))
        return -1;
    const auto offset = static_cast<int32_t>(h.data_offset);
    if (fseeko(file->fp, offset, SEEK_SET) != 0) return -1;
    file->wave.nSamplesPerSec = static_cast<int32_t>(h.frequency);
    return 0;
}

bool wsd_skip(soundfile *file, int64_t count)
{
    return dsdiff_skip(file, count);
}

int32_t wsd_read(soundfile *file, uint8_t *bytes, int32_t count)
{
    return dsdiff_read(file, bytes, count);
}
