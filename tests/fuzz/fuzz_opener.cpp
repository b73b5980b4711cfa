// Fuzz target of the opener and the readers as a run uses them: opened at the probe and once more
// to be read to its end, a file must get the same verdict and the same record.
#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstdlib>
#include <optional>

#include "dsf.h"
#include "make_files.h"
#include "sonivane.h"

namespace
{

std::jmp_buf fatal_end;

// What the opener decides about a file.
struct verdict {
    int32_t result; // -2: a fatal report
    int32_t sample_format, sample_bytes, channels, block_bytes, container;
    int64_t bytes_left, data_bytes;
    std::array<uint8_t, sizeof(wave_format)> wave;
    feeder_slot feeder;
    reader_slot reader;
    long offset; // of the first sound byte

    bool operator==(const verdict &) const = default;
};

// Every call but the last two delivers sound, so a file of size bytes ends within so many.
void read_to_the_end(soundfile &record, size_t size)
{
    const bool pcm = record.container == container_wav;
    const int32_t count =
        pcm ? 3072 / std::max<int32_t>(1, record.wave.nBlockAlign) * record.wave.nBlockAlign
            : dsd_group_bytes;
    std::array<uint8_t, 3072> bytes;
    size_t calls = 4 * size + 16;
    for (int32_t got = 1; got > 0; --calls) {
        got = read_samples(&record, bytes.data(), count);
        if (got > count || calls == 0) std::abort();
    }
}

verdict open_once(const char *path, size_t size, bool read)
{
    static std::optional<soundfile> fresh; // static: it stays whole when the opener is left
    soundfile &record = fresh.emplace();
    record.path = const_cast<char *>(path);
    verdict v{};
    fill_buffer = nullptr;
    read_samples = nullptr;
    v.result = setjmp(fatal_end) == 0 ? open_soundfile(&record) : -2;
    if (v.result == 0) {
        v.sample_format = record.sample_format;
        v.sample_bytes = record.sample_bytes;
        v.channels = record.channels;
        v.block_bytes = record.block_bytes;
        v.container = record.container;
        v.bytes_left = record.bytes_left;
        v.data_bytes = record.data_bytes;
        v.wave = std::bit_cast<decltype(v.wave)>(record.wave);
        v.feeder = fill_buffer;
        v.reader = read_samples;
        v.offset = std::ftell(record.fp);
        if (read) read_to_the_end(record, size);
    }
    std::fclose(record.fp);
    return v;
}

} // namespace

// Linked in place of the report of a sample width that the player does not know.
extern "C" [[noreturn]] void __wrap__Z12fatal_reportPKciS0_z(const char *, int32_t, const char *,
                                                             ...)
{
    std::longjmp(fatal_end, 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *path = memory_file(data, size);
    if (open_once(path, size, false) != open_once(path, size, true)) std::abort();
    dsf_release();
    return 0;
}
