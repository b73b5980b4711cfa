// The fuzz target: the opener and the readers. The input is a sound file.
#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "dsf.h"
#include "make_files.h"
#include "sonivane.h"

namespace
{

std::jmp_buf fatal_end;

// Reads to the end of the file. Every call except the last two delivers sound, so the number of
// calls is limited by the size of the file.
void read_to_the_end(soundfile &record, size_t size)
{
    const int32_t frame = std::max<int32_t>(1, record.wave.nBlockAlign);
    const int32_t count = is_dsd(&record) ? dsd_group_bytes : 3072 / frame * frame;
    std::array<uint8_t, 3072> bytes;
    size_t calls = 4 * size + 16;
    for (int32_t got = 1; got > 0; --calls) {
        got = read_samples(&record, bytes.data(), count);
        if (got > count || calls == 0) std::abort();
    }
}

// Opens the file and reads it, beginning at the frame (PCM) or byte of a channel (DSD) `from`.
// Result: fields of the record; the first one is -2 if the file was refused or a fatal report came.
std::array<int64_t, 6> open_once(const char *path, size_t size, int64_t from = 0)
{
    static std::optional<soundfile> fresh; // static: it keeps its value after longjmp
    soundfile &record = fresh.emplace();
    record.path = const_cast<char *>(path);
    std::array<int64_t, 6> found = {-2};
    if (setjmp(fatal_end) == 0 && open_soundfile(&record) == 0) {
        found = {record.container,  record.sample_format, record.channels,
                 record.bytes_left, record.data_bytes,    std::ftell(record.fp)};
        record.wave.nSamplesPerSec =
            record.container == container_wav ? 1 : 8; // one frame, or one byte, in a second
        if (from == 0 || begin_at(&record, {from, 0})) read_to_the_end(record, size);
    }
    std::fclose(record.fp);
    return found;
}

} // namespace

// Linked in place of fatal_report.
extern "C" [[noreturn]] void __wrap__Z12fatal_reportPKciS0_z(const char *, int32_t, const char *,
                                                             ...)
{
    std::longjmp(fatal_end, 1);
}

// The player opens each file at the probe and again to play it. Both must give the same result.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *path = memory_file(data, size);
    if (open_once(path, size) != open_once(path, size)) std::abort();
    open_once(path, size, static_cast<int64_t>(size % 64));
    dsf_release();
    return 0;
}

#ifdef REPLAY
// Without libFuzzer: runs the target once with each file of the directory.
int main(int, char **argv)
{
    int inputs = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const bytes input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++inputs;
    }
    return inputs > 0 ? 0 : 1;
}
#endif
