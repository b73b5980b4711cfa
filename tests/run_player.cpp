#include "run_player.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
#include <sstream>
#include <utility>

namespace
{

using clock_type = std::chrono::steady_clock;

std::string file_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Of the three standard streams and the voice.
using descriptors = std::array<int, 4>;
constexpr size_t voice = 3;

// The player's surroundings of one run.
struct run_state {
    std::string directory; // of this run: log, capture, configuration
    pid_t process;
    descriptors near; // our ends; -1: none
    descriptors far;  // the player's ends
    int terminal;     // our end of the terminal; -1: none
    int terminal_far;
    bool clogged; // nobody reads standard output, and it is full
    bool muted;   // so is the voice
};

// --- Setting up ---------------------------------------------------------------------------------

void write_configuration(const std::string &directory)
{
    std::ofstream(directory + "/asound.conf")
        << "pcm_type.capture { lib \"" CAPTURE_PLUGIN_PATH "\" }\n"
           "pcm.capture { type capture }\n"
           "pcm.hw { @args [ CARD DEV ] @args.CARD { type integer }\n"
           "  @args.DEV { type integer } type capture }\n";
}

void open_terminal(run_state &state, const play_settings &settings)
{
    state.terminal = state.terminal_far = -1;
    const auto wires = {settings.input, settings.output, settings.error};
    if (std::find(wires.begin(), wires.end(), wire::terminal) == wires.end()) return;
    if (openpty(&state.terminal, &state.terminal_far, nullptr, nullptr, nullptr) != 0) std::abort();
    termios mode{};
    tcgetattr(state.terminal_far, &mode);
    mode.c_lflag &= ~settings.terminal_mode;
    mode.c_oflag &= ~static_cast<tcflag_t>(OPOST); // shows the player's bytes as they are
    tcsetattr(state.terminal_far, TCSANOW, &mode);
}

void open_wire(run_state &state, size_t stream, wire kind)
{
    std::array<int, 2> ends = {-1, -1}; // reading, writing
    state.near[stream] = state.far[stream] = -1;
    if (kind == wire::null) {
        state.far[stream] = open("/dev/null", O_RDWR | O_CLOEXEC);
    } else if (kind == wire::terminal) {
        state.far[stream] = fcntl(state.terminal_far, F_DUPFD_CLOEXEC, 10);
        state.near[stream] = fcntl(state.terminal, F_DUPFD_CLOEXEC, 10);
    } else if (kind == wire::pipe || kind == wire::gone) {
        if (pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
        state.far[stream] = ends[stream == 0 ? 0 : 1];
        state.near[stream] = ends[stream == 0 ? 1 : 0];
    }
    if (kind == wire::socket) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
        state.near[stream] = ends[0];
        state.far[stream] = ends[1];
    }
    if (kind == wire::gone) close(std::exchange(state.near[stream], -1));
    if (state.near[stream] >= 0) fcntl(state.near[stream], F_SETFL, O_NONBLOCK);
}

void close_all(const descriptors &all)
{
    for (const int fd : all)
        if (fd >= 0) close(fd);
}

// --- The player's side --------------------------------------------------------------------------

void add_option(const char *name, const std::string &option)
{
    const char *options = std::getenv(name);
    setenv(name, (option + ":" + (options != nullptr ? options : "")).c_str(), 1);
}

void set_environment(const run_state &state, const play_settings &settings)
{
    const auto set = [](const std::string &name, const std::string &value) {
        setenv(name.c_str(), value.c_str(), 1);
    };
    set("ALSA_CONFIG_PATH", state.directory + "/asound.conf");
    set("CAPTURE_LOG", state.directory + "/log");
    set("CAPTURE_FILE", state.directory + "/capture");
    if (settings.gated) set("CAPTURE_GATE", state.directory + "/gate");
    for (const auto &[name, value] : settings.capture) set("CAPTURE_" + name, value);
    set("HISTFILE", ""); // of a shell
    if (settings.stand_ins) set("LD_PRELOAD", CAPTURE_PLUGIN_PATH);
    // A preloaded module comes before the sanitizer, and a fatal report leaves the other thread.
    add_option("ASAN_OPTIONS", "verify_asan_link_order=0");
    add_option("TSAN_OPTIONS", "report_thread_leaks=0");
}

// The player of the foreground: a session with the terminal as its own, so that keys make signals.
void take_streams(const run_state &state)
{
    setsid();
    if (state.terminal_far >= 0) ioctl(state.terminal_far, TIOCSCTTY, 0);
    for (int stream = 0; stream < 3; ++stream) {
        const int fd = state.far[static_cast<size_t>(stream)];
        if (fd >= 0)
            dup2(fd, stream);
        else
            close(stream);
    }
    if (state.far[voice] < 0) return;
    dup2(state.far[voice], voice);
    fcntl(voice, F_SETFD, 0);
}

[[noreturn]] void become_player(const run_state &state, const play_settings &settings)
{
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE, SIGHUP, SIGTERM, SIGTSTP})
        std::signal(number, SIG_DFL);
    set_environment(state, settings);
    if (chdir(scratch_directory().c_str()) != 0) _exit(254);
    if (settings.memory_limit != 0) {
        const rlimit limit = {settings.memory_limit, settings.memory_limit};
        setrlimit(RLIMIT_AS, &limit);
    }
    std::vector<std::string> words = settings.launcher;
    if (settings.in_shell) words = {"bash", "--norc", "--noediting", "-is"};
    words.emplace_back(PLAYER_PATH);
    if (settings.voice != wire::closed) words.emplace_back("--events=3");
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

// Takes what waits in a stream. False once it has ended.
bool read_some(int fd, std::string &text)
{
    std::array<char, 65536> bytes;
    const ssize_t got = read(fd, bytes.data(), bytes.size());
    if (got > 0) text.append(bytes.data(), static_cast<size_t>(got));
    return got > 0 || (got < 0 && errno == EAGAIN);
}

std::array<std::string *, 4> texts_of(play_result &result)
{
    return {nullptr, &result.out, &result.err, &result.told};
}

void read_streams(run_state &state, play_result &result, int wait_ms)
{
    const auto texts = texts_of(result);
    std::array<pollfd, 3> polled{};
    for (size_t stream = 1; stream < 4; ++stream) // below 0: passed over
        polled[stream - 1] = {state.near[stream], POLLIN, 0};
    poll(polled.data(), polled.size(), wait_ms);
    for (size_t stream = 1; stream < 4; ++stream) {
        const bool unread = stream == 1 ? state.clogged : stream == voice && state.muted;
        if (polled[stream - 1].revents == 0 || unread) continue;
        if (read_some(state.near[stream], *texts[stream])) continue;
        close(std::exchange(state.near[stream], -1));
    }
}

size_t captured_bytes(const run_state &state)
{
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(state.directory + "/capture", error);
    return error ? 0 : size;
}

bool is_due(const play_event &event, const run_state &state, const play_result &result,
            clock_type::time_point since)
{
    const auto has = [](const std::string &text, const std::string &part) {
        return part.empty() || text.find(part) != std::string::npos;
    };
    termios mode{};
    if (event.mode_is) tcgetattr(state.terminal_far, &mode);
    return clock_type::now() - since >= std::chrono::milliseconds(event.after_ms) &&
           (!event.mode_is || event.mode_is(mode)) && has(result.out, event.out_has) &&
           has(result.err, event.err_has) && has(result.told, event.told_has) &&
           (event.log_has.empty() || has(file_text(state.directory + "/log"), event.log_has)) &&
           captured_bytes(state) >= event.captured;
}

// The device must never see half a number.
void open_gate(const std::string &path, int64_t frames)
{
    std::ofstream(path + ".new") << frames;
    std::filesystem::rename(path + ".new", path);
}

// Fills a pipe, whose reading end we have, to its last byte.
void clog(int reading_end, const char *byte)
{
    const int fd = open(("/proc/self/fd/" + std::to_string(reading_end)).c_str(),
                        O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (write(fd, byte, 1) == 1) {
    }
    close(fd);
}

void let_happen(const play_event &event, bool in_shell, run_state &state, play_result &result)
{
    termios mode{};
    if (state.terminal_far >= 0) tcgetattr(state.terminal_far, &mode);
    result.at_events.push_back(mode);
    result.captured_at_events.push_back(captured_bytes(state));
    result.shown_at_events.push_back(result.out.size());
    if (!event.type.empty() && write(state.near[0], event.type.data(), event.type.size()) !=
                                   static_cast<ssize_t>(event.type.size()))
        result.trouble += "keys were not taken\n";
    const pid_t job = in_shell ? -tcgetpgrp(state.terminal) : state.process;
    if (event.signal != 0) kill(job, event.signal);
    if (event.call) event.call();
    state.clogged = event.clogs;
    if (event.clogs) clog(state.near[1], ".");
    state.muted = event.mutes;
    if (event.mutes) clog(state.near[voice], "\n");
    if (event.allow >= 0) open_gate(state.directory + "/gate", event.allow);
}

// Runs the events until the player has ended. Its exit as waitpid gives it.
int watch_player(run_state &state, const play_settings &settings, play_result &result)
{
    const auto start = clock_type::now();
    auto last_event = start;
    auto event = settings.events.begin();
    int exit = 0;
    bool killed = false;
    while (waitpid(state.process, &exit, WNOHANG) == 0) {
        read_streams(state, result, 1);
        if (event != settings.events.end() && is_due(*event, state, result, last_event)) {
            let_happen(*event++, settings.in_shell, state, result);
            last_event = clock_type::now();
        }
        if (killed || clock_type::now() - start < std::chrono::seconds(settings.timeout_seconds))
            continue;
        result.trouble += "the player did not end\n";
        kill(state.process, SIGKILL);
        killed = true;
    }
    if (event != settings.events.end() && !event->may_miss)
        result.trouble += "an event did not come\n";
    return exit;
}

void read_rest(run_state &state, play_result &result)
{
    for (size_t stream = 1; stream < 4; ++stream) {
        std::string &text = *texts_of(result)[stream];
        if (state.near[stream] < 0) continue;
        size_t before = 0;
        do before = text.size();
        while (read_some(state.near[stream], text) && text.size() > before);
    }
}

void look_for_findings(play_result &result)
{
    for (const char *finding : {"Sanitizer", "runtime error:"})
        if (result.err.find(finding) != std::string::npos) result.trouble += result.err;
}

void read_files(const run_state &state, play_result &result)
{
    const std::string bytes = file_text(state.directory + "/capture");
    result.capture.assign(bytes.begin(), bytes.end());
    std::istringstream log(file_text(state.directory + "/log"));
    for (std::string line; std::getline(log, line);) result.log.push_back(line);
}

} // namespace

const std::string &scratch_directory()
{
    static const std::string path = make_directory();
    return path;
}

std::string scratch_file(const std::string &name, const bytes &content)
{
    std::string path = scratch_directory() + "/" + name;
    write_file(path, content);
    return path;
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
    settings.stand_ins = true;
    settings.capture["CARD_NAME"] = "snd_rpi_dac";
    settings.capture["KEY"] = std::to_string(getpid());
    return settings;
}

play_result run_player(const play_settings &settings)
{
    static int runs;
    play_result result;
    run_state state{};
    state.directory = scratch_directory() + "/.run" + std::to_string(++runs);
    mkdir(state.directory.c_str(), 0777);
    write_configuration(state.directory);
    open_terminal(state, settings);
    open_wire(state, 0, settings.input);
    open_wire(state, 1, settings.output);
    open_wire(state, 2, settings.error);
    open_wire(state, voice, settings.voice);
    if (state.terminal_far >= 0) tcgetattr(state.terminal_far, &result.before);

    state.process = fork();
    if (state.process == 0) become_player(state, settings);
    close_all(state.far);
    const int exit = watch_player(state, settings, result);
    result.status = WIFEXITED(exit) ? WEXITSTATUS(exit) : -WTERMSIG(exit);
    read_rest(state, result);
    if (state.terminal_far >= 0) tcgetattr(state.terminal_far, &result.after);
    close_all(state.near);
    close_all({state.terminal, state.terminal_far, -1, -1});

    read_files(state, result);
    std::filesystem::remove_all(state.directory);
    look_for_findings(result);
    return result;
}

bool same_mode(const termios &a, const termios &b)
{
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && std::equal(a.c_cc, a.c_cc + NCCS, b.c_cc);
}

bool log_has(const play_result &result, const std::string &text)
{
    for (const std::string &line : result.log)
        if (line.find(text) != std::string::npos) return true;
    return false;
}

bool all_sounded(const play_result &result)
{
    unsigned long taken = 0;
    unsigned long sounded = 0;
    bool all = false;
    for (const std::string &line : result.log) {
        if (line.starts_with("open ")) all = false; // the probe's close counts for nothing
        if (std::sscanf(line.c_str(), "close %lu sounded %lu", &taken, &sounded) == 2)
            all = taken == sounded;
    }
    return all;
}

std::string report_text(const char *unit, int number, const std::string &message)
{
    return "\nERROR " + std::string(unit) + " " + std::to_string(number) + " " + message;
}
