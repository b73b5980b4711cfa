// Fuzz target of the opener as the probing uses it: opened, closed and opened once more, a file
// must get the same verdict and the same record.
#include <csetjmp>
#include <cstring>
#include <optional>

#include "dsf.h"
#include "fuzz_file.h"
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

verdict open_once(const char *path)
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
        std::memcpy(v.wave.data(), &record.wave, v.wave.size());
        v.feeder = fill_buffer;
        v.reader = read_samples;
        v.offset = std::ftell(record.fp);
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
    const char *path = fuzz_file_path(data, size);
    const verdict first = open_once(path);
    const verdict second = open_once(path);
    if (first != second) std::abort();
    dsf_release();
    return 0;
}
