// Cases that tests with the whole player do not reach: limits of the ring's arithmetic and of
// option values; truncation, order and storage of names; lines with long times; and the mode of the
// terminal with keys, signals and the job control of a shell.
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dir2files.h"
#include "lookout.h"
#include "make_files.h"
#include "parse_param.h"
#include "ringbuffer.h"
#include "sonivane.h"
#include "util.h"

namespace
{

namespace fs = std::filesystem;

// Splits a line into an argument vector. Valid until the next call.
std::vector<char *> argv_of(const std::string &line)
{
    static std::vector<std::string> words;
    std::istringstream stream(line);
    words = {std::istream_iterator<std::string>(stream), {}};
    std::vector<char *> argv;
    argv.reserve(words.size());
    for (std::string &word : words) argv.push_back(word.data());
    return argv;
}

// --- The ring -----------------------------------------------------------------------------------

TEST(ring, reports_free_room_and_stores_what_fits)
{
    const struct {
        uint32_t size, frame, read, used; // read: place of the first stored byte
        uint32_t percent, free, free_run, used_run;
    } rows[] = {
        {800, 8, 0, 0, 0, 792, 792, 0},        // empty, at 0: one frame before the end stays free
        {800, 8, 400, 0, 0, 792, 400, 0},      // empty, in the middle: the free room wraps
        {800, 8, 8, 792, 99, 0, 0, 792},       // full: the write position has wrapped
        {800, 8, 200, 200, 25, 592, 400, 200}, // the free room wraps
        {800, 8, 792, 16, 2, 776, 776, 8},     // the stored bytes wrap
        {806, 8, 8, 784, 98, 8, 8, 784},       // the part of a frame at the end is not used
        {16, 8, 0, 12, 75, 0, 0, 12},          // less than a frame is left: nothing is free
        {2147483640, 8, 8, 2147483632, 99, 0, 0, 2147483632},
    };
    const bytes given = noise(1, 1000);
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.size << " " << row.read << " " << row.used);
        if (sizeof(size_t) < 8 && row.size > INT32_MAX / 2) continue; // malloc would fail
        ringbuffer *r = ringbuffer_new(row.size, row.frame, 1);
        ASSERT_NE(r, nullptr);
        r->bytes_sent = uint64_t{r->usable_size} * 3000000000U + row.read;
        r->bytes_put = r->bytes_sent + row.used;
        EXPECT_EQ(ring_frames(r), row.used / row.frame);
        EXPECT_EQ(ring_percent(r), static_cast<int32_t>(row.percent));
        EXPECT_EQ(ring_free(r), row.free);
        EXPECT_EQ(ring_free_run(r), row.free_run);
        EXPECT_EQ(ring_used_run(r), row.used_run);
        ring_put(r, given.data(), 1000);
        EXPECT_EQ(ring_used(r), row.used + row.free);
        for (uint32_t i = 0; i < row.free; ++i)
            EXPECT_EQ(ring_data(r)[(row.read + row.used + i) % r->usable_size], given[i]) << i;
        EXPECT_EQ(r->track_marks[1], mark_unset);
        ringbuffer_free(&r);
        ringbuffer_free(&r); // r is null already: does nothing
    }
    EXPECT_EQ(ringbuffer_new(1572864, 0, 1), nullptr);
    EXPECT_EQ(ringbuffer_new(0x80000000U, 8, 1), nullptr);
}

// --- Options of the command line ----------------------------------------------------------------

// Parses a line. Result: the number of entries taken, and the options whose values have changed.
std::string parse(const std::string &line, int32_t with_frequency = 0)
{
    oversample = flag_off;
    device_name = {};
    buffer_bytes = 0;
    mode_label = "";
    start_time = {};
    std::vector<char *> argv = argv_of("sonivane " + line);
    parse_options(static_cast<int32_t>(argv.size()), argv.data(), with_frequency);

    std::string text = std::to_string(args_used) + (oversample == flag_on ? " os" : "");
    if (device_name[0] != '\0') text += std::string(" D=") + device_name.data();
    if (buffer_bytes != 0) text += " B=" + std::to_string(buffer_bytes);
    if (start_time.seconds != 0) text += " S=" + std::to_string(start_time.seconds);
    if (start_time.attoseconds != 0) text += " A=" + std::to_string(start_time.attoseconds);
    return text + mode_label;
}

TEST(options, are_counted_and_stored)
{
    const std::pair<const char *, const char *> rows[] = {
        {"", "2"},
        {"a.wav b.wav -os", "2 os"},
        {"-D a -D b --mode=2 -B 2M -B 3M f", "10 D=b B=3145728Bi-Naural"},
        {"--skip -os -D -os a", "5 D=-os"},
        {"-os -D", "2 os"}, // -D without a value is not an option
        {"- -- --- --mode 1 -mode=1 --os -silent -skip 1 -OS -d x -Dx", "1"},
        {"--Silent --silentx --silen --frequency 44100 a.wav", "1"},
        {"-B 1m", "3 B=1048576"},
        {"-B 2k", "3 B=2048"},
        {"-B 1000x", "3 B=1000"},
        {"--start=9 --start=0.29 a", "3 A=290000000000000000"},
        {"--start=.0000000000000000019", "2 A=1"},
        {"--start=00012.", "2 S=12"},
        {"--start=99999999999999999999999.5", "2 S=100000000000000000 A=500000000000000000"},
        // Numbers above 4 Gi are clamped and must not wrap to a valid size.
        {"-B 4296015872", "3 B=4294967296"},
        {"-B 17592186044416M", "3 B=4503599627370496"},
        {"-B -99999999999999999999M", "3 B=18442240474082181120"},
    };
    for (const auto &[line, expected] : rows) EXPECT_EQ(parse(line), expected) << line;
    EXPECT_EQ(parse("--frequency 44100 -os", -1), "4 os") << "with_frequency is set";
    EXPECT_EQ(parse("-D " + std::string(1024, 'd')), "3 D=" + std::string(1023, 'd'));
    const std::string longest(1024, 'x'), longer = longest + "x";
    EXPECT_EQ(strings_equal(longest.c_str(), longest.c_str()), -1);
    EXPECT_EQ(strings_equal(longer.c_str(), longer.c_str()), 0);
}

// --- Names of files -----------------------------------------------------------------------------

// Expands the arguments. Result: the names, each after a blank, then the text on standard error.
std::string expand(const std::string &line)
{
    std::vector<char *> argv = argv_of(line);
    testing::internal::CaptureStderr();
    std::string result;
    for (char **list = expand_file_list(0, static_cast<int32_t>(argv.size()), argv.data());
         *list != nullptr; ++list)
        result += std::string(" ") + *list;
    return result + testing::internal::GetCapturedStderr();
}

TEST(names, of_files_and_directories_are_expanded_truncated_and_sorted)
{
    std::string folder = testing::TempDir() + "sonivane-XXXXXX";
    fs::current_path(mkdtemp(folder.data()));
    std::string deep;
    while (deep.size() < 1990) deep += std::string(198, 'd') + "/";
    const std::string longest = deep + std::string(50, 'a') + "123456789";
    for (const char *path : {"music/sub", "only/sub", deep.c_str()}) fs::create_directories(path);
    for (const char *path : {"b.wav", "a.wav", "A.wav", "music/z.txt", "music/.hidden",
                             "music/sub/x", "only/sub/x", longest.c_str()})
        std::ofstream file(path);
    for (const auto &[to, path] : {std::pair("z.txt", "music/link"), {"music", "linked"}})
        fs::create_symlink(to, path);
    EXPECT_EQ(mkfifo("pipe", 0600), 0);
    const std::pair<std::string, std::string> rows[] = {
        {"b.wav a.wav A.wav b.wav", " A.wav a.wav b.wav b.wav"},
        {"", " ./A.wav ./a.wav ./b.wav"},
        {"music/ linked", " linked/.hidden linked/z.txt music/.hidden music/z.txt"},
        {"music/link pipe /dev/null only", " music/link"},
        {"a.wav/x b.wav", " b.wavNot a directory\n\nERROR dir2files 136 cannot stat a.wav/x\n"},
        {deep, std::string(1, ' ').append(longest, 0, 2046)},
    };
    for (const auto &[arguments, expected] : rows) EXPECT_EQ(expand(arguments), expected);

    // Only 2048 bytes of a name are compared: names that first differ at byte 2049 keep their
    // order. There are more names than the pool's first size.
    for (const size_t same : {2047U, 2048U}) {
        std::string given, halves[2];
        for (int i = 0; i < 150; ++i) {
            const std::string name =
                " ." + std::string(same - 1, '/') + (i % 3 == 0 ? "a.wav" : "b.wav");
            given += name;
            halves[i % 3 != 0] += name;
        }
        EXPECT_EQ(expand(given), same < 2048 ? halves[0] + halves[1] : given);
    }
    // Without a free descriptor opendir fails, also for root.
    const auto walk = [] {
        const rlimit none = {};
        setrlimit(RLIMIT_NOFILE, &none);
        walk_path("music");
        _exit(0);
    };
    EXPECT_EXIT(walk(), testing::ExitedWithCode(0),
                "^Too many open files\n\nERROR dir2files 151 directory music open failed.\n$");
    fs::remove_all(folder);
}

// No entry of a list is taken as an option, a URL or another list. Missing names are reported.
TEST(names, of_a_list_may_have_any_bytes)
{
    std::string folder = testing::TempDir() + "sonivane-XXXXXX";
    fs::current_path(mkdtemp(folder.data()));
    fs::create_directories("l/d/sub");
    const std::string absolute = folder + "/a", mark = "\xEF\xBB\xBF", zero(1, '\0');
    for (const char *path : {"a", "b", "l/a", "l/b", "l/#a", "l/c\r", "l/-os", "l/d/9", "l/d/10"})
        std::ofstream file(path);
    const auto none = [](const std::string &path) {
        return "No such file or directory\n\nERROR dir2files 136 cannot stat " + path + "\n";
    };
    const std::string long_name(100000, 'x');
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {zero, none("")},
        {"\n\r\n#a\n\nb\na\r\nb", " l/b l/a l/b"},
        {mark + "b", " l/b"},
        {"b\n" + mark + "a", " l/b" + none("l/" + mark + "a")},
        {"c\r\r\nc\r", " l/c\r l/c\r"},
        {"-os\n" + absolute + "\nd\na\nd/",
         " l/-os " + absolute + " l/d/10 l/d/9 l/a l/d/10 l/d/9"},
        {"http://a.b/c\na", " l/a" + none("l/http://a.b/c")},
        {"b" + zero + "l/#a" + zero + "a", " b l/#a a"},
        {"l/c\r" + zero + "a\nb" + zero, " l/c\r" + none("a?b")},
        {mark + "b" + zero + absolute + zero, " " + absolute + none(mark + "b")},
        {long_name + "\na",
         " l/aFile name too long\n\nERROR dir2files 136 cannot stat l/" + long_name + "\n"},
    };
    for (const auto &[content, expected] : rows) {
        std::ofstream("l/list", std::ios::binary) << content;
        EXPECT_TRUE(read_list("l/list"));
        EXPECT_EQ(expand("not a"), expected) << content;
    }
    EXPECT_EQ(expand("a b"), " a b") << "a list is used once";
    fs::remove_all(folder);
}

TEST(names, are_stored_in_a_block_that_doubles)
{
    const std::string name(5000, 'n');
    pool_free();
    // The first name and its terminator leave one byte, which holds the terminator of an empty
    // name. The next name needs a larger block.
    for (const auto &[length, size] : {std::pair(1022, 1024), {0, 1024}, {0, 2048}, {5000, 8192}}) {
        pool_add(length, name.c_str());
        EXPECT_EQ(pool_chars_size, size);
    }
    pool_reset();
    EXPECT_EQ(pool_count + pool_chars_used, 0);
    EXPECT_EQ(pool_chars_size, 8192) << "memory is kept for the next list";
    // Only the count is set to its limit. A name that exceeds it must not be stored.
    pool_chars_used = INT32_MAX;
    pool_add(1, "n");
    EXPECT_EQ(pool_count, 0);
}

// --- Lines, reports, pauses ---------------------------------------------------------------------

TEST(console, prints_long_times_and_names)
{
    const std::string forty = std::string(36, 'a') + ".wav";
    const std::string head = blank_line + std::string("\nplaying file 2/10 total ");
    const struct {
        int64_t seconds;
        std::string time, path, banner;
    } rows[] = {
        {3599, "59:59", "%s/\x1b\n\x1f\x7f \xc3\xff", " \"???? \xc3\xff\" \"%s/???? \xc3\xff\"\n"},
        {3600, "1:00:00", forty, " \"" + forty + "\"\n"},
        {360061, "100:01:01", "a" + forty, " \n\"a" + forty + "\"\n"},
    };
    for (const auto &[seconds, time, path, banner] : rows) {
        testing::internal::CaptureStdout();
        show_file_banner(2, 10, seconds, path.c_str());
        show_status(seconds, 7, nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  head + time + banner + "\rposition " + time + " buffer 7[%]   \r");
    }
}

// If two threads end the process, the first one determines the exit status.
TEST(console, fatal_report_stops_both_threads)
{
    const auto leave = [] {
        std::atexit([] {
            std::thread([] { fatal_exit(2); }).detach();
            usleep(50000);
            std::fprintf(stderr, "flags %d %d", interrupted.load(), stop_output.load());
        });
        fatal_report("util", 1033, "%s failed.\n", "it");
    };
    EXPECT_EXIT(leave(), testing::ExitedWithCode(9), "^\nERROR util 1033 it failed.\nflags -1 -1$");
}

TEST(console, pause_is_a_quarter_of_the_buffered_time_within_limits)
{
    EXPECT_EQ(pause_of(2048, 44100), 5793U);
    EXPECT_EQ(pause_of(1, 44100), 100U);
    EXPECT_EQ(pause_of(4294967295, 1), 125000U);
}

// --- The terminal -------------------------------------------------------------------------------

termios mode()
{
    termios t{};
    tcgetattr(STDIN_FILENO, &t);
    return t;
}

bool is_raw()
{
    return (mode().c_lflag & ICANON) == 0;
}

bool comes_true(bool (*condition)())
{
    for (int i = 0; i < 500; ++i, usleep(10000))
        if (condition()) return true; // once is enough: a job may restore the mode at any time
    return false;
}

// Exits with the number of the first step that failed, or with 0.
[[noreturn]] void take_and_restore(int keyboard)
{
    setsid();
    ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    termios before = mode();
    before.c_lflag &= ~static_cast<tcflag_t>(ISIG);
    tcsetattr(STDIN_FILENO, TCSANOW, &before);
    termios of_shell = before;
    of_shell.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    std::signal(SIGHUP, SIG_IGN); // as nohup does
    start_lookout();
    read_keys();
    // Not a complete line: it can be read only when terminal_raw has left canonical mode.
    if (write(keyboard, "typed ahead\x03", 12) != 12 || is_stopped()) _exit(1);
    terminal_raw();
    if (!comes_true(is_stopped)) _exit(2);
    tcsetattr(STDIN_FILENO, TCSANOW, &of_shell); // while the player is stopped
    kill(getpid(), SIGHUP);
    kill(getpid(), SIGCONT);
    if (!comes_true(is_raw)) _exit(3);
    terminal_raw(); // is raw already: must not save these settings
    terminal_restore();
    if (mode().c_lflag != before.c_lflag) _exit(4);
    tcsetattr(STDIN_FILENO, TCSANOW, &of_shell);
    terminal_restore(); // has nothing to restore
    _exit(mode().c_lflag == of_shell.c_lflag ? 0 : 5);
}

// A job that takes and restores the terminal in a loop, after it is in the foreground. It resets
// the signals that it inherited as ignored.
[[noreturn]] void run_job()
{
    for (const int ignored : {SIGTTOU, SIGTERM, SIGTSTP, SIGHUP}) std::signal(ignored, SIG_DFL);
    while (tcgetpgrp(STDIN_FILENO) != getpid()) usleep(100);
    start_lookout();
    while (true) {
        terminal_raw();
        usleep(100);
        terminal_restore();
    }
}

// A shell that starts jobs, stops each one, and ends it while it is stopped. Exits with the number
// of the first job after which the terminal on standard input was not as before, or with 0.
[[noreturn]] void run_shell()
{
    std::signal(SIGTTOU, SIG_IGN);
    alarm(60); // ends the test if a job neither stops nor ends
    setsid();
    ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    for (int i = 1; i <= 100; ++i) {
        const pid_t job = fork();
        if (job < 0) _exit(i); // kill(-1) would signal all processes
        if (job == 0) run_job();
        setpgid(job, job);
        tcsetpgrp(STDIN_FILENO, job);
        bool failed = !comes_true(is_raw);
        int stop = 0, end = 0;
        kill(job, SIGTSTP);
        failed |= waitpid(job, &stop, WUNTRACED) != job || WSTOPSIG(stop) != SIGTSTP || is_raw();
        kill(job, SIGTERM);
        kill(job, SIGCONT);
        failed |= waitpid(job, &end, 0) != job || WTERMSIG(end) != SIGTERM || is_raw();
        if (failed) _exit(i);
    }
    _exit(0);
}

TEST(terminal, is_restored_after_keys_and_signals_and_by_jobs_that_are_stopped_and_ended)
{
    int keyboard = -1, screen = -1;
    ASSERT_EQ(openpty(&keyboard, &screen, nullptr, nullptr, nullptr), 0);
    dup2(screen, STDIN_FILENO);
    EXPECT_EXIT(take_and_restore(keyboard), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(run_shell(), testing::ExitedWithCode(0), "");
}

} // namespace
