#include "util.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <termios.h>
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

// A report as a cause, with its sentence.
struct report_cause {
    stop_cause cause;
    std::array<char, longest_sentence + 1> text;
};

// Fills in the cause of a report. It is not moved afterwards.
[[gnu::format(printf, 4, 0)]] void set_cause(report_cause &made, const char *source, int32_t number,
                                             const char *format, va_list arguments)
{
    std::vsnprintf(made.text.data(), made.text.size(), format, arguments);
    for (size_t end = std::strlen(made.text.data()); end > 0 && made.text[end - 1] == '\n';)
        made.text[--end] = '\0';
    made.cause = {stop_reason::report, source, number, made.text.data()};
}

// --- Terminal -----------------------------------------------------------------------------------

// All below belongs to the thread that has the lock.
std::atomic_flag terminal_lock;
bool terminal_wanted;          // from terminal_raw to terminal_restore, wherever the terminal is
int32_t terminal_is_raw;       // terminal_saved holds settings to put back
struct termios terminal_saved; // of standard input, when it was taken

// SIGINT stays off a thread that has the lock: its handler may want the lock too, and would wait
// for the thread that it keeps from going on. All calls here are safe in that handler.
sigset_t lock_terminal()
{
    sigset_t interrupt;
    sigset_t before;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &before);
    while (terminal_lock.test_and_set(std::memory_order_acquire)) poll(nullptr, 0, 1);
    return before;
}

void unlock_terminal(const sigset_t &before)
{
    terminal_lock.clear(std::memory_order_release);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// In the background the terminal is the shell's, and its modes too: the kernel stops a job that
// changes them. A terminal of another session, or none, has no such rule and gives -1.
bool in_background()
{
    const pid_t foreground = tcgetpgrp(STDIN_FILENO);
    return foreground >= 0 && foreground != getpgrp();
}

enum class unread_input { keep, drop };

// TCSAFLUSH, which drops input too, would first wait for all output: for ever, with a terminal that
// Ctrl-S holds, and everybody else for the lock.
void set_terminal(const struct termios &settings, unread_input input)
{
    tcsetattr(STDIN_FILENO, TCSANOW, &settings);
    if (input == unread_input::drop) tcflush(STDIN_FILENO, TCIFLUSH);
}

void take_terminal(unread_input input)
{
    if (in_background()) return;
    if (terminal_is_raw == 0) tcgetattr(STDIN_FILENO, &terminal_saved);
    terminal_is_raw = flag_on;
    struct termios raw = terminal_saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON);
    set_terminal(raw, input);
}

void give_terminal_back()
{
    if (terminal_is_raw != 0 && !in_background()) set_terminal(terminal_saved, unread_input::drop);
    terminal_is_raw = flag_off;
}

// --- Signals ------------------------------------------------------------------------------------

// What ends, stops or continues the process from outside.
constexpr std::array terminal_signals = {SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT};
sigset_t awaited_signals; // those of them that are not ignored; blocked in every thread

// Ends or stops the process. Comes back from a stop, or at once when nothing stops: the kernel lets
// Ctrl-Z stop nothing that no shell could continue.
void act_by_default(int signal_number)
{
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal_number);
    // Raised before it is let through: one that came meanwhile must not stop a second time.
    raise(signal_number);
    pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
    pthread_sigmask(SIG_BLOCK, &only, nullptr);
}

// Whoever else wants the terminal waits until the process has ended, or has stopped and goes on.
void attend_signal(int signal_number)
{
    const sigset_t before = lock_terminal();
    if (signal_number != SIGCONT) {
        give_terminal_back();
        act_by_default(signal_number);
    }
    if (terminal_wanted) take_terminal(unread_input::keep);
    unlock_terminal(before);
}

// The thread that takes these signals one by one. It does nothing else: one that reads files may be
// held up by a disk, and a signal with it.
void *signal_thread(void *)
{
    while (true) {
        int signal_number = 0;
        if (sigwait(&awaited_signals, &signal_number) == 0) attend_signal(signal_number);
    }
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
    report_cause made; // nobody returns from here
    va_start(arguments, format);
    set_cause(made, source, number, format, arguments);
    va_end(arguments);
    stop_playing(&made.cause);
    store_release(interrupted, flag_on);
    fatal_exit(number);
}

void stopping_report(const char *source, int32_t number, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_report(source, number, format, arguments);
    va_end(arguments);
    static report_cause made;
    if (made.cause.unit == nullptr) { // another one may be the cause already, and stays it
        va_start(arguments, format);
        set_cause(made, source, number, format, arguments);
        va_end(arguments);
    }
    stop_playing(&made.cause);
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
    const sigset_t before = lock_terminal();
    if (terminal_is_raw == 0) take_terminal(unread_input::drop);
    terminal_wanted = true;
    unlock_terminal(before);
}

void terminal_restore()
{
    const sigset_t before = lock_terminal();
    give_terminal_back();
    terminal_wanted = false;
    unlock_terminal(before);
}

void hold_standard_descriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) >= 0) continue;
        [[maybe_unused]] const int held = open("/dev/null", O_RDWR); // the lowest free one
    }
}

void install_terminal_signals()
{
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTTIN, SIG_IGN); // in the background a key of the shell's must not stop the sound

    sigemptyset(&awaited_signals);
    for (const int signal_number : terminal_signals) {
        struct sigaction inherited;
        sigaction(signal_number, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN) sigaddset(&awaited_signals, signal_number);
    }
    pthread_sigmask(SIG_BLOCK, &awaited_signals, nullptr);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, signal_thread, nullptr) == 0)
        pthread_detach(thread);
    else
        pthread_sigmask(SIG_UNBLOCK, &awaited_signals, nullptr);
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

void raise_output_priority()
{
    sched_param least{};
    least.sched_priority = sched_get_priority_min(SCHED_FIFO);
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &least);
}

uint32_t pause_of(uint32_t buffer_frames, int32_t rate)
{
    constexpr uint32_t refilled_short_of = 1026; // frames that a refill may leave free
    constexpr int64_t longest = 40000;
    constexpr int64_t shortest = 100;
    const int64_t spare = int64_t{buffer_frames} - refilled_short_of;
    return static_cast<uint32_t>(std::clamp(spare * 1000000 / rate / 4, shortest, longest));
}
