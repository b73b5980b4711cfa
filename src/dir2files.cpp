#include "dir2files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "events.h"
#include "lookout.h"
#include "sonivane.h"
#include "util.h"

int32_t pool_count;
int32_t pool_capacity;
int32_t *pool_offsets;
char *pool_chars;
int32_t pool_chars_size;
int32_t pool_chars_used;
char **pool_list;

namespace
{

constexpr const char *unit = "dir2files";

constexpr int32_t first_capacity = 128;    // entries
constexpr int32_t first_chars_size = 1024; // bytes
constexpr int64_t largest_offset = std::numeric_limits<int32_t>::max();

constexpr size_t path_buffer_bytes = 2047; // a composed path, its terminator included
constexpr size_t compared_bytes = 2048;

// Grows *block by doubling, until *size, its room in elements, is above `used`. False, with the
// block unchanged, if out of memory or if the new size does not fit into *size.
template <typename T> bool grow(T **block, int32_t *size, int32_t first_size, int64_t used)
{
    int64_t wanted = *size == 0 ? first_size : *size;
    while (wanted <= used) wanted *= 2;
    if (wanted == *size) return true;
    if (wanted > largest_offset) return false;
    void *grown = std::realloc(*block, static_cast<size_t>(wanted) * sizeof(T));
    if (grown == nullptr) return false;
    *block = static_cast<T *>(grown);
    *size = static_cast<int32_t>(wanted);
    return true;
}

// Prints the system's text for errno on a line of its own, then the report. reason: the reason in
// the event.
void report_system_error(int32_t number, const char *format, const char *path, const char *reason)
{
    std::fprintf(stderr, "%s\n", std::strerror(errno));
    report(unit, number, format, printable(path)); // NOLINT(clang-diagnostic-format-nonliteral)
    event_left_out(path, reason);
}

// Adds directory/name, truncated to the buffer. If plays is false, it adds nothing, and sends the
// event that this name is left out.
void add_composed(const char *directory, const char *name, bool plays)
{
    std::array<char, path_buffer_bytes> path;
    const size_t length = std::strlen(directory);
    const char *separator = length > 0 && directory[length - 1] == '/' ? "" : "/";
    const int whole = std::snprintf(path.data(), path.size(), "%s%s%s", directory, separator, name);
    if (whole < 0) return;
    if (plays)
        pool_add(std::min(whole, static_cast<int32_t>(path.size()) - 1), path.data());
    else
        event_left_out(path.data(), "not a file");
}

bool is_dots(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Null at the end, with errno 0, or after an error, with errno set.
const dirent *next_entry(DIR *directory)
{
    errno = 0;
    return readdir(directory);
}

// A directory on a network may be slow, so that a stop is checked before each entry.
bool goes_on()
{
    exit_if_interrupted();
    return !is_stopped();
}

void walk_directory(const char *path)
{
    DIR *directory = opendir(path);
    if (directory == nullptr) {
        report_system_error(151, "directory %s open failed.\n", path, "cannot read");
        return;
    }
    errno = 0;
    const dirent *entry = nullptr;
    while (goes_on() && (entry = next_entry(directory)) != nullptr) {
        // Where the file system reports no types (DT_UNKNOWN), no entry counts as a file.
        if (!is_dots(entry->d_name)) add_composed(path, entry->d_name, entry->d_type == DT_REG);
    }
    if (errno != 0 && !is_stopped())
        report_system_error(153, "directory %s broke off.\n", path, "cannot read");
    closedir(directory);
}

// Sorts the names from index first to the end. The sort is stable: paths that differ only after
// compared_bytes count as equal and keep their order.
void sort_names(int32_t first)
{
    std::stable_sort(pool_offsets + first, pool_offsets + pool_count, [](int32_t a, int32_t b) {
        return std::strncmp(pool_chars + a, pool_chars + b, compared_bytes) < 0;
    });
}

// --- A list of names ----------------------------------------------------------------------------

constexpr size_t first_list_bytes = 65536;
constexpr size_t list_bytes_limit = size_t{1} << 30; // so that an endless input is refused

// The content of the list, until its names are expanded. A zero byte follows it.
char *list_text; // owned; null if there is no list
size_t list_size;
std::string_view list_folder; // ends with a slash, or empty; points into the path of the list

bool read_whole_list(int descriptor)
{
    size_t room = 0;
    ssize_t got = 0;
    for (list_size = 0;; list_size += static_cast<size_t>(got)) {
        if (list_size == room) {
            if (room >= list_bytes_limit) return false;
            room = std::max(room * 2, first_list_bytes);
            auto *grown = static_cast<char *>(std::realloc(list_text, room));
            if (grown == nullptr) return false;
            list_text = grown;
        }
        got = read(descriptor, list_text + list_size, room - list_size);
        if (got < 1) break;
    }
    list_text[list_size] = '\0';
    return got == 0;
}

// Whether the list is read from standard input. If so, keys are not read yet: reading them would
// take bytes of the list.
bool is_standard_input(int descriptor)
{
    struct stat list;
    struct stat input;
    return fstat(descriptor, &list) == 0 && fstat(STDIN_FILENO, &input) == 0 &&
           list.st_dev == input.st_dev && list.st_ino == input.st_ino;
}

// The folder of the list. A list that is read through a descriptor has none.
std::string_view folder_of(std::string_view path)
{
    for (const char *descriptors : {"/dev/fd/", "/dev/stdin", "/proc/"})
        if (path.starts_with(descriptors)) return {};
    return path.substr(0, path.rfind('/') + 1);
}

// Adds a name of a list. It keeps its place in the list, unlike a name of the command line. Only
// the files of a directory are sorted.
void walk_in_place(const char *name)
{
    if (!goes_on()) return;
    const int32_t first = pool_count;
    walk_path(name);
    sort_names(first);
}

void walk_names_with_zeros()
{
    const char *const end = list_text + list_size;
    for (const char *name = list_text; name < end; name += std::strlen(name) + 1)
        walk_in_place(name);
}

void walk_line(const char *line)
{
    if (*line == '\0' || *line == '#') return;
    if (*line == '/') return walk_in_place(line);
    char *path = nullptr;
    const auto folder_bytes = static_cast<int>(list_folder.size());
    if (asprintf(&path, "%.*s%s", folder_bytes, list_folder.data(), line) < 0) return;
    walk_in_place(path);
    std::free(path);
}

void walk_lines()
{
    static constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    char *line = list_text;
    char *const end = list_text + list_size;
    if (std::string_view(line, list_size).starts_with(byte_order_mark))
        line += byte_order_mark.size();
    while (line < end) {
        auto *feed = static_cast<char *>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
        if (feed != nullptr && feed > line && feed[-1] == '\r') feed[-1] = '\0';
        if (feed == nullptr) feed = end;
        *feed = '\0';
        walk_line(line);
        line = feed + 1;
    }
}

void walk_list()
{
    if (std::memchr(list_text, '\0', list_size) != nullptr)
        walk_names_with_zeros();
    else
        walk_lines();
    std::free(std::exchange(list_text, nullptr));
}

// --- The result ---------------------------------------------------------------------------------

char **make_list()
{
    static char *empty_list[] = {nullptr};

    const auto names = static_cast<size_t>(pool_count);
    pool_list = static_cast<char **>(std::calloc(names + 1, sizeof(char *)));
    if (pool_list == nullptr) return empty_list;
    for (size_t i = 0; i < names; ++i) pool_list[i] = pool_chars + pool_offsets[i];
    return pool_list;
}

} // namespace

void pool_reset()
{
    std::free(pool_list);
    pool_list = nullptr;
    pool_count = 0;
    pool_chars_used = 0;
}

void pool_free()
{
    pool_reset();
    std::free(pool_offsets);
    std::free(pool_chars);
    pool_offsets = nullptr;
    pool_chars = nullptr;
    pool_capacity = 0;
    pool_chars_size = 0;
}

void pool_add(int32_t length, const char *name)
{
    const int64_t used = int64_t{pool_chars_used} + length; // without the terminator
    if (!grow(&pool_offsets, &pool_capacity, first_capacity, pool_count)) return;
    if (!grow(&pool_chars, &pool_chars_size, first_chars_size, used)) return;
    pool_offsets[pool_count] = pool_chars_used;
    std::memcpy(pool_chars + pool_chars_used, name, static_cast<size_t>(length));
    pool_chars[used] = '\0';
    pool_chars_used = static_cast<int32_t>(used + 1);
    ++pool_count;
}

void walk_path(const char *path)
{
    struct stat status;
    if (stat(path, &status) != 0) {
        report_system_error(136, "cannot stat %s\n", path, "cannot stat");
        return;
    }
    if (S_ISREG(status.st_mode))
        pool_add(static_cast<int32_t>(std::strlen(path)), path);
    else if (S_ISDIR(status.st_mode))
        walk_directory(path);
    else
        event_left_out(path, "not a file");
}

char **expand_file_list(int32_t first, int32_t count, char **argv)
{
    pool_reset();
    if (list_text != nullptr) {
        walk_list();
        return make_list();
    }
    if (first >= count) walk_path(".");
    for (int32_t i = first; i < count && goes_on(); ++i) walk_path(argv[i]);
    sort_names(0);
    return make_list();
}

bool read_list(const char *path)
{
    const int descriptor = open(path, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) return false;
    if (!is_standard_input(descriptor)) read_keys();
    list_folder = folder_of(path);
    const bool whole = read_whole_list(descriptor);
    close(descriptor);
    if (!whole) std::free(std::exchange(list_text, nullptr));
    return whole;
}
