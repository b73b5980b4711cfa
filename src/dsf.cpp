#include "dsf.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "readwrite.h"
#include "util.h"

namespace
{

constexpr uint32_t usual_block_bytes = 4096;
constexpr uint64_t largest_offset = INT64_MAX;

// The entry for a byte has the byte's bit i at bit 7 - i.
constexpr std::array<uint8_t, 256> bit_reverse = [] {
    std::array<uint8_t, 256> table{};
    for (unsigned v = 0; v < table.size(); ++v) {
        for (unsigned bit = 0; bit < 8; ++bit)
            table[v] = static_cast<uint8_t>(table[v] | (v >> bit & 1) << (7 - bit));
    }
    return table;
}();

// A block pair of the file that is being read: the left block at 0, the right block at block_bytes.
uint8_t *dsf_buffer;
uint32_t dsf_buffer_size; // bytes allocated
int32_t dsf_position;     // of the next byte to read, in both blocks

// --- Header -------------------------------------------------------------------------------------

bool seek_to(std::FILE *fp, uint64_t offset)
{
    return offset <= largest_offset && fseeko(fp, static_cast<off_t>(offset), SEEK_SET) == 0;
}

void clear_dsf_fields(soundfile *file)
{
    file->dsf_version = 0;
    file->dsf_format_id = 0;
    file->dsf_channel_type = 0;
    file->dsf_channel_num = 0;
    file->dsf_sampling_frequency = 0;
    file->dsf_bits_per_sample = 0;
    file->dsf_sample_count = 0;
    file->dsf_block_size = 0;
    file->dsf_bytes_left = 0;
}

// Reads the "DSD " and "fmt " chunks. *data_offset: the start of the "data" chunk, which is the sum
// of both chunks' sizes.
bool read_header(soundfile *file, uint64_t *data_offset)
{
    std::FILE *fp = file->fp;
    uint64_t dsd_size = 0;
    uint64_t format_size = 0;
    if (check_tag(fp, "DSD ", 4) == 0 || read_le64(fp, &dsd_size) == 0 || !seek_to(fp, dsd_size) ||
        check_tag(fp, "fmt ", 4) == 0 || read_le64(fp, &format_size) == 0)
        return false;
    // The sum must not wrap around. A sum above largest_offset fails at the seek to it.
    *data_offset = dsd_size + std::min(format_size, largest_offset + 1);
    return read_le32(fp, &file->dsf_version) != 0 && read_le32(fp, &file->dsf_format_id) != 0 &&
           read_le32(fp, &file->dsf_channel_type) != 0 &&
           read_le32(fp, &file->dsf_channel_num) != 0 &&
           read_le32(fp, &file->dsf_sampling_frequency) != 0 &&
           read_le32(fp, &file->dsf_bits_per_sample) != 0 &&
           read_le64(fp, &file->dsf_sample_count) != 0 && read_le32(fp, &file->dsf_block_size) != 0;
}

// Leaves the stream at the first block of the "data" chunk. The chunk's size is not used: the
// sample count gives the end of the sound.
bool read_data_header(std::FILE *fp, uint64_t offset)
{
    uint64_t size = 0;
    return seek_to(fp, offset) && check_tag(fp, "data", 4) != 0 && read_le64(fp, &size) != 0;
}

int64_t bytes_per_channel(const soundfile *file)
{
    return static_cast<int64_t>((file->dsf_sample_count + 7) / 8);
}

// --- Blocks -------------------------------------------------------------------------------------

uint64_t pair_bytes(const soundfile *file)
{
    return uint64_t{file->dsf_block_size} * stream_channels;
}

// Whether the rest of the file is long enough for a block pair. A pair that is not there is never
// read and gets no memory.
bool file_holds_pair(const soundfile *file)
{
    struct stat status;
    const off_t here = ftello(file->fp);
    return here >= 0 && fstat(fileno(file->fp), &status) == 0 && status.st_size >= here &&
           pair_bytes(file) <= static_cast<uint64_t>(status.st_size - here);
}

// Makes dsf_buffer large enough for a block pair of the file, if the file holds one. It never
// shrinks. False if the blocks are too large or if out of memory.
bool provide_buffer(const soundfile *file)
{
    const uint64_t wanted = pair_bytes(file);
    if (file->dsf_block_size > INT32_MAX) return false; // dsf_position counts in 32 bits
    if (wanted <= dsf_buffer_size || !file_holds_pair(file)) return true;
    auto *buffer = static_cast<uint8_t *>(std::realloc(dsf_buffer, static_cast<size_t>(wanted)));
    if (buffer == nullptr) {
        dsf_release();
        return false;
    }
    dsf_buffer = buffer;
    dsf_buffer_size = static_cast<uint32_t>(wanted);
    return true;
}

// Reads the next block of both channels. False if the file ends first; then the stream's
// end-of-file flag is set.
bool read_block_pair(const soundfile *file)
{
    const auto pair = static_cast<size_t>(pair_bytes(file));
    if (pair <= dsf_buffer_size) return std::fread(dsf_buffer, 1, pair, file->fp) == pair;
    // The buffer is too small because the file has less than one pair. Only a read at the end sets
    // the end-of-file flag.
    fseeko(file->fp, 0, SEEK_END);
    std::fgetc(file->fp);
    return false;
}

// Reads the next block of both channels and skips those of the other channels. False if the file
// ends first.
bool load_block_pair(const soundfile *file)
{
    if (file->block_bytes == 0 || !read_block_pair(file)) return false;
    const int64_t others = int64_t{file->channels} - stream_channels;
    if (others > 0 && !skip_bytes(file->fp, static_cast<uint64_t>(others * file->block_bytes)))
        return false;
    dsf_position = 0;
    return true;
}

} // namespace

int32_t dsf_open(soundfile *file)
{
    clear_dsf_fields(file);
    uint64_t data_offset = 0;
    if (!read_header(file, &data_offset)) return -1;
    if (file->dsf_block_size != usual_block_bytes)
        report("dsf", 142, "DSF block size if %d\n", static_cast<int32_t>(file->dsf_block_size));
    if (file->dsf_bits_per_sample > 1 || file->dsf_channel_num < stream_channels ||
        file->dsf_format_id != 0)
        return -1;
    file->channels = static_cast<int32_t>(file->dsf_channel_num);
    file->block_bytes = static_cast<int32_t>(file->dsf_block_size);
    if (!read_data_header(file->fp, data_offset)) return -1;
    file->dsf_bytes_left = bytes_per_channel(file);
    if (!provide_buffer(file)) return -1;
    set_dsd_length(file, static_cast<int64_t>(static_cast<uint64_t>(file->dsf_bytes_left) * 8));
    file->wave.nSamplesPerSec = static_cast<int32_t>(file->dsf_sampling_frequency);
    return 0;
}

bool dsf_skip(soundfile *file, int64_t count)
{
    if (file->block_bytes == 0) return false;
    const int64_t stored = int64_t{file->block_bytes} * std::max(file->channels, stream_channels);
    const int64_t blocks = count / file->block_bytes;
    if (blocks > INT64_MAX / stored ||
        !skip_bytes(file->fp, static_cast<uint64_t>(blocks * stored)))
        return false;
    const auto into_block = static_cast<int32_t>(count % file->block_bytes);
    file->dsf_bytes_left -= count;
    dsf_position = file->block_bytes; // so that the next block pair is read first
    if (into_block == 0) return true;
    if (!load_block_pair(file)) return false;
    dsf_position = into_block;
    return true;
}

int32_t dsf_read(soundfile *file, uint8_t *bytes, int32_t count)
{
    if (file == nullptr || file->fp == nullptr || feof_unlocked(file->fp) != 0 ||
        file->dsf_bytes_left <= 0)
        return -1;
    // Before the first read of a file the buffer may hold a block pair of another file.
    if (file->dsf_bytes_left == bytes_per_channel(file)) dsf_position = file->block_bytes;

    const int32_t wanted = count / dsd_group_bytes * dsd_group_bytes;
    int32_t done = 0;
    while (done < wanted && file->dsf_bytes_left > 0) {
        if (dsf_position >= file->block_bytes && !load_block_pair(file)) break;
        const int64_t pairs =
            std::min({int64_t{file->block_bytes} - dsf_position,
                      int64_t{(wanted - done) / stream_channels}, file->dsf_bytes_left});
        const uint8_t *left = dsf_buffer + dsf_position;
        const uint8_t *right = left + file->block_bytes;
        for (int64_t i = 0; i < pairs; ++i) {
            bytes[done++] = bit_reverse[left[i]];
            bytes[done++] = bit_reverse[right[i]];
        }
        dsf_position += static_cast<int32_t>(pairs);
        file->dsf_bytes_left -= pairs;
    }
    while (done % dsd_group_bytes != 0) bytes[done++] = dsd_fill_byte;
    return done;
}

void dsf_release()
{
    std::free(dsf_buffer);
    dsf_buffer = nullptr;
    dsf_buffer_size = 0;
}
