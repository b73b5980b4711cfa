// Fuzz targets. FUZZ_TARGET names one: fuzz_opener, whose input is a sound file, or
// fuzz_command_line, whose input is an argument vector, one argument a line.
#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "dir2files.h"
#include "dsf.h"
#include "make_files.h"
#include "parse_param.h"
#include "sonivane.h"

namespace
{

std::jmp_buf process_end;
bool in_player; // the process end is the player's, not that of the program around it

// --- The opener and the readers -----------------------------------------------------------------

// Every call but the last two delivers sound, so a file of size bytes ends within so many.
void read_to_the_end(soundfile &record, size_t size)
{
    const int32_t frame = std::max<int32_t>(1, record.wave.nBlockAlign);
    const int32_t count =
        record.container == container_wav ? 3072 / frame * frame : dsd_group_bytes;
    std::array<uint8_t, 3072> bytes;
    size_t calls = 4 * size + 16;
    for (int32_t got = 1; got > 0; --calls) {
        got = read_samples(&record, bytes.data(), count);
        if (got > count || calls == 0) std::abort();
    }
}

// What the opener decides about a file; -2 first: a report that ends the process.
using verdict = std::array<int64_t, 6>;

verdict open_once(const char *path, size_t size)
{
    static std::optional<soundfile> fresh; // static: it stays whole when the opener is left
    soundfile &record = fresh.emplace();
    record.path = const_cast<char *>(path);
    verdict told = {-2};
    if (setjmp(process_end) == 0 && open_soundfile(&record) == 0) {
        told = {record.container,  record.sample_format, record.channels,
                record.bytes_left, record.data_bytes,    std::ftell(record.fp)};
        read_to_the_end(record, size);
    }
    std::fclose(record.fp);
    return told;
}

// As in a run: opened at the probe and once more at its turn, a file must get the same verdict.
[[maybe_unused]] void fuzz_opener(const uint8_t *data, size_t size)
{
    const char *path = memory_file(data, size);
    if (open_once(path, size) != open_once(path, size)) std::abort();
    dsf_release();
}

// --- The command line ---------------------------------------------------------------------------

void parse_and_expand(std::vector<char *> &arguments)
{
    const auto count = static_cast<int32_t>(arguments.size()) - 1;
    parse_options(count, arguments.data(), 0);
    if (args_used > count) return;
    char **names = expand_file_list(args_used, count, arguments.data());
    for (char **name = names; name[0] != nullptr && name[1] != nullptr; ++name)
        if (std::string(name[0]).compare(0, 2048, name[1], 0, 2048) > 0) std::abort();
}

[[maybe_unused]] void fuzz_command_line(const uint8_t *data, size_t size)
{
    static std::vector<std::string> lines; // static: they stay whole when the parser is left
    static std::vector<char *> arguments;
    std::istringstream text(std::string(data, data + size));
    lines = {"sonivane"};
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    arguments.clear();
    for (std::string &line : lines) arguments.push_back(line.data());
    arguments.push_back(nullptr);
    if (setjmp(process_end) == 0) parse_and_expand(arguments);
    pool_free();
}

} // namespace

// Linked in place of the ends of the process.
extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status)
{
    if (!in_player) __real_exit(status);
    std::longjmp(process_end, 1);
}
extern "C" [[noreturn]] void __wrap__Z12fatal_reportPKciS0_z(const char *, int32_t, const char *,
                                                             ...)
{
    std::longjmp(process_end, 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    in_player = true;
    FUZZ_TARGET(data, size);
    in_player = false;
    return 0;
}

#ifdef REPLAY
// Without libFuzzer: the files of the named directory, once each.
int main(int, char **argv)
{
    int inputs = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const std::vector<uint8_t> input(text.begin(), text.end()); // its ends are watched
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++inputs;
    }
    return inputs > 0 ? 0 : 1;
}
#endif
