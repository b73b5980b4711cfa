#include "util.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "events.h"
#include "lookout.h"

thread_local void (*before_leaving)();

const char blank_line[] =
    "\r                                                                        ";

namespace
{

constexpr const char *unit = "util";

constexpr size_t blanks = 72;
static_assert(sizeof blank_line == 1 + blanks + 1);

// --- Reports ------------------------------------------------------------------------------------

// A report in both forms: the text that is printed, and the stop_cause, which has the message
// without the "ERROR" prefix and without line ends.
struct formatted_report {
    std::array<char, longest_sentence + 64> text;
    std::array<char, longest_sentence + 1> sentence;
    stop_cause cause;
};

// made must not be moved afterwards: its cause points into it.
[[gnu::format(printf, 4, 0)]] void format_report(formatted_report &made, const char *source,
                                                 int32_t number, const char *format,
                                                 va_list arguments)
{
    std::vsnprintf(made.sentence.data(), made.sentence.size(), format, arguments);
    std::snprintf(made.text.data(), made.text.size(), "\nERROR %s %" PRId32 " %s", source, number,
                  made.sentence.data());
    for (size_t end = std::strlen(made.sentence.data()); end > 0 && made.sentence[end - 1] == '\n';)
        made.sentence[--end] = '\0';
    made.cause = {stop_reason::report, source, number, made.sentence.data()};
}

// The text is printed after the terminal is restored and the last event is sent, because standard
// error may block or have no reader.
[[noreturn]] void leave(int32_t status, const char *text)
{
    begin_to_leave();
    terminal_restore();
    event_end(status);
    print_in_time(text);
    std::fflush(stdout);
    std::exit(status); // in some C libraries this call waits while main is blocked in a read
}

// --- Names --------------------------------------------------------------------------------------

// Whether the byte is a C0 control character or DEL. In UTF-8 these bytes never belong to another
// character.
bool is_control(char byte)
{
    return static_cast<unsigned char>(byte) < ' ' || byte == '\x7F';
}

// --- Banner -------------------------------------------------------------------------------------

constexpr int64_t seconds_per_minute = 60;
constexpr int64_t seconds_per_hour = 3600;
constexpr size_t longest_banner_path = 40; // in bytes; a longer path is printed on its own line

struct clock_time {
    int64_t hours;
    int64_t minutes; // below 60
    int64_t seconds; // below 60
};

clock_time split_seconds(int64_t seconds)
{
    return {seconds / seconds_per_hour, seconds / seconds_per_minute % 60,
            seconds % seconds_per_minute};
}

constexpr int raised_priority = -10; // added to the nice value

} // namespace

void report(const char *source, int32_t number, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    flockfile(stderr); // the lines of two threads must not mix
    std::fprintf(stderr, "\nERROR %s %" PRId32 " ", source, number);
    std::vfprintf(stderr, format, arguments);
    funlockfile(stderr);
    va_end(arguments);
}

void stopping_report(const char *source, int32_t number, const char *format, ...)
{
    static formatted_report made; // static: the cause must last as long as the process
    va_list arguments;
    va_start(arguments, format);
    format_report(made, source, number, format, arguments);
    va_end(arguments);
    stop_playing(&made.cause);
    std::fputs(made.text.data(), stderr);
}

void fatal_report(const char *source, int32_t number, const char *format, ...)
{
    formatted_report made; // lasts until the end of the process: this function does not return
    va_list arguments;
    va_start(arguments, format);
    format_report(made, source, number, format, arguments);
    va_end(arguments);
    store_release(exit_status, number);
    stop_playing(&made.cause);
    store_release(interrupted, -1);
    if (before_leaving != nullptr) before_leaving();
    leave(number, made.text.data());
}

void fatal_exit(int32_t status)
{
    static constexpr stop_cause unnumbered = {stop_reason::report, nullptr, 0};
    store_release(exit_status, status);
    stop_playing(&unnumbered);
    leave(status, "");
}

bool print_in_time(const char *text)
{
    constexpr int patience_ms = 100;
    constexpr size_t piece = 4096; // a pipe that polls as writable takes this much without blocking
    pollfd polled = {STDERR_FILENO, POLLOUT, 0};
    for (std::string_view rest = text; !rest.empty();) {
        if (poll(&polled, 1, patience_ms) != 1) return false;
        const ssize_t written = write(STDERR_FILENO, rest.data(), std::min(rest.size(), piece));
        if (written < 1) return false;
        rest.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

void open_missing_descriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) >= 0) continue;
        [[maybe_unused]] const int opened = open("/dev/null", O_RDWR); // the lowest free number
    }
}

const char *printable(const char *text)
{
    static char *shown;
    std::free(shown);
    shown = strdup(text);
    if (shown == nullptr) return "?";
    for (char *byte = shown; *byte != '\0'; ++byte)
        if (is_control(*byte)) *byte = '?';
    return shown;
}

void show_file_banner(int32_t number, int32_t count, int64_t seconds, const char *path)
{
    std::printf("%s\nplaying file %" PRId32 "/%" PRId32 " total ", blank_line, number, count);
    const clock_time time = split_seconds(seconds);
    if (seconds < seconds_per_hour)
        std::printf("%" PRId64 ":%02" PRId64 " ", time.minutes, time.seconds);
    else
        std::printf("%" PRId64 ":%02" PRId64 ":%02" PRId64 " ", time.hours, time.minutes,
                    time.seconds);

    const char *name = printable(path);
    const char *slash = std::strrchr(name, '/');
    if (slash != nullptr) std::printf("\"%s\" ", slash + 1);
    if (std::strlen(name) > longest_banner_path) std::putchar('\n');
    std::printf("\"%s\"\n", name);
    std::fflush(stdout);
}

void show_status(int64_t seconds, int32_t percent, const char *label)
{
    const clock_time time = split_seconds(seconds);
    std::fputs("\rposition ", stdout);
    if (seconds >= seconds_per_hour) std::printf("%" PRId64 ":", time.hours);
    std::printf("%02" PRId64 ":%02" PRId64 " buffer %" PRId32 "[%%]   ", time.minutes, time.seconds,
                percent);
    if (label != nullptr) std::printf("%s   ", label);
    std::putchar('\r');
    std::fflush(stdout);
}

void raise_priority()
{
    if (geteuid() != 0) return;
    errno = 0;
    // A negative result may be the new nice value: only errno shows a failure.
    if (nice(raised_priority) >= 0 || errno == 0) return;
    std::perror("nice()");
    fatal_report(unit, 145, "nice() failed.\n");
}

void raise_output_priority()
{
    sched_param least{};
    least.sched_priority = sched_get_priority_min(SCHED_FIFO);
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &least);
}

int64_t microseconds_now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

uint32_t pause_of(uint32_t buffer_frames, int32_t rate)
{
    constexpr int64_t longest = 125000;
    constexpr int64_t shortest = 100;
    const int64_t spare = int64_t{buffer_frames} - (nearly_full_frames + 1);
    return static_cast<uint32_t>(std::clamp(spare * 1000000 / rate / 4, shortest, longest));
}
