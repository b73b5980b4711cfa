// Fuzz target of the option parser and the name expansion: the input is an argument vector, one
// argument a line.
#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dir2files.h"
#include "parse_param.h"
#include "sonivane.h"

namespace
{

std::jmp_buf process_end;
bool parsing; // the process end is the parser's, not that of the program around it

void parse_and_expand(std::vector<char *> &arguments)
{
    const auto count = static_cast<int32_t>(arguments.size()) - 1;
    parse_options(count, arguments.data(), 0);
    if (args_used > count) return;
    char **names = expand_file_list(args_used, count, arguments.data());
    for (char **name = names; name[0] != nullptr && name[1] != nullptr; ++name)
        if (std::string(name[0]).compare(0, 2048, name[1], 0, 2048) > 0) std::abort();
}

} // namespace

// Linked in place of the ends of the process.
extern "C" [[noreturn]] void __wrap__Z12fatal_reportPKciS0_z(const char *, int32_t, const char *,
                                                             ...)
{
    std::longjmp(process_end, 1);
}
extern "C" [[noreturn]] void __real_exit(int status);
extern "C" [[noreturn]] void __wrap_exit(int status)
{
    if (!parsing) __real_exit(status);
    std::longjmp(process_end, 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static std::string text;
    static std::vector<char *> arguments;
    text = std::string("sonivane\n") + std::string(reinterpret_cast<const char *>(data), size);
    arguments.clear();
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        text[end] = '\0'; // the byte at size() is the string's own end
        arguments.push_back(&text[start]);
        start = end + 1;
    }
    arguments.push_back(nullptr);
    parsing = true;
    if (setjmp(process_end) == 0) parse_and_expand(arguments);
    parsing = false;
    pool_reset();
    pool_free();
    return 0;
}
