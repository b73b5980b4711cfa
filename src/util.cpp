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

// A report as it is printed, and as the cause of the end: its sentence, without head and line end.
struct laid_out_report {
    std::array<char, longest_sentence + 64> text;
    std::array<char, longest_sentence + 1> sentence;
    stop_cause cause;
};

// The report is not moved afterwards.
[[gnu::format(printf, 4, 0)]] void lay_out(laid_out_report &made, const char *source,
                                           int32_t number, const char *format, va_list arguments)
{
    std::vsnprintf(made.sentence.data(), made.sentence.size(), format, arguments);
    std::snprintf(made.text.data(), made.text.size(), "\nERROR %s %" PRId32 " %s", source, number,
                  made.sentence.data());
    for (size_t end = std::strlen(made.sentence.data()); end > 0 && made.sentence[end - 1] == '\n';)
        made.sentence[--end] = '\0';
    made.cause = {stop_reason::report, source, number, made.sentence.data()};
}

// The terminal and the last event come before the text: nobody may be there to take that.
[[noreturn]] void leave(int32_t status, const char *text)
{
    begin_to_leave();
    terminal_restore();
    event_end(status);
    print_in_time(text);
    std::fflush(stdout);
    std::exit(status); // which waits, in some C libraries, for a file that main stands in a read of
}

// --- Names --------------------------------------------------------------------------------------

// The C0 control characters and DEL. In UTF-8 none of them is part of another character.
bool is_control(char byte)
{
    return static_cast<unsigned char>(byte) < ' ' || byte == '\x7F';
}

// --- Banner -------------------------------------------------------------------------------------

constexpr int64_t seconds_per_minute = 60;
constexpr int64_t seconds_per_hour = 3600;
constexpr size_t longest_banner_path = 40; // in characters; a longer one gets a line of its own

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
    static laid_out_report made; // nobody needs more than the first one
    va_list arguments;
    va_start(arguments, format);
    lay_out(made, source, number, format, arguments);
    va_end(arguments);
    stop_playing(&made.cause);
    std::fputs(made.text.data(), stderr);
}

void fatal_report(const char *source, int32_t number, const char *format, ...)
{
    laid_out_report made; // nobody returns from here
    va_list arguments;
    va_start(arguments, format);
    lay_out(made, source, number, format, arguments);
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
    constexpr size_t piece = 4096; // a pipe that has room at all takes as much without waiting
    pollfd polled = {STDERR_FILENO, POLLOUT, 0};
    for (std::string_view rest = text; !rest.empty();) {
        if (poll(&polled, 1, patience_ms) != 1) return false;
        const ssize_t written = write(STDERR_FILENO, rest.data(), std::min(rest.size(), piece));
        if (written < 1) return false;
        rest.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

void hold_standard_descriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) >= 0) continue;
        [[maybe_unused]] const int held = open("/dev/null", O_RDWR); // the lowest free one
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
    // A negative result may be the new nice value itself.
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

uint32_t pause_of(uint32_t buffer_frames, int32_t rate)
{
    constexpr int64_t longest = 125000;
    constexpr int64_t shortest = 100;
    const int64_t spare = int64_t{buffer_frames} - (nearly_full_frames + 1);
    return static_cast<uint32_t>(std::clamp(spare * 1000000 / rate / 4, shortest, longest));
}
