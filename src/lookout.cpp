#include "lookout.h"

#if __has_include(<execinfo.h>)
#include <execinfo.h>
#endif
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "events.h"
#include "util.h"

std::atomic<int32_t> interrupted;
std::atomic<int32_t> stop_output;
std::atomic<const stop_cause *> stopped_by;
std::atomic<int32_t> read_error_met;
std::atomic<int32_t> exit_status;
std::atomic<int32_t> strict;

namespace
{

// --- Waking -------------------------------------------------------------------------------------

constexpr int no_descriptor = -1; // poll ignores it

int lookout_wakes = no_descriptor; // an eventfd, readable when the look-out has something to check

void write_wake(int descriptor)
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(descriptor, &one, sizeof one);
}

void forget_wakes(int descriptor)
{
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(descriptor, &count, sizeof count);
}

// A thread that waits. It sets announced, checks once more for work, and waits. The waker provides
// the work first and then clears announced. Both use one exchange of the same word, so either the
// waker sees the announcement and wakes the thread, or the thread sees the work.
struct sleeper {
    std::atomic<int32_t> announced; // flag; set by the waiting thread, cleared by it or by a waker
    int wakes = no_descriptor;      // an eventfd
};
std::array<sleeper, 2> sleepers;
thread_local sleeper *own_sleeper = sleepers.data();

sleeper &sleeper_of(waiter who)
{
    return sleepers[static_cast<size_t>(who)];
}

// --- Terminal -----------------------------------------------------------------------------------

// Held while the mode of the terminal changes, and while a signal stops or ends the process. Only
// its holder uses the variables below, except terminal_is_raw.
pthread_mutex_t terminal_mutex = PTHREAD_MUTEX_INITIALIZER;
bool terminal_wanted;          // from terminal_raw to terminal_restore, also in the background
struct termios terminal_saved; // the mode of standard input before the change
std::atomic<int32_t> terminal_is_raw; // flag: terminal_saved is to be restored

enum class terminal_place { none, foreground, background };

// In the background the terminal and its mode belong to the shell: the kernel stops a job that
// changes the mode. A terminal that does not control this process belongs to another session.
terminal_place place_of_terminal()
{
    const pid_t foreground = tcgetpgrp(STDIN_FILENO);
    if (foreground < 0) return terminal_place::none;
    return foreground == getpgrp() ? terminal_place::foreground : terminal_place::background;
}

// TCSANOW, because TCSAFLUSH, which also drops input, first waits for all output. On a terminal
// that is held by Ctrl-S that wait never ends.
void take_terminal()
{
    if (place_of_terminal() != terminal_place::foreground) return;
    if (load_acquire(terminal_is_raw) == 0) tcgetattr(STDIN_FILENO, &terminal_saved);
    store_release(terminal_is_raw, 1);
    struct termios raw = terminal_saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON);
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

// Safe in a signal handler.
void give_terminal_back()
{
    if (terminal_is_raw.exchange(0) == 0 || place_of_terminal() != terminal_place::foreground)
        return;
    tcsetattr(STDIN_FILENO, TCSANOW, &terminal_saved);
    tcflush(STDIN_FILENO, TCIFLUSH);
}

// --- Standard input -----------------------------------------------------------------------------

constexpr char stop_key = 3;
constexpr int input_rest_ms = 10;        // pause after a read, for an input such as /dev/zero
constexpr int background_look_ms = 1000; // a job that comes to the foreground gets no signal

std::atomic<int32_t> input_wanted; // flag

// The look-out alone uses these.
bool input_is_terminal;
bool input_is_over; // it gave an end or an error, and is not read again
bool input_rests;   // it was just read; the next read waits for input_rest_ms

// The descriptor to wait for. no_descriptor if the input has ended, was read a moment ago, or
// belongs to another job.
int readable_input()
{
    if (load_acquire(input_wanted) == 0 || input_is_over || input_rests) return no_descriptor;
    const bool ours = !input_is_terminal || place_of_terminal() == terminal_place::foreground;
    return ours ? STDIN_FILENO : no_descriptor;
}

// Reads what is there, up to the size of the buffer. It does not read through stdin, whose buffer
// would hide bytes from poll. On a terminal an end of file and an error are not final: the end is
// a key (Ctrl-D), and the error lasts only while the terminal belongs to another job.
void read_input()
{
    static std::array<char, 65536> keys; // the capacity of a pipe
    const ssize_t got = read(STDIN_FILENO, keys.data(), keys.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
    input_is_over = got < 1 && !input_is_terminal;
    input_rests = true;
    const auto end = keys.begin() + std::max(got, ssize_t{0});
    if (std::find(keys.begin(), end, stop_key) != end) stop_playing(&stopped_by_key);
}

void look_for_terminal()
{
    pthread_mutex_lock(&terminal_mutex);
    if (terminal_wanted) take_terminal();
    pthread_mutex_unlock(&terminal_mutex);
}

// --- The end of the process ---------------------------------------------------------------------

// Milliseconds without progress after which the look-out ends the process, and after which it no
// longer waits for main to print its stack. Neither wait lasts longer than at_most_ms.
constexpr int64_t grace_ms = 200;
constexpr int64_t trace_ms = 100;
constexpr int64_t at_most_ms = 3000;
constexpr int look_ms = 20; // between two checks of threads that should end

std::atomic<int32_t> sound_over;    // flag: the output thread has closed the device
std::atomic<int32_t> all_over;      // flag: the device is closed, and no other stream follows
std::atomic<int32_t> sound_started; // flag: if set, one SIGINT lets the ring play out
std::atomic<int32_t> leaving;       // flag: a thread ends the process
// Flag: the thread that ends the process will make no more calls that could block.
std::atomic<int32_t> ends_by_itself;

pthread_t main_thread;
std::atomic<clockid_t> output_clock; // processor time of the output thread; 0: none yet

int64_t clock_ns(clockid_t clock)
{
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return 0; // the thread has ended
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

// Processor time in nanoseconds that main and the output thread have used.
int64_t work_done()
{
    clockid_t main_clock{};
    pthread_getcpuclockid(main_thread, &main_clock);
    const clockid_t output = load_acquire(output_clock);
    return clock_ns(main_clock) + (output != 0 ? clock_ns(output) : 0);
}

// Watches threads that should end soon. While they use processor time, even slowly on a busy
// machine, they get more time than when they use none.
struct end_watch {
    int64_t since;    // milliseconds: the time at which the watch began; 0: not watching
    int64_t moved_at; // milliseconds: the time at which work was last seen to grow
    int64_t work;
};

bool stands_still(end_watch &watch, int64_t patience_ms)
{
    const int64_t now = microseconds_now() / 1000;
    const int64_t work = work_done();
    if (watch.since == 0) watch = {now, now, work};
    if (work != watch.work) watch = {watch.since, now, work};
    return now - watch.moved_at >= patience_ms || now - watch.since >= at_most_ms;
}

// Ends the process from the look-out without the other threads and without exit: another thread may
// hold the lock of a stream, for which exit would wait. From here on, any other thread that tries
// to end the process blocks in begin_to_leave.
[[noreturn]] void end_process(int32_t status)
{
    store_release(leaving, -1);
    terminal_restore();
    event_end(status);
    print_early_end();
    _exit(status & 0xFF);
}

// The reports with which the look-out ends the process. They belong to the unit sonivane.
struct last_report {
    int32_t number;
    const char *head;
    const char *sentence;
};
constexpr last_report exit_by_interrupt = {1045, "\nERROR sonivane 1045 ", "exit by interrupt"};
constexpr last_report interrupt_stack = {799, "\nERROR sonivane 799 ", "Interrupt stack. Abort"};
constexpr int32_t report_ended_early = 1100;

constexpr stop_cause cause_of(const last_report &last)
{
    return {stop_reason::report, "sonivane", last.number, last.sentence};
}

// Safe in a signal handler.
void print_last(const last_report &last)
{
    for (const char *text : {last.head, last.sentence, "\n"})
        if (!print_in_time(text)) return;
}

void keep_first_cause(const stop_cause *cause)
{
    const stop_cause *none = nullptr;
    stopped_by.compare_exchange_strong(none, cause);
}

// Does everything that must be done before a report is printed. It does not stop the sound: that
// would wake main, which would print its last lines before the report. cause must last as long as
// the process.
void prepare_report(const stop_cause *cause)
{
    store_release(exit_status, cause->number);
    keep_first_cause(cause);
    terminal_restore();
    event_end(cause->number);
}

// Ends the process for main, which has not reached the end of its stages.
[[noreturn]] void end_in_place_of_main()
{
    static constexpr stop_cause cause = cause_of(exit_by_interrupt);
    if (is_stopped() || sound_has_started()) {
        end_process(settle_end());
    }
    prepare_report(&cause);
    print_last(exit_by_interrupt);
    _exit(cause.number & 0xFF);
}

bool end_is_due()
{
    if (load_acquire(ends_by_itself) != 0) return false;
    return is_stopped() || load_acquire(all_over) != 0 ||
           (!sound_is_on() && load_acquire(interrupted) != 0);
}

bool ended_early()
{
    switch (load_acquire(stopped_by)->reason) {
    case stop_reason::underrun:
    case stop_reason::suspended:
    case stop_reason::disconnected:
    case stop_reason::refused:
    case stop_reason::read_error:
        return true;
    default:
        return false;
    }
}

// --- The second SIGINT --------------------------------------------------------------------------

std::atomic<int32_t> trace_wanted; // flag: SIGRTMIN comes from the look-out, not from elsewhere
std::atomic<int32_t> trace_started;
std::atomic<int32_t> trace_done;

// Safe in a signal handler after the first call of backtrace.
void print_trace()
{
#if __has_include(<execinfo.h>)
    constexpr int stack_limit = 1024;
    static std::array<void *, stack_limit> stack;
    const int depth = backtrace(stack.data(), stack_limit);
    backtrace_symbols_fd(stack.data(), depth, STDERR_FILENO);
#endif
    print_last(interrupt_stack);
}

// For signals that end the process by default. The signal acts when this handler returns.
void dying_handler(int signal_number)
{
    give_terminal_back();
    std::signal(signal_number, SIG_DFL);
    raise(signal_number);
}

// Runs on the main thread, whatever that is doing, and never returns: the look-out ends the
// process. If the signal came from another program, its default action is taken, which ends the
// process.
void trace_handler(int signal_number)
{
    if (load_acquire(trace_wanted) == 0) return dying_handler(signal_number);
    store_release(trace_started, 1);
    print_trace();
    store_release(trace_done, 1);
    wake_lookout();
    while (true) pause();
}

bool can_print_now()
{
    pollfd polled = {STDERR_FILENO, POLLOUT, 0};
    return poll(&polled, 1, static_cast<int>(trace_ms)) == 1;
}

// Main prints its own stack if the signal reaches it; otherwise the look-out prints its own. If
// nobody reads standard error, the process still ends. If another thread already ends the process,
// nothing is printed.
void end_with_trace()
{
    if (leaving.exchange(-1) != 0) return;
    static constexpr stop_cause cause = cause_of(interrupt_stack);
    prepare_report(&cause);
    store_release(trace_wanted, 1);
    pthread_kill(main_thread, SIGRTMIN);
    end_watch watch{};
    while (load_acquire(trace_done) == 0 && !stands_still(watch, trace_ms)) {
        pollfd polled = {lookout_wakes, POLLIN, 0};
        poll(&polled, 1, look_ms);
        forget_wakes(lookout_wakes);
    }
    if (load_acquire(trace_started) == 0 && can_print_now()) print_trace();
    _exit(cause.number & 0xFF);
}

// --- Signals ------------------------------------------------------------------------------------

// Signals whose default action ends or stops the process. The terminal is restored before they act.
constexpr std::array acting_signals = {SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

// SIGINT, SIGCONT and those of acting_signals that are not ignored; blocked in all threads.
sigset_t awaited_signals;
int signal_wakes = no_descriptor; // a signalfd: readable while an awaited signal is pending

sigset_t only(int signal_number)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal_number);
    return set;
}

// Takes the signal if it is pending. Result: whether it was.
bool take_signal(int signal_number)
{
    const sigset_t set = only(signal_number);
    constexpr timespec no_wait = {0, 0};
    return sigtimedwait(&set, nullptr, &no_wait) == signal_number;
}

bool is_pending(int signal_number)
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&awaited_signals, signal_number) == 1 &&
           sigismember(&pending, signal_number) == 1;
}

// Lets a pending signal end or stop the process. The signal must stay pending until it acts: when a
// SIGCONT comes, the kernel drops a pending SIGTSTP. If the SIGTSTP were taken from the queue and
// raised again, it could stop the process after that SIGCONT, for good. After a stop the function
// returns when the process continues. If the signal does not stop the process, the function returns
// at once: the kernel ignores Ctrl-Z where no shell could continue the process. The other threads
// cannot change the terminal while this function runs.
void let_act(int signal_number)
{
    const sigset_t set = only(signal_number);
    pthread_mutex_lock(&terminal_mutex);
    give_terminal_back();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    pthread_mutex_unlock(&terminal_mutex);
    look_for_terminal();
}

void attend_signals()
{
    for (const int signal_number : acting_signals)
        if (is_pending(signal_number)) let_act(signal_number);
    if (take_signal(SIGCONT)) look_for_terminal();
    if (!take_signal(SIGINT)) return;
    if (interrupted.exchange(-1) != 0) return end_with_trace();
    wake(waiter::main);
    wake(waiter::output);
}

// They end the process by default and come from a fault or from another program.
constexpr std::array dying_signals = {SIGSEGV, SIGABRT, SIGBUS,  SIGFPE,    SIGILL,
                                      SIGSYS,  SIGXCPU, SIGXFSZ, SIGALRM,   SIGUSR1,
                                      SIGUSR2, SIGPWR,  SIGPROF, SIGVTALRM, SIGIO};

void handle_dying_signals()
{
    struct sigaction action = {};
    action.sa_handler = dying_handler;
    sigemptyset(&action.sa_mask);
    for (const int signal_number : dying_signals) {
        struct sigaction inherited;
        sigaction(signal_number, nullptr, &inherited);
        if (inherited.sa_handler == SIG_DFL) sigaction(signal_number, &action, nullptr);
    }
}

// SIGINT is awaited even if it was ignored at the start: a shell starts a background job like that.
void block_awaited_signals()
{
    std::signal(SIGINT, SIG_DFL);
    awaited_signals = only(SIGINT);
    sigaddset(&awaited_signals, SIGCONT);
    for (const int signal_number : acting_signals) {
        struct sigaction inherited;
        sigaction(signal_number, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN) sigaddset(&awaited_signals, signal_number);
    }
    pthread_sigmask(SIG_BLOCK, &awaited_signals, nullptr);
}

void prepare_trace()
{
#if __has_include(<execinfo.h>)
    // The first backtrace of a process loads a library, which is not safe in a handler.
    std::array<void *, 1> warm_up;
    backtrace(warm_up.data(), warm_up.size());
#endif
    std::signal(SIGRTMIN, trace_handler);
    const sigset_t set = only(SIGRTMIN);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// --- The thread ---------------------------------------------------------------------------------

enum place { place_signals, place_wakes, place_input, place_reader, places };

int time_out_ms(const end_watch &watch)
{
    if (watch.since != 0) return look_ms;
    if (input_rests) return input_rest_ms;
    const bool away = input_is_terminal && place_of_terminal() == terminal_place::background;
    return away ? background_look_ms : -1;
}

void *look_out(void *)
{
    end_watch watch{};
    bool away = false; // the terminal belonged to another job
    while (true) {
        std::array<pollfd, places> polled{};
        polled[place_signals] = {signal_wakes, POLLIN, 0};
        polled[place_wakes] = {lookout_wakes, POLLIN, 0};
        polled[place_input] = {readable_input(), POLLIN, 0};
        polled[place_reader] = {events_descriptor(), 0, 0}; // POLLERR alone
        poll(polled.data(), polled.size(), time_out_ms(watch));

        input_rests = false;
        if (polled[place_wakes].revents != 0) forget_wakes(lookout_wakes);
        if (polled[place_signals].revents != 0) attend_signals();
        if (polled[place_reader].revents != 0) events_reader_left();
        if (polled[place_input].revents != 0) read_input();
        const bool was_away = away;
        away = input_is_terminal && place_of_terminal() == terminal_place::background;
        if (was_away && !away) look_for_terminal();
        if (!end_is_due())
            watch = {};
        else if (stands_still(watch, grace_ms))
            end_in_place_of_main();
    }
}

} // namespace

void wake_lookout()
{
    write_wake(lookout_wakes);
}

// --- Stops --------------------------------------------------------------------------------------

void stop_playing(const stop_cause *cause)
{
    keep_first_cause(cause);
    store_release(stop_output, -1);
    wake(waiter::main);
    wake(waiter::output);
    wake_lookout();
}

int32_t settle_end()
{
    static constexpr stop_cause interrupt = {stop_reason::interrupt, nullptr, 0};
    static constexpr stop_cause incomplete = {stop_reason::read_error, nullptr, 0};
    static constexpr stop_cause played = {stop_reason::played, nullptr, 0};
    const stop_cause *whole = load_acquire(read_error_met) != 0 ? &incomplete : &played;
    stop_playing(load_acquire(interrupted) != 0 ? &interrupt : whole);
    if (load_acquire(strict) != 0 && load_acquire(exit_status) == 0 && ended_early())
        store_release(exit_status, report_ended_early);
    return load_acquire(exit_status);
}

void print_early_end()
{
    if (load_acquire(exit_status) != report_ended_early) return;
    std::array<char, 80> text;
    std::snprintf(text.data(), text.size(), "\nERROR sonivane %d the sound ended early: %s.\n",
                  report_ended_early, name_of(load_acquire(stopped_by)->reason));
    print_in_time(text.data());
}

void read_keys()
{
    store_release(input_wanted, -1);
    wake_lookout();
}

void sound_starts()
{
    store_release(sound_over, 0);
    store_release(sound_started, 1);
}

bool sound_has_started()
{
    return load_acquire(sound_started) != 0;
}

bool sound_is_on()
{
    return sound_has_started() && !sound_is_over();
}

bool sound_is_over()
{
    return load_acquire(sound_over) != 0;
}

void sound_has_ended(bool for_good)
{
    store_release(sound_over, 1);
    if (for_good) store_release(all_over, 1);
    wake(waiter::main);
    wake_lookout();
}

void begin_to_leave()
{
    while (leaving.exchange(-1) != 0) pause();
}

void end_is_near()
{
    store_release(ends_by_itself, 1);
}

void start_lookout()
{
    std::signal(SIGPIPE, SIG_IGN); // the sound goes on if the reader of standard output leaves
    std::signal(SIGTTIN, SIG_IGN); // a read in the background must not stop the process
    main_thread = pthread_self();
    for (sleeper &each : sleepers) each.wakes = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    lookout_wakes = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    input_is_terminal = isatty(STDIN_FILENO) == 1;
    handle_dying_signals();
    prepare_trace();
    block_awaited_signals();
    signal_wakes = signalfd(-1, &awaited_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, look_out, nullptr) == 0)
        pthread_detach(thread);
    else
        pthread_sigmask(SIG_UNBLOCK, &awaited_signals, nullptr);
}

// --- Waits --------------------------------------------------------------------------------------

void wait_as_output()
{
    own_sleeper = &sleeper_of(waiter::output);
    clockid_t clock{};
    if (pthread_getcpuclockid(pthread_self(), &clock) == 0) store_release(output_clock, clock);
}

void wake(waiter who)
{
    sleeper &woken = sleeper_of(who);
    if (woken.announced.exchange(0) != 0) write_wake(woken.wakes);
}

void announce_wait()
{
    own_sleeper->announced.exchange(-1);
}

void finish_wait(int64_t microseconds, int descriptor)
{
    if (microseconds == 0) {
        own_sleeper->announced.exchange(0);
        return;
    }
    std::array<pollfd, 2> polled = {{{own_sleeper->wakes, POLLIN, 0}, {descriptor, POLLOUT, 0}}};
    const timespec time = {static_cast<time_t>(microseconds / 1000000),
                           static_cast<long>(microseconds % 1000000 * 1000)};
    ppoll(polled.data(), polled.size(), microseconds == longest_wait ? nullptr : &time, nullptr);
    // If announced is 0, a waker has cleared it. It has written to the eventfd or is about to
    // write; in that case the next wait returns early.
    if (own_sleeper->announced.exchange(0) == 0) forget_wakes(own_sleeper->wakes);
}

// --- Terminal -----------------------------------------------------------------------------------

void terminal_raw()
{
    pthread_mutex_lock(&terminal_mutex);
    if (load_acquire(terminal_is_raw) == 0) take_terminal();
    terminal_wanted = true;
    pthread_mutex_unlock(&terminal_mutex);
    wake_lookout(); // so that it reads the keys that were typed before
}

void terminal_restore()
{
    pthread_mutex_lock(&terminal_mutex);
    give_terminal_back();
    terminal_wanted = false;
    pthread_mutex_unlock(&terminal_mutex);
}
