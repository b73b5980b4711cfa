// Fuzz target of one parser with its read function, run to the end of the file; FUZZ_OPEN and
// FUZZ_READ name them. The input is the file.
#include <algorithm>
#include <array>
#include <cstdlib>

#include "dsdiff.h"
#include "dsf.h"
#include "fuzz_file.h"
#include "wav.h"
#include "wsd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    soundfile record{};
    record.fp = open_fuzz_file(data, size);
    if (FUZZ_OPEN(&record) == 0) {
        // Every call but the last delivers sound, so a file of size bytes ends within this many.
        size_t calls = 4 * size + 16;
        std::array<uint8_t, 3072> bytes;
        const int32_t count = FUZZ_COUNT;
        for (int32_t got = 1; got > 0; --calls) {
            got = FUZZ_READ(&record, bytes.data(), count);
            if (got > count || calls == 0) std::abort();
        }
    }
    std::fclose(record.fp);
    dsf_release();
    return 0;
}
