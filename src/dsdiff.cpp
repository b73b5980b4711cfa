#include "dsdiff.h"

#include <algorithm>
#include <array>

#include "readwrite.h"

namespace
{

constexpr uint16_t least_channels = 2;
constexpr uint16_t most_channels = 6;
constexpr uint8_t map_unset = 0xFF;
constexpr uint64_t chunk_header_bytes = 12; // name, 64-bit size
constexpr size_t name_bytes = 4;

// One chunk's header.
struct chunk {
    chunk_name name;
    uint64_t size; // bytes of the body, without the pad byte after an odd body
};

// The state of the parser.
struct walk {
    soundfile *file;
    uint32_t rate; // of "FS  ", in Hz
    bool has_rate;
    bool has_channels;
};

bool read_chunk(std::FILE *fp, chunk *c)
{
    return read_name(fp, &c->name) && read_be64(fp, &c->size) != 0;
}

// Bytes of a whole chunk in its parent chunk: header, body and pad byte. If the sizes of the chunks
// exceed that of their parent, the remaining size wraps to a very large number and the walk goes on
// to the end of the file.
uint64_t whole_bytes(const chunk &c)
{
    return chunk_header_bytes + c.size + (c.size & 1);
}

// Skips the body of a chunk and its pad byte. A size that would move the stream above 2^63 - 1 is
// refused, so that every step goes forward.
bool skip_body(std::FILE *fp, uint64_t size)
{
    return skip_bytes(fp, size) && skip_bytes(fp, size & 1);
}

// --- Property sub-chunks: each function reads one body; false: it is not well-formed ------------

bool parse_rate(walk *w, uint64_t size)
{
    w->has_rate = true;
    return read_be32(w->file->fp, &w->rate) != 0 && size == 4;
}

// The role that a channel's name gives it.
enum class channel_role { left, right, other, unknown };

channel_role role_of(const chunk_name &name)
{
    static constexpr struct {
        const char *name;
        channel_role role;
    } names[] = {
        {"SLFT", channel_role::left},  {"MLFT", channel_role::left},  {"SRGT", channel_role::right},
        {"MRGT", channel_role::right}, {"C   ", channel_role::other}, {"LFE ", channel_role::other},
        {"LS  ", channel_role::other}, {"RS  ", channel_role::other},
    };
    for (const auto &row : names)
        if (name_is(name, row.name)) return row.role;
    return channel_role::unknown;
}

// If the list names no channel for a side, the side gets the first place that the other side does
// not have.
void fill_unset_sides(std::array<uint8_t, 8> &map)
{
    for (const size_t side : {size_t{0}, size_t{1}})
        if (map[side] == map_unset) map[side] = map[1 - side] == 0 ? 1 : 0;
}

bool parse_channels(walk *w, uint64_t size)
{
    uint16_t count = 0;
    if (read_be16(w->file->fp, &count) == 0) return false;
    w->file->channels = count;
    if (count < least_channels || count > most_channels) return false;

    auto &map = w->file->channel_map;
    std::fill_n(map.begin(), most_channels, map_unset);
    for (uint16_t i = 0; i < count; ++i) {
        chunk_name name;
        if (!read_name(w->file->fp, &name)) return false;
        const auto place = static_cast<uint8_t>(i);
        switch (role_of(name)) {
        case channel_role::left:
            map[0] = place;
            break;
        case channel_role::right:
            map[1] = place;
            break;
        case channel_role::other:
            if (i != 1 || map[1] == map_unset) map[i] = place; // keeps a right channel found before
            break;
        case channel_role::unknown:
            return false;
        }
    }
    fill_unset_sides(map);
    w->has_channels = true;
    return size == 2 + name_bytes * count;
}

// The text of "CMPR" is read by its own length byte, not by the chunk's size. A pad byte follows if
// the length byte and the text together have an odd number of bytes.
bool parse_compression(walk *w, uint64_t)
{
    std::FILE *fp = w->file->fp;
    chunk_name name;
    if (!read_name(fp, &name) || (!name_is(name, "DSD ") && !name_is(name, "DST "))) return false;
    const int length = std::fgetc(fp);
    if (length == EOF || !skip_bytes(fp, static_cast<uint64_t>(length))) return false;
    return length % 2 != 0 || std::fgetc(fp) != EOF;
}

bool parse_start_time(walk *w, uint64_t size)
{
    std::FILE *fp = w->file->fp;
    uint16_t hours = 0;
    uint32_t samples = 0;
    if (read_be16(fp, &hours) == 0) return false;
    std::fgetc(fp); // minutes
    std::fgetc(fp); // seconds
    return read_be32(fp, &samples) != 0 && size == 8;
}

bool parse_speakers(walk *w, uint64_t size)
{
    uint16_t layout = 0;
    return read_be16(w->file->fp, &layout) != 0 && size == 2;
}

bool parse_property(walk *w, const chunk &c)
{
    static constexpr struct {
        const char *name;
        bool (*parse)(walk *w, uint64_t size);
    } parsers[] = {
        {"FS  ", parse_rate},       {"CHNL", parse_channels}, {"CMPR", parse_compression},
        {"ABSS", parse_start_time}, {"LSCO", parse_speakers},
    };
    for (const auto &row : parsers)
        if (name_is(c.name, row.name)) return row.parse(w, c.size);
    return skip_body(w->file->fp, c.size);
}

// Parses the body of "PROP".
bool parse_properties(walk *w, uint64_t size)
{
    chunk_name type;
    if (!read_name(w->file->fp, &type) || !name_is(type, "SND ")) return false;
    uint64_t ahead = size - name_bytes;
    while (ahead != 0) {
        chunk c;
        if (!read_chunk(w->file->fp, &c) || !parse_property(w, c)) return false;
        ahead -= whole_bytes(c);
    }
    return size % 2 == 0 || skip_bytes(w->file->fp, 1);
}

// --- Top-level chunks ---------------------------------------------------------------------------

bool parse_version(walk *w, uint64_t size)
{
    uint32_t version = 0;
    return read_be32(w->file->fp, &version) != 0 && size == 4;
}

// Called at the chunk of the sound. Sets length and rate in the record, from the size of the chunk
// and the properties. False if there was no property with the rate or with the channels.
bool describe_sound(walk *w, uint64_t size)
{
    if (!w->has_rate || !w->has_channels) return false;
    soundfile *file = w->file;
    set_dsd_length(file, static_cast<int64_t>(size * 8 / static_cast<uint64_t>(file->channels)));
    file->wave.nSamplesPerSec = static_cast<int32_t>(w->rate);
    return true;
}

bool parse_top_level(walk *w, const chunk &c)
{
    if (name_is(c.name, "FVER")) return parse_version(w, c.size);
    if (name_is(c.name, "PROP")) return parse_properties(w, c.size);
    if (name_is(c.name, "DST ") || name_is(c.name, "DSTI")) return false;
    return skip_body(w->file->fp, c.size);
}

} // namespace

int32_t dsdiff_open(soundfile *file)
{
    walk w = {file, 0, false, false};
    uint64_t form_bytes = 0;
    if (check_tag(file->fp, "FRM8", 4) == 0 || read_be64(file->fp, &form_bytes) == 0 ||
        check_tag(file->fp, "DSD ", 4) == 0)
        return -1;
    uint64_t ahead = form_bytes - name_bytes;
    while (ahead != 0) {
        chunk c;
        if (!read_chunk(file->fp, &c)) return -1;
        if (name_is(c.name, "DSD ")) return describe_sound(&w, c.size) ? 0 : -1;
        if (!parse_top_level(&w, c)) return -1;
        ahead -= whole_bytes(c);
    }
    return -1;
}

bool dsdiff_skip(soundfile *file, int64_t count)
{
    return skip_bytes(file->fp, static_cast<uint64_t>(count * file->channels));
}

int32_t dsdiff_read(soundfile *file, uint8_t *bytes, int32_t count)
{
    constexpr size_t batch = 512;     // frames of one read
    constexpr size_t frame_limit = 8; // bytes; WSD files, also read here, have up to 8
    // Unlocked calls: only one thread reads files, and the lock of the stream would cost as much as
    // all the rest of a small call.
    if (file == nullptr || file->fp == nullptr || feof_unlocked(file->fp) != 0) return -1;

    std::array<uint8_t, batch * frame_limit> frame_buffer;
    const auto frame_bytes = static_cast<size_t>(file->channels);
    const uint8_t *left = &frame_buffer[file->channel_map[0]];
    const uint8_t *right = &frame_buffer[file->channel_map[1]];
    const int32_t wanted = count / dsd_group_bytes * dsd_group_bytes;
    int32_t done = 0;
    while (done < wanted) {
        const size_t asked = std::min(static_cast<size_t>(wanted - done) / stream_channels, batch);
        const size_t frames = fread_unlocked(frame_buffer.data(), frame_bytes, asked, file->fp);
        for (size_t i = 0; i < frames; ++i) {
            bytes[done++] = left[i * frame_bytes];
            bytes[done++] = right[i * frame_bytes];
        }
        if (frames < asked) break;
    }
    while (done % dsd_group_bytes != 0) bytes[done++] = dsd_fill_byte;
    return done;
}
