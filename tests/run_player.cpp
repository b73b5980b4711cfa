#include "run_player.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <utility>

namespace
{

using clock_type = std::chrono::steady_clock;

// The environment of one run of the player.
struct run_state {
    std::string directory; // of this run; has the log, the capture, the gate and the configuration
    pid_t process;
    std::array<int, 4> near; // the test's ends of the standard streams and of the events; -1: none
    std::array<int, 4> far;  // the player's ends of the same
    int terminal;            // the test's end of the terminal; -1: none
    int terminal_far;
    termios mode_before;
    size_t clogged; // descriptor of the stream that is full and not read; 0: none
};

const std::string &scratch_directory()
{
    static const std::string path = make_directory();
    return path;
}

// --- Setting up ---------------------------------------------------------------------------------

void write_configuration(const std::string &directory)
{
    std::filesystem::create_directory(directory);
    std::ofstream(directory + "/asound.conf")
        << "pcm_type.capture { lib \"" CAPTURE_PLUGIN_PATH "\" }\n"
           "pcm.capture { type capture }\n"
           "pcm.hw { @args [ CARD DEV ] @args.CARD { type integer }\n"
           "  @args.DEV { type integer } type capture }\n";
}

void open_terminal(run_state &state, tcflag_t without)
{
    ASSERT_EQ(openpty(&state.terminal, &state.terminal_far, nullptr, nullptr, nullptr), 0);
    tcgetattr(state.terminal_far, &state.mode_before);
    state.mode_before.c_lflag &= ~without;
    state.mode_before.c_oflag &= ~static_cast<tcflag_t>(OPOST); // bytes are shown unchanged
    tcsetattr(state.terminal_far, TCSANOW, &state.mode_before);
}

void open_wire(run_state &state, size_t stream, wire kind)
{
    std::array<int, 2> ends = {-1, -1}; // near, far
    const int way = stream == 0 ? O_RDONLY : O_WRONLY;
    if (kind == wire::null) ends[1] = open("/dev/null", way | O_CLOEXEC);
    if (kind == wire::terminal) {
        ends = {fcntl(state.terminal, F_DUPFD_CLOEXEC, 10),
                fcntl(state.terminal_far, F_DUPFD_CLOEXEC, 10)};
    } else if (kind == wire::pipe || kind == wire::gone) {
        ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        if (stream == 0) std::swap(ends[0], ends[1]);
    }
    if (kind == wire::gone) close(std::exchange(ends[0], -1));
    const int small = 4000; // less than an event can have
    if (kind == wire::socket &&
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0)
        setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    if (ends[0] >= 0) fcntl(ends[0], F_SETFL, O_NONBLOCK);
    state.near[stream] = ends[0];
    state.far[stream] = ends[1];
}

void open_wires(run_state &state, const play_settings &settings)
{
    std::array kinds = {settings.input, settings.output, settings.error, settings.event_wire};
    for (const play_event &event : settings.events)
        if (kinds[0] == wire::null && !event.type.empty()) kinds[0] = wire::pipe;
    state.terminal = state.terminal_far = -1;
    if (std::ranges::find(kinds, wire::terminal) != kinds.end())
        open_terminal(state, settings.terminal_without);
    for (size_t stream = 0; stream < kinds.size(); ++stream)
        open_wire(state, stream, kinds[stream]);
}

// --- The player's side --------------------------------------------------------------------------

void set_environment(const run_state &state, const play_settings &settings)
{
    const auto set = [](const std::string &name, const std::string &value) {
        setenv(name.c_str(), value.c_str(), 1);
    };
    const auto add = [set](const char *name, const std::string &option) {
        const char *options = std::getenv(name);
        set(name, option + ":" + (options != nullptr ? options : ""));
    };
    set("ALSA_CONFIG_PATH", state.directory + "/asound.conf");
    set("CAPTURE_LOG", state.directory + "/log");
    set("CAPTURE_FILE", state.directory + "/capture");
    for (const auto &[name, value] : settings.capture) set("CAPTURE_" + name, value);
    for (const play_event &event : settings.events)
        if (event.allow >= 0) set("CAPTURE_GATE", state.directory + "/gate");
    set("HISTFILE", ""); // no history file for a shell
    set("LD_PRELOAD", CAPTURE_PLUGIN_PATH);
    // The preloaded module comes before the sanitizer's library. Fatal reports leave threads
    // running.
    add("ASAN_OPTIONS", "verify_asan_link_order=0");
    add("TSAN_OPTIONS", "report_thread_leaks=0:atexit_sleep_ms=0");
}

// Starts a session that the terminal controls, so that Ctrl-C and Ctrl-Z send signals.
void take_streams(const run_state &state)
{
    setsid();
    if (state.terminal_far >= 0) ioctl(state.terminal_far, TIOCSCTTY, 0);
    for (int stream = 0; stream < 4; ++stream) {
        const int fd = state.far[static_cast<size_t>(stream)];
        if (fd == stream)
            fcntl(fd, F_SETFD, 0);
        else if (fd < 0 || dup2(fd, stream) < 0)
            close(stream);
    }
}

[[noreturn]] void become_player(const run_state &state, const play_settings &settings)
{
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE, SIGHUP, SIGTERM, SIGTSTP})
        std::signal(number, SIG_DFL);
    set_environment(state, settings);
    std::filesystem::current_path(scratch_directory());
    std::vector<std::string> words = settings.launcher;
    words.emplace_back(PLAYER_PATH);
    if (settings.event_wire != wire::closed) words.emplace_back("--events=3");
    if (!settings.device_name.empty()) words.insert(words.end(), {"-D", settings.device_name});
    words.insert(words.end(), settings.arguments.begin(), settings.arguments.end());
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    take_streams(state);
    execvp(argv[0], argv.data());
    _exit(255);
}

// --- While it runs ------------------------------------------------------------------------------

// Reads all streams except the one that the test leaves unread. Closes streams that have ended.
void read_streams(run_state &state, play_result &result, int wait_ms)
{
    const std::array<std::string *, 4> texts = {nullptr, &result.out, &result.err,
                                                &result.event_lines};
    std::array<pollfd, 4> polled{};
    for (size_t stream = 0; stream < 4; ++stream)
        polled[stream] = {stream == 0 ? -1 : state.near[stream], POLLIN, 0};
    poll(polled.data(), polled.size(), wait_ms);
    for (size_t stream = 1; stream < 4; ++stream) {
        if (polled[stream].revents == 0 || stream == state.clogged) continue;
        std::array<char, 65536> part;
        const ssize_t got = read(state.near[stream], part.data(), part.size());
        if (got > 0)
            texts[stream]->append(part.data(), static_cast<size_t>(got));
        else if (got == 0 || errno != EAGAIN)
            close(std::exchange(state.near[stream], -1));
    }
}

size_t captured_bytes(const run_state &state)
{
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(state.directory + "/capture", error);
    return error ? 0 : static_cast<size_t>(size);
}

termios mode_now(const run_state &state)
{
    termios mode{};
    if (state.terminal_far >= 0) tcgetattr(state.terminal_far, &mode);
    return mode;
}

void expect_mode(const termios &mode, const run_state &state)
{
    const termios &before = state.mode_before;
    EXPECT_TRUE(state.terminal < 0 ||
                (mode.c_iflag == before.c_iflag && mode.c_oflag == before.c_oflag &&
                 mode.c_cflag == before.c_cflag && mode.c_lflag == before.c_lflag &&
                 std::ranges::equal(mode.c_cc, before.c_cc)));
}

bool is_due(const play_event &event, const run_state &state, const play_result &result,
            clock_type::time_point since)
{
    const auto has = [](const std::string &text, const std::string &part, size_t from = 0) {
        return part.empty() || text.find(part, from) != std::string::npos;
    };
    const play_moment before = result.at_events.empty() ? play_moment{} : result.at_events.back();
    const bool raw = (mode_now(state).c_lflag & ICANON) == 0;
    return clock_type::now() - since >= std::chrono::milliseconds(event.after_ms) &&
           (event.mode_is == line_mode::any || raw == (event.mode_is == line_mode::raw)) &&
           has(result.out, event.out_has, before.shown) &&
           has(result.err, event.err_has, before.reported) &&
           (event.log_has.empty() || has(file_text(state.directory + "/log"), event.log_has)) &&
           captured_bytes(state) >= event.captured;
}

// Fills a pipe with line ends. They are written through its reading end, which is opened again for
// writing. The player prints no empty lines, so that its lines can be told from these.
void clog(int reading_end)
{
    const int fd = open(("/proc/self/fd/" + std::to_string(reading_end)).c_str(),
                        O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (write(fd, "\n", 1) == 1) {
    }
    close(fd);
}

void let_happen(const play_event &event, run_state &state, play_result &result)
{
    read_streams(state, result, 0); // output that the event cannot have caused
    result.at_events.push_back({captured_bytes(state), result.out.size(), result.err.size()});
    termios mode = mode_now(state);
    mode.c_lflag |= ICANON;
    expect_mode(mode, state);
    const std::string &keys = event.type;
    if (!keys.empty()) {
        EXPECT_EQ(write(state.near[0], keys.data(), keys.size()), std::ssize(keys));
    }
    const pid_t foreground =
        state.terminal >= 0 ? tcgetpgrp(state.terminal) : 0; // 0: no job is left
    if (event.signal != 0) kill(foreground > 0 ? -foreground : state.process, event.signal);
    if (event.call) event.call();
    state.clogged = event.clogs;
    if (event.clogs != 0) clog(state.near[event.clogs]);
    if (event.allow < 0) return;
    const std::string gate = state.directory + "/gate"; // renamed into place: never half written
    std::ofstream(gate + ".new") << event.allow;
    std::filesystem::rename(gate + ".new", gate);
}

// Runs the events until the player has ended. Result: its status as waitpid gives it.
int watch_player(run_state &state, const std::vector<play_event> &events, play_result &result)
{
    auto last_event = clock_type::now();
    const auto latest = last_event + std::chrono::minutes(soak_size(1));
    auto event = events.begin();
    int exit = 0;
    rusage usage{};
    while (wait4(state.process, &exit, WNOHANG, &usage) == 0) {
        read_streams(state, result, 1);
        if (event != events.end() && is_due(*event, state, result, last_event)) {
            let_happen(*event++, state, result);
            last_event = clock_type::now();
        }
        if (clock_type::now() < latest) continue;
        ADD_FAILURE() << "the player did not end";
        kill(state.process, SIGKILL);
        waitpid(state.process, &exit, 0);
        break;
    }
    EXPECT_TRUE(event == events.end() || event->may_miss)
        << "event " << event - events.begin() << " did not happen: " << event->out_has
        << event->err_has << event->log_has << " " << event->captured << " bytes captured";
    result.busy_seconds =
        static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return exit;
}

// --- The result ---------------------------------------------------------------------------------

void read_rest(run_state &state, play_result &result)
{
    state.clogged = 0;
    constexpr int reads = 32; // a read from a terminal gives 4095 bytes at most
    for (int i = 0; i < reads; ++i) read_streams(state, result, 0);
    const std::string bytes = file_text(state.directory + "/capture");
    result.capture.assign(bytes.begin(), bytes.end());
    std::istringstream log(file_text(state.directory + "/log"));
    for (std::string line; std::getline(log, line);) result.log.push_back(line);
}

void read_end(play_result &result)
{
    const std::string status = std::to_string(result.status);
    result.end = event_values(result, "end");
    // A second SIGINT may end the process after another end has begun: its event may be written
    // already, and the text of its report may be missing.
    const bool overtaken = result.status == (799 & 255);
    EXPECT_TRUE(result.end.empty() || result.end.find("," + status) != std::string::npos ||
                overtaken)
        << result.end << " " << status;
    if (result.end.empty()) result.end = status;
    std::smatch words;
    if (!std::regex_match(result.end, words, std::regex("report,(\\w+),(\\d+),(.*),(\\d+)")))
        return;
    const std::string printed = words.format("\nERROR $1 $2 $3\n");
    EXPECT_TRUE(overtaken || result.err.find(printed) != std::string::npos) << result.end;
    result.end = words.format("report,$1,$2,$4");
}

} // namespace

play_result run_player(const play_settings &settings)
{
    static int runs;
    play_result result;
    run_state state{};
    state.directory = scratch_directory() + "/.run" + std::to_string(++runs);
    write_configuration(state.directory);
    open_wires(state, settings);
    state.process = fork();
    if (state.process == 0) become_player(state, settings);
    for (const int fd : state.far) close(fd);
    const int exit = watch_player(state, settings.events, result);
    result.status = WIFEXITED(exit) ? WEXITSTATUS(exit) : -WTERMSIG(exit);
    read_rest(state, result);
    read_end(result);
    expect_mode(mode_now(state), state);
    for (const char *finding : {"Sanitizer", "runtime error:"})
        EXPECT_EQ(result.err.find(finding), std::string::npos) << result.err;
    for (const int fd : state.near) close(fd);
    for (const int fd : {state.terminal, state.terminal_far}) close(fd);
    std::filesystem::remove_all(state.directory);
    return result;
}

controller_words *shared_block()
{
    static const int id = shmget(getpid(), 4096, IPC_CREAT | 0600);
    static auto *words = [] {
        std::atexit([] { shmctl(id, IPC_RMID, nullptr); });
        return static_cast<controller_words *>(shmat(id, nullptr, 0));
    }();
    return words;
}

play_settings beside_controller(play_settings settings)
{
    settings.device_name = "hw:3,0";
    settings.capture["CARD_NAME"] = "snd_rpi_dac";
    settings.capture["KEY"] = std::to_string(getpid());
    return settings;
}

std::string file_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string scratch_file(const std::string &name, const bytes &content)
{
    const std::filesystem::path path = std::filesystem::path(scratch_directory()) / name;
    std::filesystem::create_directories(path.parent_path());
    write_file(path, content);
    return path;
}

std::string event_values(const play_result &result, const std::string &kind)
{
    const std::string head = R"({"event":")" + kind + "\",";
    const size_t at = result.event_lines.rfind(head);
    if (at == std::string::npos) return "";
    const size_t start = at + head.size();
    const std::string fields =
        result.event_lines.substr(start, result.event_lines.find("}\n", start) - start);
    return std::regex_replace(fields, std::regex(R"re("\w+":|")re"), "");
}

bool log_has(const play_result &result, const std::string &text)
{
    return std::ranges::any_of(
        result.log, [&](const std::string &line) { return line.find(text) != std::string::npos; });
}

bool all_sounded(const play_result &result)
{
    unsigned long taken = 0, sounded = 0;
    bool all = false;
    for (const std::string &line : result.log) {
        if (line.starts_with("open ")) all = false; // the probe's close does not count
        if (std::sscanf(line.c_str(), "close %*d took %lu sounded %lu", &taken, &sounded) == 2)
            all = taken == sounded;
    }
    return all;
}

std::string report_text(const char *unit, int number, const std::string &message)
{
    return "\nERROR " + std::string(unit) + " " + std::to_string(number) + " " + message;
}

int soak_size(int usual)
{
    const char *wanted = std::getenv("SONIVANE_SOAK");
    return wanted != nullptr ? std::stoi(wanted) : usual;
}
