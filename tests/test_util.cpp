#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "sonivane.h"
#include "util.h"

namespace
{

// --- Lines and reports --------------------------------------------------------------------------

TEST(Console, ABannerAndAStatusLineTellTheirNumbers)
{
    const std::string forty = std::string(36, 'a') + ".wav";
    const struct {
        int64_t seconds;
        std::string path, expected;
    } banners[] = {
        {0, "a.wav", "0:00 \"a.wav\"\n"},
        {307, "m/a.wav", "5:07 \"a.wav\" \"m/a.wav\"\n"},
        {3599, "/m/n/a", "59:59 \"a\" \"/m/n/a\"\n"},
        {3600, "%s/", "1:00:00 \"\" \"%s/\"\n"},
        {360061, forty, "100:01:01 \"" + forty + "\"\n"},
        {1, "a" + forty, "0:01 \n\"a" + forty + "\"\n"},
        {1, "m/\x1b[2J\r\n\x1f\x7f \xc3\xa9\xff",
         "0:01 \"?[2J???? \xc3\xa9\xff\" "
         "\"m/?[2J???? \xc3\xa9\xff\"\n"},
        {1, "a/" + forty, "0:01 \"" + forty + "\" \n\"a/" + forty + "\"\n"},
    };
    for (const auto &[seconds, path, expected] : banners) {
        testing::internal::CaptureStdout();
        show_file_banner(2, 10, seconds, path.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "\r" + std::string(72, ' ') + "\nplaying file 2/10 total " + expected);
    }
    testing::internal::CaptureStdout();
    show_status(0, 0, "filling buffer");
    show_status(3599, 99, nullptr);
    show_status(3600, 80, "DoP");
    show_status(360061, 7, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\rposition 00:00 buffer 0[%]   filling buffer   \r"
              "\rposition 59:59 buffer 99[%]   \r"
              "\rposition 1:00:00 buffer 80[%]   DoP   \r"
              "\rposition 100:01:01 buffer 7[%]   \r");
}

TEST(ReportDeathTest, AFatalOneSetsTheFlagsAndLeavesWithTheLowBitsOfItsNumber)
{
    const auto tell_flags = [] {
        std::fprintf(stderr, "flags %d %d", interrupted.load(), stop_output.load());
    };
    for (const int32_t number : {145, 514, 1033}) {
        const auto report_twice = [&] {
            interrupted = stop_output = flag_off;
            report("dsf", 142, "DSF block size if %d\n", 2048);
            tell_flags();
            std::atexit(tell_flags);
            // Of two threads that leave, the first one gives the status.
            std::atexit([] {
                std::thread([] { fatal_exit(2); }).detach();
                usleep(50000);
            });
            fatal_report("util", number, "%s failed.\n", "it");
        };
        EXPECT_EXIT(report_twice(), testing::ExitedWithCode(number & 0xFF),
                    "^\nERROR dsf 142 DSF block size if 2048\nflags 0 0\nERROR util " +
                        std::to_string(number) + " it failed.\nflags -1 -1$");
    }
}

// --- Standard input -----------------------------------------------------------------------------

std::string settings_of(int fd)
{
    termios t{};
    tcgetattr(fd, &t);
    return {reinterpret_cast<const char *>(&t), offsetof(termios, c_cc) + 8};
}

// A pseudo-terminal on standard input.
class TerminalDeathTest : public testing::Test
{
  protected:
    TerminalDeathTest()
    {
        EXPECT_EQ(openpty(&keyboard, &screen, nullptr, nullptr, nullptr), 0);
        dup2(screen, STDIN_FILENO);
        before = settings_of(screen);
    }
    ~TerminalDeathTest() override
    {
        dup2(saved_stdin, STDIN_FILENO);
        for (const int fd : {keyboard, screen, saved_stdin}) close(fd);
    }
    const int saved_stdin = dup(STDIN_FILENO);
    int keyboard = -1, screen = -1;
    std::string before;
};

void change_local_flags(tcflag_t set, tcflag_t cleared)
{
    termios t{};
    tcgetattr(STDIN_FILENO, &t);
    t.c_lflag = (t.c_lflag | set) & ~cleared;
    tcsetattr(STDIN_FILENO, TCSANOW, &t);
}

TEST_F(TerminalDeathTest, OnlyCanonicalModeGoesAndAllComesBack)
{
    ASSERT_EQ(write(keyboard, "typed ahead\n", 12), 12);
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    ASSERT_EQ(poll(&input, 1, 5000), 1);
    terminal_raw();
    EXPECT_EQ(poll(&input, 1, 0), 0) << "input from before the switch is dropped";
    EXPECT_NE(settings_of(screen), before);
    change_local_flags(ICANON, 0);
    EXPECT_EQ(settings_of(screen), before);

    change_local_flags(0, ECHO | ICANON);
    const std::string later = settings_of(screen);
    terminal_raw(); // must not take these settings for those to put back
    terminal_restore();
    EXPECT_EQ(settings_of(screen), before);
    change_local_flags(0, ECHO | ICANON);
    terminal_restore(); // nothing is left to put back
    EXPECT_EQ(settings_of(screen), later);
}

TEST_F(TerminalDeathTest, EachOfSeveralKeysIsSeen)
{
    change_local_flags(0, ICANON | ISIG);
    ASSERT_EQ(write(keyboard, "q\x03\x04", 3), 3);
    for (const int32_t stopped : {flag_off, flag_on, flag_off, flag_off}) { // the last: no wait
        stop_output = flag_off;
        poll_keyboard();
        EXPECT_EQ(stop_output.load(), stopped);
    }
}

// --- Signals ------------------------------------------------------------------------------------

bool comes_true(const std::function<bool()> &condition)
{
    for (int i = 0; i < 500; ++i, usleep(10000))
        if (condition()) return true;
    return false;
}

TEST_F(TerminalDeathTest, KeepsItsKeysWhenContinuedOrUnderAnIgnoredSignal)
{
    const auto keep_keys = [&] {
        std::signal(SIGHUP, SIG_IGN); // as nohup has it
        install_terminal_signals();
        terminal_raw();
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        const bool typed = write(keyboard, "q", 1) == 1 && poll(&input, 1, 5000) == 1;
        change_local_flags(ICANON, 0); // by a shell, while the player is stopped
        kill(getpid(), SIGHUP);
        kill(getpid(), SIGCONT);
        const bool taken = comes_true([&] { return settings_of(STDIN_FILENO) != before; });
        usleep(50000);
        _exit(typed && taken && poll(&input, 1, 0) == 1 ? 0 : 1);
    };
    EXPECT_EXIT(keep_keys(), testing::ExitedWithCode(0), "");
}

// A job that takes the terminal and gives it back all the time, beside a second thread that a
// signal may choose. A shell that ignores signals hands that on.
[[noreturn]] void run_job()
{
    for (const int signal_number : {SIGTTOU, SIGTERM, SIGHUP, SIGTSTP, SIGCONT})
        std::signal(signal_number, SIG_DFL);
    comes_true([] { return tcgetpgrp(STDIN_FILENO) == getpid(); });
    install_terminal_signals();
    std::thread([] {
        while (true) pause();
    }).detach();
    while (true) {
        terminal_raw();
        usleep(100);
        terminal_restore();
    }
}

// The shell that starts a job, stops it, and ends it while it is stopped. True when the terminal,
// on standard input, was left as before each time.
bool leaves_the_terminal(const std::string &before, int last_signal)
{
    const auto is_raw = [&] { return settings_of(STDIN_FILENO) != before; };
    const pid_t job = fork();
    if (job == 0) run_job();
    setpgid(job, job);
    tcsetpgrp(STDIN_FILENO, job);
    if (!comes_true(is_raw)) return false;
    int status = 0;
    kill(job, SIGTSTP);
    if (waitpid(job, &status, WUNTRACED) != job || !WIFSTOPPED(status) || is_raw()) return false;
    kill(job, last_signal);
    kill(job, SIGCONT);
    return waitpid(job, &status, 0) == job && WTERMSIG(status) == last_signal && !is_raw();
}

// Runs in a process of its own. Exits with the number of the first job that did not leave the
// terminal alone, or with 0.
[[noreturn]] void run_shell(const std::string &before)
{
    std::signal(SIGTTOU, SIG_IGN);
    alarm(60); // a job that neither stops nor ends must not hang the test
    setsid();
    ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    for (int i = 1; i <= 100; ++i)
        if (!leaves_the_terminal(before, i % 2 == 0 ? SIGTERM : SIGHUP)) _exit(i);
    _exit(0);
}

TEST_F(TerminalDeathTest, IsNeverLeftRawByAJobThatIsStoppedAndEnded)
{
    EXPECT_EXIT(run_shell(before), testing::ExitedWithCode(0), "");
}

// --- Pauses -------------------------------------------------------------------------------------

TEST(Pause, IsAQuarterOfWhatARefillLeavesAtMost)
{
    const struct {
        uint32_t frames;
        int32_t rate;
        uint32_t microseconds;
    } cases[] = {{22050, 44100, 40000}, {2048, 44100, 5793}, {2048, 768000, 332},
                 {1026, 44100, 100},    {1, 44100, 100},     {4294967295, 1, 40000}};
    for (const auto &c : cases) EXPECT_EQ(pause_of(c.frames, c.rate), c.microseconds) << c.frames;
}

} // namespace
