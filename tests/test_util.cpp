#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "sonivane.h"
#include "util.h"

namespace
{

template <typename Function> std::string printed(Function function)
{
    testing::internal::CaptureStdout();
    function();
    return testing::internal::GetCapturedStdout();
}

// --- Lines --------------------------------------------------------------------------------------

TEST(Console, ABannerTellsNumberTimeAndNames)
{
    const std::string head = "\r" + std::string(72, ' ') + "\nplaying file ";
    const std::string forty = std::string(36, 'a') + ".wav";
    const struct {
        int32_t number, count;
        int64_t seconds;
        std::string path;
        std::string expected;
    } cases[] = {
        {1, 1, 0, "a.wav", "1/1 total 0:00 \"a.wav\"\n"},
        {2, 10, 307, "m/a.wav", "2/10 total 5:07 \"a.wav\" \"m/a.wav\"\n"},
        {1, 1, 3599, "/m/n/a", "1/1 total 59:59 \"a\" \"/m/n/a\"\n"},
        {1, 1, 3600, "m/", "1/1 total 1:00:00 \"\" \"m/\"\n"},
        {1, 1, 360000 + 61, "a", "1/1 total 100:01:01 \"a\"\n"},
        {1, 1, 1, forty, "1/1 total 0:01 \"" + forty + "\"\n"},
        {1, 1, 1, "a" + forty, "1/1 total 0:01 \n\"a" + forty + "\"\n"},
        {1, 1, 1, "a/" + forty, "1/1 total 0:01 \"" + forty + "\" \n\"a/" + forty + "\"\n"},
        {1, 1, int64_t{1} << 40, "%s%n", "1/1 total 305419896:36:16 \"%s%n\"\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(printed([&] { show_file_banner(c.number, c.count, c.seconds, c.path.c_str()); }),
                  head + c.expected);
    }
}

TEST(Console, AStatusLineTellsPositionFillAndLabel)
{
    const struct {
        int64_t seconds;
        int32_t percent;
        const char *label;
        const char *expected;
    } cases[] = {
        {0, 0, "filling buffer", "\rposition 00:00 buffer 0[%]   filling buffer   \r"},
        {307, 99, nullptr, "\rposition 05:07 buffer 99[%]   \r"},
        {3599, 80, "DoP", "\rposition 59:59 buffer 80[%]   DoP   \r"},
        {3600, 80, nullptr, "\rposition 1:00:00 buffer 80[%]   \r"},
        {360000 + 61, 7, nullptr, "\rposition 100:01:01 buffer 7[%]   \r"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(printed([&] { show_status(c.seconds, c.percent, c.label); }), c.expected);
}

// --- Reports ------------------------------------------------------------------------------------

TEST(Report, PrintsItsHeadAndGoesOn)
{
    interrupted = stop_output = flag_off;
    testing::internal::CaptureStderr();
    report("dsf", 142, "DSF block size if %d\n", 2048);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\nERROR dsf 142 DSF block size if 2048\n");
    EXPECT_EQ(interrupted | stop_output, flag_off);
}

TEST(ReportDeathTest, AFatalOneSetsTheFlagsAndLeavesWithTheLowBitsOfItsNumber)
{
    for (const int32_t number : {145, 514, 1033}) {
        EXPECT_EXIT(
            {
                interrupted = stop_output = flag_off;
                std::atexit([] {
                    std::fprintf(stderr, "flags %d %d", interrupted.load(), stop_output.load());
                });
                fatal_report("util", number, "%s failed.\n", "it");
            },
            testing::ExitedWithCode(number & 0xFF),
            "^\nERROR util " + std::to_string(number) + " it failed.\nflags -1 -1$");
    }
}

TEST(ReportDeathTest, OfTwoThreadsThatLeaveTheFirstOneGivesTheStatus)
{
    const auto leave_twice = [] {
        static std::atomic<bool> exiting;
        std::atexit([] {
            exiting = true;
            usleep(200000);
        });
        std::thread second([] {
            while (!exiting) usleep(1000);
            fatal_exit(2);
        });
        second.detach();
        fatal_exit(1);
    };
    EXPECT_EXIT(leave_twice(), testing::ExitedWithCode(1), "");
}

// --- Standard input -----------------------------------------------------------------------------

// Puts fd in the place of standard input. Result: what was there, for restore_stdin.
int replace_stdin(int fd)
{
    const int saved = dup(STDIN_FILENO);
    dup2(fd, STDIN_FILENO);
    return saved;
}

void restore_stdin(int saved)
{
    dup2(saved, STDIN_FILENO);
    close(saved);
}

std::string settings_of(int fd)
{
    termios t{};
    tcgetattr(fd, &t);
    std::string text;
    for (const tcflag_t flags : {t.c_iflag, t.c_oflag, t.c_cflag, t.c_lflag})
        text += std::to_string(flags) + " ";
    for (int i = 0; i < 8; ++i) text += std::to_string(t.c_cc[i]) + " ";
    return text;
}

void change_local_flags(int fd, tcflag_t set, tcflag_t cleared)
{
    termios t{};
    tcgetattr(fd, &t);
    t.c_lflag = (t.c_lflag | set) & ~cleared;
    tcsetattr(fd, TCSANOW, &t);
}

// A pseudo-terminal on standard input.
struct terminal {
    int keyboard;
    int screen;
    int saved_stdin;
};

terminal open_terminal()
{
    terminal t{};
    EXPECT_EQ(openpty(&t.keyboard, &t.screen, nullptr, nullptr, nullptr), 0);
    t.saved_stdin = replace_stdin(t.screen);
    return t;
}

void close_terminal(const terminal &t)
{
    restore_stdin(t.saved_stdin);
    close(t.keyboard);
    close(t.screen);
}

TEST(Terminal, OnlyCanonicalModeGoesAndAllComesBack)
{
    const terminal t = open_terminal();
    const std::string before = settings_of(t.screen);
    ASSERT_EQ(write(t.keyboard, "typed ahead\n", 12), 12);
    pollfd arrived = {STDIN_FILENO, POLLIN, 0};
    ASSERT_EQ(poll(&arrived, 1, 5000), 1);
    terminal_raw();
    change_local_flags(t.screen, ICANON, 0);
    EXPECT_EQ(settings_of(t.screen), before);
    change_local_flags(t.screen, 0, ICANON);
    fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
    char byte = 0;
    EXPECT_EQ(read(STDIN_FILENO, &byte, 1), -1) << "input from before the switch is dropped";

    change_local_flags(t.screen, 0, ECHO);
    terminal_raw(); // must not take these settings for those to put back
    terminal_restore();
    EXPECT_EQ(settings_of(t.screen), before);

    change_local_flags(t.screen, 0, ECHO);
    const std::string later = settings_of(t.screen);
    terminal_restore(); // nothing is left to put back
    EXPECT_EQ(settings_of(t.screen), later);
    close_terminal(t);
}

TEST(TerminalDeathTest, EveryWayOutPutsItBack)
{
    const terminal t = open_terminal();
    const std::string before = settings_of(t.screen);
    const auto leave_raw = [&](bool fatal) {
        terminal_raw();
        if (settings_of(t.screen) == before) std::abort();
        if (fatal) fatal_report("util", 1, "\n");
        terminal_restore();
        _exit(1);
    };
    for (const bool fatal : {true, false}) {
        EXPECT_EXIT(leave_raw(fatal), testing::ExitedWithCode(1), "");
        EXPECT_EQ(settings_of(t.screen), before);
    }
    close_terminal(t);
}

TEST(Keyboard, EachOfSeveralBytesIsSeen)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int saved = replace_stdin(ends[0]);
    stop_output = flag_off;
    const auto stop_after = [](int polls) {
        for (int i = 0; i < polls; ++i) poll_keyboard();
        return stop_output.load();
    };
    EXPECT_EQ(stop_after(1), flag_off) << "nothing typed: must not wait";
    ASSERT_EQ(write(ends[1], "q\x03\x04", 3), 3);
    EXPECT_EQ(stop_after(1), flag_off);
    EXPECT_EQ(stop_after(1), flag_on);
    stop_output = flag_off;
    EXPECT_EQ(stop_after(2), flag_off);
    close(ends[1]);
    EXPECT_EQ(stop_after(3), flag_off) << "the end of the input is no key";
    close(STDIN_FILENO);
    EXPECT_EQ(stop_after(1), flag_off) << "no standard input";
    restore_stdin(saved);
    close(ends[0]);
}

// --- Job control --------------------------------------------------------------------------------

bool comes_true(const std::function<bool()> &condition)
{
    for (int i = 0; i < 500 && !condition(); ++i) usleep(10000);
    return condition();
}

// Runs in a process of its own: a shell with a job on the terminal, which is put on standard input
// with its settings from before. Ends with 0, or with the line that failed.
[[noreturn]] void run_shell(const std::string &before)
{
    const auto require = [](bool holds, int line) {
        if (!holds) _exit(line & 0xFF);
    };
    std::signal(SIGTTOU, SIG_IGN);
    setsid();
    ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    const pid_t job = fork();
    if (job == 0) {
        std::signal(SIGTTOU, SIG_DFL);
        setpgid(0, 0);
        comes_true([] { return tcgetpgrp(STDIN_FILENO) == getpgrp(); });
        install_terminal_signals();
        terminal_raw();
        while (true) pause();
    }
    setpgid(job, job);
    const auto is_raw = [&] { return settings_of(STDIN_FILENO) != before; };
    const auto stop_job = [&] {
        int status = 0;
        kill(job, SIGTSTP);
        return waitpid(job, &status, WUNTRACED) == job && WIFSTOPPED(status) && !is_raw();
    };
    tcsetpgrp(STDIN_FILENO, job);
    require(comes_true(is_raw), __LINE__);
    require(stop_job(), __LINE__);
    kill(job, SIGCONT);
    require(comes_true(is_raw), __LINE__);

    require(stop_job(), __LINE__); // its handler is in place again
    tcsetpgrp(STDIN_FILENO, getpgrp());
    kill(job, SIGCONT); // in the background: the terminal is the shell's
    usleep(50000);
    int status = 0;
    require(!is_raw() && waitpid(job, &status, WUNTRACED | WNOHANG) == 0, __LINE__);
    tcsetpgrp(STDIN_FILENO, job);
    kill(job, SIGCONT); // as a shell's fg does
    require(comes_true(is_raw), __LINE__);

    kill(job, SIGTERM);
    require(waitpid(job, &status, 0) == job && WTERMSIG(status) == SIGTERM, __LINE__);
    require(!is_raw(), __LINE__);
    _exit(0);
}

TEST(TerminalDeathTest, AStoppedPlayerGivesItUpAndAContinuedOneTakesItBack)
{
    const terminal t = open_terminal();
    const std::string before = settings_of(t.screen);
    EXPECT_EXIT(run_shell(before), testing::ExitedWithCode(0), "");
    close_terminal(t);
}

TEST(TerminalDeathTest, ASignalThatEndsThePlayerPutsItBack)
{
    const terminal t = open_terminal();
    const std::string before = settings_of(t.screen);
    const auto end_by = [](int signal_number) {
        install_terminal_signals();
        terminal_raw();
        std::raise(signal_number);
        _exit(0);
    };
    for (const int signal_number : {SIGTERM, SIGHUP, SIGQUIT}) {
        std::signal(SIGHUP, SIG_DFL); // not as nohup would have it
        EXPECT_EXIT(end_by(signal_number), testing::KilledBySignal(signal_number), "");
        EXPECT_EQ(settings_of(t.screen), before);
    }
    const auto ignored = [&] {
        std::signal(SIGHUP, SIG_IGN);
        end_by(SIGHUP);
    };
    EXPECT_EXIT(ignored(), testing::ExitedWithCode(0), "") << "as nohup wants it";
    close_terminal(t);
}

// --- Priority -----------------------------------------------------------------------------------

void lose_the_right_to_raise_priority()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NICE, &none);
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> sets{};
    syscall(SYS_capget, &header, sets.data());
    sets[0].effective &= ~(1U << CAP_SYS_NICE);
    syscall(SYS_capset, &header, sets.data());
}

TEST(PriorityDeathTest, OnlyRootAsksAndARefusalIsFatal)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const auto priority_of_root = [] {
        raise_priority();
        _exit(getpriority(PRIO_PROCESS, 0) + 50);
    };
    const auto refused = [] {
        lose_the_right_to_raise_priority();
        raise_priority();
        _exit(0);
    };
    const auto not_root = [] {
        [[maybe_unused]] const int result = seteuid(65534);
        raise_priority(); // would be refused
        _exit(0);
    };
    const int before = getpriority(PRIO_PROCESS, 0);
    EXPECT_EXIT(priority_of_root(), testing::ExitedWithCode(std::max(before - 10, -20) + 50), "");
    EXPECT_EXIT(refused(), testing::ExitedWithCode(145),
                "nice\\(\\): .*\n\nERROR util 145 nice\\(\\) failed.\n");
    EXPECT_EXIT(not_root(), testing::ExitedWithCode(0), "^$");
}

// --- Sleeps -------------------------------------------------------------------------------------

int slack_after(wakeup when)
{
    poll_sleep(0, when);
    return prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
}

TEST(Sleep, ALateWakeUpStaysBelowAQuarterOfWhatIsBuffered)
{
    const struct {
        uint64_t buffered_microseconds;
        int slack_nanoseconds;
    } cases[] = {
        {0, 1},           {1, 249},           {20000, 4999999},  {39999, 9999749},
        {40000, 9999999}, {500000, 10000000}, {~0ULL, 10000000},
    };
    for (const auto &c : cases) {
        set_buffered_time(c.buffered_microseconds);
        EXPECT_EQ(slack_after(wakeup::late), c.slack_nanoseconds) << c.buffered_microseconds;
        EXPECT_EQ(slack_after(wakeup::prompt), 1);
    }
}

TEST(Sleep, EachThreadHasASlackOfItsOwn)
{
    set_buffered_time(500000);
    slack_after(wakeup::late);
    int other = 0;
    std::thread([&] { other = slack_after(wakeup::prompt); }).join();
    EXPECT_EQ(other, 1);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), 10000000);
    EXPECT_EQ(slack_after(wakeup::prompt), 1);
}

TEST(Sleep, LastsAtLeastAsLongAsAsked)
{
    for (const wakeup when : {wakeup::prompt, wakeup::late}) {
        const auto start = std::chrono::steady_clock::now();
        poll_sleep(3000, when);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(3000));
    }
}

} // namespace
