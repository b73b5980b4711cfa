// The capture device: an ALSA external I/O plug-in. The environment sets what it takes and how fast
// it plays. It stores every frame that it gets and logs what happens. If it is preloaded into a
// player, it also replaces some functions of libasound and of the C library: the cards of the
// machine, waits, and calls that are to fail.
#define PIC 1 // so that the headers declare the plug-in's version for a shared library
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{

// A fault that occurs after the device has taken a number of frames, until it is prepared again: a
// state that the device enters, or, if not 0, the code that a call returns.
struct fault_row {
    const char *name;
    snd_pcm_state_t state;
    int transfer_code = 0;
    int pointer_code = 0;
    int avail_code = 0; // result of snd_pcm_avail(), which this module replaces
    int prepare_code = 0;
};
constexpr std::array<fault_row, 12> faults = {{
    {"none", SND_PCM_STATE_RUNNING},
    {"xrun", SND_PCM_STATE_XRUN},
    {"suspended", SND_PCM_STATE_SUSPENDED},
    {"disconnected", SND_PCM_STATE_DISCONNECTED},
    {"draining", SND_PCM_STATE_DRAINING},
    {"setup", SND_PCM_STATE_SETUP},
    {"transfer", SND_PCM_STATE_RUNNING, -EIO},
    {"again", SND_PCM_STATE_RUNNING, -EAGAIN},
    {"pointer", SND_PCM_STATE_RUNNING, 0, -EPIPE},
    {"avail", SND_PCM_STATE_RUNNING, 0, 0, -EIO},
    {"away", SND_PCM_STATE_SUSPENDED, 0, 0, 0, -EIO},
    {"gone", SND_PCM_STATE_SUSPENDED, 0, 0, 0, -ENODEV},
}};

struct capture_device {
    snd_pcm_ioplug_t io;
    int capture_fd;
    int ordinal;                // number of this open in the log, from 1
    bool busy;                  // this open fails with EBUSY
    std::vector<unsigned> caps; // frames that transfers take, in a cycle; empty: all frames
    size_t transfers;
    bool cut_short;   // the last transfer took less than offered; the next one gives EAGAIN
    double speed;     // in multiples of real time; 0: at once
    const char *gate; // file with the number of frames that may be played; null: no limit
    // Milliseconds without a transfer after which an empty queue is an xrun; -1: it never is.
    double dry_ms;
    snd_pcm_sframes_t step; // the pointer moves by this many frames
    snd_pcm_uframes_t written;
    snd_pcm_uframes_t prepared_at; // frames written by then
    double played;                 // frames that were played or dropped
    double clock;                  // seconds: the time at which played was computed
    double last_transfer;
    const fault_row *fault;
    snd_pcm_uframes_t fault_at; // frames
    std::istringstream later_faults;
};
capture_device device;
std::atomic<int> dry_times; // how often the queue has run dry since the player started

// The environment variable CAPTURE_NAME; for every open after the first, CAPTURE_NAME_2 if set.
const char *setting(const std::string &name, const char *otherwise)
{
    const std::string variable = "CAPTURE_" + name;
    const char *value = std::getenv((variable + (device.ordinal > 1 ? "_2" : "")).c_str());
    if (value == nullptr) value = std::getenv(variable.c_str());
    return value != nullptr && *value != '\0' ? value : otherwise;
}

template <typename T> std::vector<T> list_of(const std::string &text)
{
    std::istringstream in(text);
    return {std::istream_iterator<T>(in), {}};
}

bool setting_has(const char *name, const std::string &wanted)
{
    const auto words = list_of<std::string>(setting(name, ""));
    return std::find(words.begin(), words.end(), wanted) != words.end();
}

// Result: 0, so that a callback can return it.
[[gnu::format(printf, 1, 2)]] int log_line(const char *format, ...)
{
    const char *path = setting("LOG", nullptr);
    if (path == nullptr) return 0;
    va_list arguments;
    va_start(arguments, format);
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (vdprintf(fd, format, arguments) < 0) std::abort();
    close(fd);
    va_end(arguments);
    return 0;
}

// In seconds.
double now()
{
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(time).count();
}

int fault_code(int fault_row::*of_call)
{
    return device.written < device.fault_at ? 0 : device.fault->*of_call;
}

// --- Pace ---------------------------------------------------------------------------------------

// Advances played as far as the speed, the frames written and the number in the gate's file allow.
// Result: false if the queue is empty and that is an xrun.
bool play_on()
{
    const auto written = static_cast<double>(device.written);
    double allowed = written;
    if (device.gate != nullptr && !(std::ifstream(device.gate) >> allowed)) allowed = 0;
    const double time = now();
    const double due = device.played + (time - device.clock) * device.io.rate * device.speed;
    device.clock = time;
    device.played = std::min({device.speed == 0 ? written : due, written,
                              std::max(allowed, static_cast<double>(device.prepared_at))});
    if (device.played < written) return true;
    return device.dry_ms < 0 || time - device.last_transfer <= device.dry_ms * 1e-3;
}

snd_pcm_sframes_t on_pointer(snd_pcm_ioplug_t *io)
{
    const int code = fault_code(&fault_row::pointer_code);
    if (code != 0) return code;
    if (io->state == SND_PCM_STATE_RUNNING && !play_on()) {
        log_line("dry %lu\n", device.written);
        ++dry_times;
        return -EPIPE;
    }
    const auto played = static_cast<snd_pcm_sframes_t>(device.played) -
                        static_cast<snd_pcm_sframes_t>(device.prepared_at);
    return played - played % device.step;
}

// --- Transfers ----------------------------------------------------------------------------------

// libasound repeats the call until all frames of a write are taken. An error ends the write early.
snd_pcm_sframes_t on_transfer(snd_pcm_ioplug_t *io, const snd_pcm_channel_area_t *areas,
                              snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    const int code = fault_code(&fault_row::transfer_code);
    if (code != 0) return code;
    if (std::exchange(device.cut_short, false)) return -EAGAIN;

    snd_pcm_uframes_t taken = size;
    if (!device.caps.empty())
        taken = std::min<size_t>(size, device.caps[device.transfers++ % device.caps.size()]);
    if (device.written < device.fault_at) taken = std::min(taken, device.fault_at - device.written);
    device.cut_short = taken < size;
    const auto queued = device.written - static_cast<snd_pcm_uframes_t>(device.played);
    log_line("write %lu took %lu room %ld\n", size, taken,
             static_cast<long>(io->buffer_size) - static_cast<long>(queued));

    const auto *bytes =
        static_cast<const uint8_t *>(areas->addr) + (areas->first + offset * areas->step) / 8;
    const size_t length = taken * areas->step / 8;
    if (write(device.capture_fd, bytes, length) != static_cast<ssize_t>(length)) std::abort();
    device.written += taken;
    device.last_transfer = now();
    if (device.written >= device.fault_at && device.fault != faults.data()) {
        log_line("fault %s %lu\n", device.fault->name, device.written);
        if (device.fault->state != SND_PCM_STATE_RUNNING)
            snd_pcm_ioplug_set_state(io, device.fault->state);
    }
    return static_cast<snd_pcm_sframes_t>(taken);
}

// --- Other callbacks ----------------------------------------------------------------------------

// The timer ticks once a period, for programs that wait for the device with poll().
int on_start(snd_pcm_ioplug_t *io)
{
    log_line("start %lu policy %d\n", device.written, sched_getscheduler(0));
    device.clock = device.last_transfer = now();
    const double period = static_cast<double>(io->period_size) / io->rate; // seconds; below 1
    const timespec tick = {0, device.speed == 0 ? 0 : std::lround(period / device.speed * 1e9)};
    const itimerspec ticks = {tick, tick};
    timerfd_settime(io->poll_fd, 0, &ticks, nullptr);
    return setting_has("FAIL", "start") ? -EIO : 0;
}

int on_poll(snd_pcm_ioplug_t *, pollfd *fds, unsigned, unsigned short *events)
{
    uint64_t ticks = 0;
    *events = read(fds->fd, &ticks, sizeof ticks) > 0 ? POLLOUT : 0;
    return 0;
}

// "KIND N": the fault KIND occurs after N frames. When it is over, the next pair takes effect.
void next_fault()
{
    std::string name;
    if (!(device.later_faults >> name >> device.fault_at)) name = "none";
    device.fault = nullptr;
    for (const fault_row &row : faults)
        if (row.name == name) device.fault = &row;
    if (device.fault == nullptr) std::abort();
}

// Drops the queue.
int on_prepare(snd_pcm_ioplug_t *)
{
    const int code = fault_code(&fault_row::prepare_code);
    if (code != 0) return code;
    if (device.written > 0 && device.written >= device.fault_at) next_fault();
    log_line("prepare after %lu dropped %.0f\n", device.written,
             static_cast<double>(device.written) - std::floor(device.played));
    device.prepared_at = device.written;
    device.played = static_cast<double>(device.written);
    device.cut_short = false;
    return 0;
}

int on_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *)
{
    log_line("params %s rate %u channels %u buffer %lu\n", snd_pcm_format_name(io->format),
             io->rate, io->channels, io->buffer_size);
    const bool refuses =
        setting_has("FAIL", "hw_params") || setting_has("FAIL", snd_pcm_format_name(io->format));
    return refuses ? -EIO : 0;
}

int on_sw_params(snd_pcm_ioplug_t *, snd_pcm_sw_params_t *params)
{
    snd_pcm_uframes_t start = 0, least = 0, boundary = 0, stop = 0, silence = 0, below = 0;
    snd_pcm_sw_params_get_start_threshold(params, &start);
    snd_pcm_sw_params_get_avail_min(params, &least);
    snd_pcm_sw_params_get_boundary(params, &boundary);
    snd_pcm_sw_params_get_stop_threshold(params, &stop);
    snd_pcm_sw_params_get_silence_size(params, &silence);
    snd_pcm_sw_params_get_silence_threshold(params, &below);
    if (stop == boundary && silence == boundary && below == 0) {
        log_line("runs on after %lu\n", device.written);
        return setting_has("FAIL", "run_on") ? -EINVAL : 0;
    }
    return log_line("thresholds start %lu avail_min %lu\n", start, least);
}

int on_stop(snd_pcm_ioplug_t *io)
{
    if (io->state == SND_PCM_STATE_RUNNING) play_on(); // updates device.played
    return log_line("stop\n");
}

// Never returns, like a call on a lost network mount. The parent of a clone with CLONE_VFORK sleeps
// where no signal handler can run. The thread sanitizer would turn vfork() into a fork.
void stall()
{
    if (syscall(SYS_clone, CLONE_VFORK | SIGCHLD, nullptr, nullptr, nullptr, nullptr) != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL); // set before the log line, for which the test waits
    log_line("stall\n");
    while (true) pause();
}

int on_close(snd_pcm_ioplug_t *)
{
    close(device.capture_fd);
    close(device.io.poll_fd);
    log_line("close %d took %lu sounded %.0f\n", device.ordinal, device.written,
             std::floor(device.played));
    if (setting_has("FAIL", "close") && device.ordinal > 1) stall();
    return 0;
}

constexpr snd_pcm_ioplug_callback_t callbacks = {
    .start = on_start,
    .stop = on_stop,
    .pointer = on_pointer,
    .transfer = on_transfer,
    .close = on_close,
    .hw_params = on_hw_params,
    .sw_params = on_sw_params,
    .prepare = on_prepare,
    .poll_revents = on_poll,
};

// --- Opening ------------------------------------------------------------------------------------

// Counts opens in the log, because libasound may unload the module after a close.
int opens_in_log()
{
    std::ifstream log(setting("LOG", "/dev/null"));
    int opens = 0;
    for (std::string line; std::getline(log, line);) opens += line.starts_with("open ");
    return opens;
}

// "A B C" lists the values that the device takes, "A-B" gives limits. Formats are given by name.
void take_values(int parameter, const char *text)
{
    unsigned least = 0, most = 0;
    if (std::sscanf(text, "%u-%u", &least, &most) == 2) {
        snd_pcm_ioplug_set_param_minmax(&device.io, parameter, least, most);
        return;
    }
    auto values = list_of<unsigned>(text);
    if (parameter == SND_PCM_IOPLUG_HW_FORMAT)
        for (const std::string &name : list_of<std::string>(text))
            values.push_back(static_cast<unsigned>(snd_pcm_format_value(name.c_str())));
    snd_pcm_ioplug_set_param_list(&device.io, parameter, static_cast<unsigned>(values.size()),
                                  values.data());
}

void constrain_device()
{
    const unsigned access = setting_has("ACCESS", "mmap") ? SND_PCM_ACCESS_MMAP_INTERLEAVED
                                                          : SND_PCM_ACCESS_RW_INTERLEAVED;
    snd_pcm_ioplug_set_param_list(&device.io, SND_PCM_IOPLUG_HW_ACCESS, 1, &access);
    take_values(SND_PCM_IOPLUG_HW_FORMAT, setting("FORMATS", "S32_LE"));
    take_values(SND_PCM_IOPLUG_HW_RATE, setting("RATES", "1-20000000"));
    take_values(SND_PCM_IOPLUG_HW_CHANNELS, setting("CHANNELS", "2"));
    take_values(SND_PCM_IOPLUG_HW_BUFFER_BYTES, setting("BUFFER_BYTES", "64-100000000"));
    take_values(SND_PCM_IOPLUG_HW_PERIOD_BYTES, setting("PERIOD_BYTES", "1-100000000"));
    take_values(SND_PCM_IOPLUG_HW_PERIODS, "1-1024");
}

// The frames that successive transfers take, or "random MOST SEED".
void read_caps(const char *text)
{
    unsigned most = 0, seed = 0;
    device.caps = list_of<unsigned>(text);
    if (std::sscanf(text, "random %u %u", &most, &seed) != 2) return;
    std::minstd_rand random(seed);
    for (int i = 0; i < 9973; ++i)
        device.caps.push_back(1 + static_cast<unsigned>(random()) % most);
}

} // namespace

extern "C" {

// The entry point that libasound looks up.
SND_PCM_PLUGIN_DEFINE_FUNC(capture)
{
    (void)root;
    (void)conf;
    device = {};
    device.ordinal = opens_in_log() + 1;
    device.busy = setting_has("BUSY", std::to_string(device.ordinal)) || setting_has("BUSY", "all");
    log_line("open %d%s\n", device.ordinal, device.busy ? " busy" : "");
    if (device.busy) return -EBUSY;

    read_caps(setting("CAPS", ""));
    device.later_faults.str(setting("FAULT", "none 0"));
    next_fault();
    device.speed = std::strtod(setting("SPEED", "once"), nullptr); // of "once" it is 0
    device.gate = setting("GATE", nullptr);
    device.dry_ms = std::stod(setting("DRY_MS", "-1"));
    device.step = std::stol(setting("STEP", "1"));
    device.capture_fd = open(setting("FILE", "/dev/null"), O_WRONLY | O_APPEND | O_CREAT, 0666);
    device.io.version = SND_PCM_IOPLUG_VERSION;
    device.io.name = "capture device of the tests";
    device.io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    device.io.callback = &callbacks;
    device.io.poll_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    device.io.poll_events = POLLIN;
    const int code = snd_pcm_ioplug_create(&device.io, name, stream, mode);
    if (code < 0) return code;
    constrain_device();
    *pcmp = device.io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(capture);

// --- Stand-ins, for a preloaded module ----------------------------------------------------------

#define REAL(name) reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

// Replaces a function: it fails if CAPTURE_FAIL names it, otherwise the call is passed on. The
// first `passed` calls are always passed on, because libasound makes them itself.
#define FAILING(passed, name, parameters, ...)                                                     \
    int name parameters                                                                            \
    {                                                                                              \
        static int to_pass = passed;                                                               \
        if (setting_has("FAIL", #name) && to_pass-- <= 0) return -EIO;                             \
        static auto *real = REAL(name);                                                            \
        return real(__VA_ARGS__);                                                                  \
    }
using pcm_of = snd_pcm_t *;
using info = const snd_pcm_hw_params_t *;
using hw_of = snd_pcm_hw_params_t *;
using sw_of = snd_pcm_sw_params_t *;
using frames = snd_pcm_uframes_t;
FAILING(0, snd_pcm_nonblock, (pcm_of p, int n), p, n)
FAILING(0, snd_pcm_hw_params_any, (pcm_of p, hw_of h), p, h)
FAILING(0, snd_pcm_hw_params_get_rate_min, (info h, uint *v, int *d), h, v, d)
FAILING(0, snd_pcm_hw_params_get_rate_max, (info h, uint *v, int *d), h, v, d)
FAILING(0, snd_pcm_hw_params_set_buffer_time_near, (pcm_of p, hw_of h, uint *v, int *d), p, h, v, d)
FAILING(0, snd_pcm_hw_params_get_buffer_size, (info h, frames *v), h, v)
FAILING(0, snd_pcm_hw_params_test_format, (pcm_of p, hw_of h, snd_pcm_format_t v), p, h, v)
FAILING(0, snd_pcm_hw_params_set_format, (pcm_of p, hw_of h, snd_pcm_format_t v), p, h, v)
FAILING(0, snd_pcm_sw_params_current, (pcm_of p, sw_of s), p, s)
FAILING(0, snd_pcm_sw_params_set_start_threshold, (pcm_of p, sw_of s, frames v), p, s, v)
FAILING(0, snd_pcm_sw_params_set_avail_min, (pcm_of p, sw_of s, frames v), p, s, v)
FAILING(1, snd_pcm_sw_params, (pcm_of p, sw_of s), p, s)
FAILING(1, snd_pcm_prepare, (pcm_of p), p)
FAILING(0, ferror, (FILE * f), f)
FAILING(0, pthread_join, (pthread_t t, void **r), t, r)
using start_of = void *(*)(void *);
FAILING(0, pthread_create, (pthread_t * t, const pthread_attr_t *a, start_of f, void *g), t, a, f,
        g)

snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t *pcm)
{
    static auto *real = REAL(snd_pcm_avail);
    const int code = fault_code(&fault_row::avail_code);
    return code != 0 ? code : real(pcm);
}

// Returns after the player has taken the signal.
static void interrupt_player()
{
    sigset_t pending;
    kill(getpid(), SIGINT);
    while (sigpending(&pending) == 0 && sigismember(&pending, SIGINT) == 1) poll(nullptr, 0, 1);
    poll(nullptr, 0, 50);
}

// Returns when the device has run dry that many times.
static void wait_until_dry(int times)
{
    while (dry_times < times) poll(nullptr, 0, 1);
}

// CAPTURE_SWAP "A N B": the Nth open of the file A opens the file B, if B has a dot, else A. If B
// begins with "interrupt", a SIGINT comes first. If B is "stall", the open never returns. If B is
// "dry", it waits until the device has run dry.
FILE *fopen(const char *path, const char *mode)
{
    // With 64-bit file sizes the GNU C library gives fopen this name, here too.
    static auto *real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen64"));
    static int opened;
    const auto swap = list_of<std::string>(setting("SWAP", ""));
    const bool due = swap.size() == 3 && swap[0] == path && std::to_string(++opened) == swap[1];
    if (due && swap[2].starts_with("interrupt")) interrupt_player();
    if (due && swap[2] == "stall") stall();
    if (due && swap[2] == "dry") wait_until_dry(1);
    return real(due && swap[2].find('.') != std::string::npos ? swap[2].c_str() : path, mode);
}

// CAPTURE_STALL: numbers of bytes, read from all files together. At the nth number the read blocks
// until the device has run dry n times, at the last number for ever.
size_t fread(void *to, size_t size, size_t count, FILE *stream)
{
    static auto *real = REAL(fread);
    static const auto stalls = list_of<uint64_t>(setting("STALL", "1000000000000"));
    static size_t read_so_far, stalled;
    read_so_far += size * count;
    if (read_so_far > stalls[stalled] && stalled + 1 == stalls.size()) stall();
    if (read_so_far > stalls[stalled]) wait_until_dry(static_cast<int>(++stalled));
    return real(to, size, count, stream);
}

// Can make a directory fail with an error at its end, or cause a SIGINT at each entry.
dirent *readdir(DIR *directory)
{
    static auto *real = reinterpret_cast<decltype(&readdir)>(dlsym(RTLD_NEXT, "readdir64"));
    dirent *entry = real(directory);
    if (setting_has("FAIL", "interrupt")) interrupt_player();
    if (entry == nullptr && setting_has("FAIL", "readdir")) errno = EIO;
    return entry;
}

// Never signals process 1, whatever the player does.
int kill(pid_t process, int number) noexcept
{
    static auto *real = REAL(kill);
    log_line("kill %d %d\n", process, number);
    return process == 1 ? 0 : real(process, number);
}

int nice(int increment) noexcept
{
    log_line("nice %d\n", increment);
    if (!setting_has("FAIL", "nice")) return increment; // negative, as a new nice value can be
    errno = EPERM;
    return -1;
}

// Each test process has a key of its own for the controller, so that players of others find none.
key_t ftok(const char *path, int project) noexcept
{
    log_line("ftok %s %d\n", path, project);
    return std::stoi(setting("KEY", "-1"));
}

// Divides each wait by the speed of the device and by the factor of the clock, if they are above 1.
// The wait for a busy device is 100 times shorter.
int ppoll(pollfd *fds, nfds_t count, const timespec *time, const sigset_t *mask)
{
    static auto *real = REAL(ppoll);
    if (time == nullptr) return real(fds, count, nullptr, mask);
    const bool retry = device.busy && time->tv_sec == 2;
    if (retry) log_line("pause 2 s\n");
    const double clock = std::stod(setting("CLOCK", "1"));
    const double faster = retry ? 100 : std::max(device.speed, 1.0) * std::max(clock, 1.0);
    const double seconds =
        (static_cast<double>(time->tv_sec) + static_cast<double>(time->tv_nsec) * 1e-9) / faster;
    const timespec shorter = {static_cast<time_t>(seconds),
                              std::lround(std::fmod(seconds, 1.0) * 999999999.0)};
    return real(fds, count, &shorter, mask);
}

// CAPTURE_CLOCK: the factor by which the monotonic clock runs faster than real time.
int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    static auto *real = REAL(clock_gettime);
    static const double faster = std::stod(setting("CLOCK", "1"));
    const int result = real(clock, time);
    if (clock != CLOCK_MONOTONIC || faster == 1) return result;
    const int64_t real_ns = time->tv_sec * INT64_C(1000000000) + time->tv_nsec;
    const auto ns = static_cast<int64_t>(static_cast<double>(real_ns) * faster);
    *time = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    return result;
}

// The machine has CAPTURE_CARDS cards. All have the name CAPTURE_CARD_NAME.
int snd_card_next(int *card)
{
    const int cards = std::stoi(setting("CARDS", "0"));
    *card = *card + 1 < cards ? *card + 1 : -1;
    return 0;
}

int snd_card_get_name(int, char **name)
{
    const char *card_name = setting("CARD_NAME", nullptr);
    if (card_name == nullptr) return -ENODEV;
    *name = strdup(card_name);
    return 0;
}

} // extern "C"
