#include "util.h"

#include <asm/termbits.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "events.h"
#include "sonivane.h"

const char blank_line[] =
    "\r                                                                        ";

namespace
{

constexpr const char *unit = "util";

constexpr size_t blanks = 72;
static_assert(sizeof blank_line == 1 + blanks + 1);

// --- Reports ------------------------------------------------------------------------------------

std::atomic<bool> leaving; // set by the thread that ends the process

// The lines of two threads must not mix.
[[gnu::format(printf, 3, 0)]] void print_report(const char *source, int32_t number,
                                                const char *format, va_list arguments)
{
    flockfile(stderr);
    std::fprintf(stderr, "\nERROR %s %d ", source, number);
    std::vfprintf(stderr, format, arguments);
    std::fflush(stderr);
    funlockfile(stderr);
}

// --- Terminal -----------------------------------------------------------------------------------

std::atomic<int32_t> terminal_is_raw; // terminal_saved holds settings to put back
struct termio terminal_saved;         // written by terminal_raw, before the flag
std::atomic<bool> terminal_given_up;  // SIGTSTP found it raw

void set_raw_mode()
{
    struct termio raw = terminal_saved;
    raw.c_lflag = static_cast<unsigned short>(raw.c_lflag & ~ICANON);
    ioctl(STDIN_FILENO, TCSETAF, &raw);
}

// The handlers below call only what is safe in one.

void restore_and_die(int signal_number)
{
    terminal_restore();
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number); // acts once this handler has returned
}

void restore_and_stop(int signal_number)
{
    if (load_acquire(terminal_is_raw) != 0) terminal_given_up = true;
    restore_and_die(signal_number);
}

// A player continued in the background leaves the terminal to its shell.
void take_terminal_back(int)
{
    std::signal(SIGTSTP, restore_and_stop);
    if (tcgetpgrp(STDIN_FILENO) != getpgrp()) return;
    if (terminal_given_up.exchange(false))
        terminal_raw();
    else if (load_acquire(terminal_is_raw) != 0) // stopped by SIGSTOP, with no handler in between
        set_raw_mode();
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

constexpr char stop_key = 3;
constexpr int raised_priority = -10; // added to the nice value

} // namespace

void report(const char *source, int32_t number, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_report(source, number, format, arguments);
    va_end(arguments);
}

void fatal_report(const char *source, int32_t number, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_report(source, number, format, arguments);
    va_end(arguments);
    const stop_cause cause = {stop_reason::report, source, number}; // nobody returns from here
    stop_playing(&cause);
    store_release(interrupted, flag_on);
    fatal_exit(number);
}

void fatal_exit(int32_t status)
{
    static constexpr stop_cause unnumbered = {stop_reason::report, nullptr, 0};
    stop_playing(&unnumbered);
    // Two calls of exit at once are undefined: the second thread waits for the first one's.
    while (leaving.exchange(true)) pause();
    terminal_restore();
    event_end(status);
    std::exit(status);
}

void terminal_raw()
{
    if (load_acquire(terminal_is_raw) != 0) return;
    ioctl(STDIN_FILENO, TCGETA, &terminal_saved);
    // The flag comes first: a signal's handler that ends the process here still puts all back.
    store_release(terminal_is_raw, flag_on);
    set_raw_mode();
}

void terminal_restore()
{
    if (terminal_is_raw.exchange(flag_off) != 0) ioctl(STDIN_FILENO, TCSETAF, &terminal_saved);
}

void hold_standard_descriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) [[maybe_unused]]
            const int held = open("/dev/null", O_RDWR); // the lowest free one
    }
}

void install_terminal_signals()
{
    for (const int signal_number : {SIGTERM, SIGHUP, SIGQUIT}) {
        const auto before = std::signal(signal_number, restore_and_die);
        if (before == SIG_IGN) std::signal(signal_number, SIG_IGN); // as nohup wants it
    }
    std::signal(SIGTSTP, restore_and_stop);
    std::signal(SIGCONT, take_terminal_back);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTTIN, SIG_IGN); // in the background a key of the shell's must not stop the sound
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

    const char *slash = std::strrchr(path, '/');
    if (slash != nullptr) std::printf("\"%s\" ", slash + 1);
    if (std::strlen(path) > longest_banner_path) std::putchar('\n');
    std::printf("\"%s\"\n", path);
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

bool poll_keyboard()
{
    fd_set input;
    FD_ZERO(&input);
    FD_SET(STDIN_FILENO, &input);
    struct timeval no_wait = {0, 0};
    if (select(STDIN_FILENO + 1, &input, nullptr, nullptr, &no_wait) != 1) return false;
    // Past stdin: its buffer would swallow what came together with this byte, out of select's
    // sight.
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) != 1 || byte != stop_key) return false;
    stop_playing(&stopped_by_key);
    return true;
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

uint32_t pause_of(uint32_t buffer_frames, int32_t rate)
{
    constexpr uint32_t refilled_short_of = 1026; // frames that a refill may leave free
    constexpr int64_t longest = 40000;
    constexpr int64_t shortest = 100;
    const int64_t spare = int64_t{buffer_frames} - refilled_short_of;
    return static_cast<uint32_t>(std::clamp(spare * 1000000 / rate / 4, shortest, longest));
}
