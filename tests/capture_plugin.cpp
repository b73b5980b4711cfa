// The capture device: an ALSA external I/O plug-in that takes what it is told to take,
// at the pace it is told, keeps every frame it got and logs what happened. It is set up by the
// environment, see open_device() and the readers below.
//
// Preloaded into a player it also stands in for a few functions of libasound and of the C library:
// the cards of the machine, waiting, and calls that are to fail.
#define PIC 1 // the headers declare a plug-in's version for a shared library
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
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
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{

// A fault that strikes once the device took a number of frames: a state of the device, or a failing
// call.
struct fault_row {
    const char *name;
    snd_pcm_state_t state; // what the device goes into
    int transfer_code;     // what each further transfer gives, when not 0
    int pointer_code;      // what each further question for the position gives, when not 0
    int avail_code = 0;    // what each further snd_pcm_avail() gives, preloaded, when not 0
};
constexpr std::array<fault_row, 10> faults = {{
    {"none", SND_PCM_STATE_RUNNING, 0, 0},
    {"xrun", SND_PCM_STATE_XRUN, 0, 0},
    {"suspended", SND_PCM_STATE_SUSPENDED, 0, 0},
    {"disconnected", SND_PCM_STATE_DISCONNECTED, 0, 0},
    {"draining", SND_PCM_STATE_DRAINING, 0, 0},
    {"setup", SND_PCM_STATE_SETUP, 0, 0},
    {"transfer", SND_PCM_STATE_RUNNING, -EIO, 0},
    {"again", SND_PCM_STATE_RUNNING, -EAGAIN, 0},
    {"pointer", SND_PCM_STATE_RUNNING, 0, -EPIPE},
    {"avail", SND_PCM_STATE_RUNNING, 0, 0, -EIO},
}};

constexpr double at_once = 0; // a speed

struct capture_device {
    snd_pcm_ioplug_t io;
    int capture_fd;
    int ordinal;                // of this open in the life of the player, from 1
    std::vector<unsigned> caps; // frames of successive transfers, cycled; empty: all
    unsigned random_cap;        // highest cap of random ones; 0: not random
    std::mt19937 random;
    size_t transfers;
    bool cut_short;   // the last transfer was: the call that goes on with it gives EAGAIN
    double speed;     // times real time, or at_once
    const char *gate; // file that tells how many frames may be played; null: any number
    int64_t dry_ms; // milliseconds without a transfer after which a dry queue is an xrun; -1: none
    uint64_t written;
    double played; // frames that have sounded
    int64_t clock; // of the last look at played, in nanoseconds
    int64_t last_transfer;
    const fault_row *fault;
    uint64_t fault_at; // frames
};
capture_device device;
bool busy_now; // the last open found the device busy

const char *setting(const char *name, const char *otherwise)
{
    const char *value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

// The settings of opens after the first may differ: NAME_2 counts before NAME.
const char *setting_of_open(const char *name, const char *otherwise)
{
    const std::string again = std::string(name) + "_2";
    const char *first = setting(name, otherwise);
    return device.ordinal > 1 ? setting(again.c_str(), first) : first;
}

std::vector<std::string> words_of(const char *text)
{
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

bool setting_has(const char *name, const std::string &wanted)
{
    const auto words = words_of(setting(name, ""));
    return std::find(words.begin(), words.end(), wanted) != words.end();
}

[[gnu::format(printf, 1, 2)]] void log_line(const char *format, ...)
{
    const char *path = setting("CAPTURE_LOG", nullptr);
    if (path == nullptr) return;
    std::array<char, 256> line;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (write(fd, line.data(), static_cast<size_t>(length)) != length) std::abort();
    close(fd);
}

int64_t now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

// --- Pace ---------------------------------------------------------------------------------------

// Frames that may be played by now: none as long as the gate's file is missing.
double limit_of_gate()
{
    if (device.gate == nullptr) return 1e300;
    double frames = 0;
    std::ifstream(device.gate) >> frames;
    return frames;
}

// Moves played on, as far as frames were written. False when a queue that ran dry is to be an xrun.
bool play_on()
{
    const int64_t time = now();
    const double passed = static_cast<double>(time - device.clock) * 1e-9;
    device.clock = time;
    const auto all = static_cast<double>(device.written);
    device.played =
        device.speed == at_once ? all : device.played + passed * device.io.rate * device.speed;
    device.played = std::min({device.played, all, std::max(limit_of_gate(), 0.0)});
    if (device.played < all) return true;
    return device.dry_ms < 0 || time - device.last_transfer <= device.dry_ms * 1000000;
}

snd_pcm_sframes_t on_pointer(snd_pcm_ioplug_t *io)
{
    if (device.fault->pointer_code != 0 && device.written >= device.fault_at)
        return device.fault->pointer_code;
    if (io->state == SND_PCM_STATE_RUNNING && !play_on()) {
        log_line("dry %lu\n", static_cast<unsigned long>(device.written));
        return -EPIPE;
    }
    return static_cast<snd_pcm_sframes_t>(device.played);
}

// --- Transfers ----------------------------------------------------------------------------------

snd_pcm_uframes_t cap_of_transfer()
{
    const size_t n = device.transfers++;
    if (device.random_cap != 0) return 1 + device.random() % device.random_cap;
    return device.caps.empty() ? SIZE_MAX : device.caps[n % device.caps.size()];
}

void strike_fault()
{
    if (device.written < device.fault_at || device.fault == faults.data()) return;
    log_line("fault %s %lu\n", device.fault->name, static_cast<unsigned long>(device.written));
    if (device.fault->state != SND_PCM_STATE_RUNNING)
        snd_pcm_ioplug_set_state(&device.io, device.fault->state);
}

// libasound goes on calling until all frames of a write are taken; an error ends the write short.
snd_pcm_sframes_t on_transfer(snd_pcm_ioplug_t *io, const snd_pcm_channel_area_t *areas,
                              snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    if (device.fault->transfer_code != 0 && device.written >= device.fault_at)
        return device.fault->transfer_code;
    if (std::exchange(device.cut_short, false)) return -EAGAIN;

    const uint64_t before_fault =
        device.written < device.fault_at ? device.fault_at - device.written : SIZE_MAX;
    const uint64_t taken = std::min({uint64_t{size}, uint64_t{cap_of_transfer()}, before_fault});
    device.cut_short = taken < size;
    const auto queued = device.written - static_cast<uint64_t>(device.played);
    log_line("write %lu took %lu room %ld\n", size, taken,
             static_cast<long>(io->buffer_size) - static_cast<long>(queued));

    const auto *bytes =
        static_cast<const uint8_t *>(areas->addr) + (areas->first + offset * areas->step) / 8;
    const size_t length = taken * areas->step / 8;
    if (write(device.capture_fd, bytes, length) != static_cast<ssize_t>(length)) std::abort();
    device.written += taken;
    device.last_transfer = now();
    strike_fault();
    return static_cast<snd_pcm_sframes_t>(taken);
}

// --- Other callbacks ----------------------------------------------------------------------------

int answer(const char *call)
{
    return setting_has("CAPTURE_FAIL", call) ? -EIO : 0;
}

// Ticks once a period, for programs that wait for the device with poll().
void start_ticking()
{
    if (device.speed <= 0) return;
    const double period =
        static_cast<double>(device.io.period_size) / device.io.rate / device.speed;
    const auto nanoseconds = static_cast<int64_t>(period * 1e9);
    const timespec time = {nanoseconds / 1000000000, nanoseconds % 1000000000};
    const itimerspec timer = {time, time};
    timerfd_settime(device.io.poll_fd, 0, &timer, nullptr);
}

int on_poll(snd_pcm_ioplug_t *, pollfd *fds, unsigned, unsigned short *events)
{
    uint64_t ticks = 0;
    const bool ticked = (fds->revents & POLLIN) != 0 && read(fds->fd, &ticks, sizeof ticks) > 0;
    *events = ticked ? POLLOUT : 0;
    return 0;
}

int on_start(snd_pcm_ioplug_t *)
{
    log_line("start %lu policy %d\n", static_cast<unsigned long>(device.written),
             sched_getscheduler(0));
    device.clock = device.last_transfer = now();
    start_ticking();
    return answer("start");
}

int on_stop(snd_pcm_ioplug_t *)
{
    log_line("stop\n");
    return 0;
}

int on_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *)
{
    log_line("params %s rate %u channels %u buffer %lu\n", snd_pcm_format_name(io->format),
             io->rate, io->channels, io->buffer_size);
    return answer("hw_params");
}

int on_sw_params(snd_pcm_ioplug_t *, snd_pcm_sw_params_t *params)
{
    snd_pcm_uframes_t start = 0;
    snd_pcm_uframes_t least = 0;
    snd_pcm_sw_params_get_start_threshold(params, &start);
    snd_pcm_sw_params_get_avail_min(params, &least);
    log_line("thresholds start %lu avail_min %lu\n", start, least);
    return 0;
}

int on_prepare(snd_pcm_ioplug_t *)
{
    log_line("prepare\n");
    return 0;
}

int on_close(snd_pcm_ioplug_t *io)
{
    if (io->state == SND_PCM_STATE_RUNNING) play_on(); // since it was asked last
    log_line("close %lu sounded %lu\n", static_cast<unsigned long>(device.written),
             static_cast<unsigned long>(device.played));
    close(device.capture_fd);
    close(device.io.poll_fd);
    return 0;
}

const snd_pcm_ioplug_callback_t callbacks = [] {
    snd_pcm_ioplug_callback_t table{};
    table.start = on_start;
    table.stop = on_stop;
    table.pointer = on_pointer;
    table.transfer = on_transfer;
    table.close = on_close;
    table.hw_params = on_hw_params;
    table.sw_params = on_sw_params;
    table.prepare = on_prepare;
    table.poll_revents = on_poll;
    return table;
}();

// --- Opening ------------------------------------------------------------------------------------

// A closed module may be unloaded, so the log is what remembers the opens.
int opens_in_log()
{
    std::ifstream log(setting("CAPTURE_LOG", "/dev/null"));
    int opens = 0;
    for (std::string line; std::getline(log, line);) opens += line.starts_with("open ");
    return opens;
}

// "A B C" lists the values that are taken, "A-B" gives limits.
void set_numbers(int parameter, const char *text)
{
    unsigned least = 0;
    unsigned most = 0;
    if (std::sscanf(text, "%u-%u", &least, &most) == 2) {
        snd_pcm_ioplug_set_param_minmax(&device.io, parameter, least, most);
        return;
    }
    std::vector<unsigned> values;
    for (const std::string &word : words_of(text))
        values.push_back(static_cast<unsigned>(std::stoul(word)));
    snd_pcm_ioplug_set_param_list(&device.io, parameter, static_cast<unsigned>(values.size()),
                                  values.data());
}

void set_formats(const char *names)
{
    std::vector<unsigned> values;
    for (const std::string &name : words_of(names))
        values.push_back(static_cast<unsigned>(snd_pcm_format_value(name.c_str())));
    snd_pcm_ioplug_set_param_list(&device.io, SND_PCM_IOPLUG_HW_FORMAT,
                                  static_cast<unsigned>(values.size()), values.data());
}

void constrain_device()
{
    const bool mapped = setting_has("CAPTURE_ACCESS", "mmap");
    const unsigned access =
        mapped ? SND_PCM_ACCESS_MMAP_INTERLEAVED : SND_PCM_ACCESS_RW_INTERLEAVED;
    snd_pcm_ioplug_set_param_list(&device.io, SND_PCM_IOPLUG_HW_ACCESS, 1, &access);
    set_formats(setting_of_open("CAPTURE_FORMATS", "S32_LE"));
    set_numbers(SND_PCM_IOPLUG_HW_RATE, setting_of_open("CAPTURE_RATES", "1-20000000"));
    set_numbers(SND_PCM_IOPLUG_HW_CHANNELS, setting("CAPTURE_CHANNELS", "2"));
    set_numbers(SND_PCM_IOPLUG_HW_BUFFER_BYTES, setting("CAPTURE_BUFFER_BYTES", "64-100000000"));
    set_numbers(SND_PCM_IOPLUG_HW_PERIODS, "1-1024");
}

void read_caps(const char *text)
{
    unsigned seed = 0;
    if (std::sscanf(text, "random %u %u", &device.random_cap, &seed) == 2) {
        device.random.seed(seed);
        return;
    }
    for (const std::string &word : words_of(text))
        device.caps.push_back(static_cast<unsigned>(std::stoul(word)));
}

// "KIND N" strikes after N frames.
void read_fault(const char *text)
{
    std::istringstream in(text);
    std::string name;
    in >> name >> device.fault_at;
    device.fault = std::find_if(faults.begin(), faults.end(),
                                [&](const fault_row &row) { return row.name == name; });
    if (device.fault == faults.end()) std::abort();
}

void read_pace()
{
    const std::string speed = setting("CAPTURE_SPEED", "once");
    device.speed = speed == "once" ? at_once : std::stod(speed);
    device.gate = setting("CAPTURE_GATE", nullptr);
    device.dry_ms = std::stol(setting("CAPTURE_DRY_MS", "-1"));
}

int open_device(snd_pcm_t **pcm, const char *name, snd_pcm_stream_t stream, int mode)
{
    device = {};
    device.ordinal = opens_in_log() + 1;
    const std::string ordinal = std::to_string(device.ordinal);
    const bool busy = setting_has("CAPTURE_BUSY", ordinal) || setting_has("CAPTURE_BUSY", "all");
    busy_now = busy;
    log_line("open %s%s\n", ordinal.c_str(), busy ? " busy" : "");
    if (busy) return -EBUSY;

    read_caps(setting("CAPTURE_CAPS", ""));
    read_fault(setting("CAPTURE_FAULT", "none 0"));
    read_pace();
    device.capture_fd =
        open(setting("CAPTURE_FILE", "/dev/null"), O_WRONLY | O_APPEND | O_CREAT, 0666);
    device.io.version = SND_PCM_IOPLUG_VERSION;
    device.io.name = "capture device of the tests";
    device.io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    device.io.callback = &callbacks;
    device.io.poll_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    device.io.poll_events = POLLIN;
    const int code = snd_pcm_ioplug_create(&device.io, name, stream, mode);
    if (code < 0) return code;
    constrain_device();
    *pcm = device.io.pcm;
    return 0;
}

} // namespace

extern "C" {

// The entry that libasound looks up.
SND_PCM_PLUGIN_DEFINE_FUNC(capture)
{
    (void)root;
    (void)conf;
    return open_device(pcmp, name, stream, mode);
}
SND_PCM_PLUGIN_SYMBOL(capture);

// --- Stand-ins, for a preloaded module ----------------------------------------------------------

// Gives a call that CAPTURE_FAIL names a failure, and passes all others on; libasound makes the
// first ones of some calls itself.
#define FAILING_AFTER(passed, result, name, parameters, arguments, failure)                        \
    result name parameters                                                                         \
    {                                                                                              \
        static int to_pass = passed;                                                               \
        if (setting_has("CAPTURE_FAIL", #name) && to_pass-- <= 0) return failure;                  \
        static auto *real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));       \
        return real arguments;                                                                     \
    }
#define FAILING(result, name, parameters, arguments, failure)                                      \
    FAILING_AFTER(0, result, name, parameters, arguments, failure)
FAILING(int, snd_pcm_nonblock, (snd_pcm_t * p, int n), (p, n), -EIO)
FAILING(int, snd_pcm_hw_params_any, (snd_pcm_t * p, snd_pcm_hw_params_t *h), (p, h), -EIO)
FAILING(int, snd_pcm_hw_params_get_rate_min, (const snd_pcm_hw_params_t *h, unsigned *v, int *d),
        (h, v, d), -EIO)
FAILING(int, snd_pcm_hw_params_get_rate_max, (const snd_pcm_hw_params_t *h, unsigned *v, int *d),
        (h, v, d), -EIO)
FAILING(int, snd_pcm_hw_params_set_buffer_time_near,
        (snd_pcm_t * p, snd_pcm_hw_params_t *h, unsigned *v, int *d), (p, h, v, d), -EIO)
FAILING(int, snd_pcm_hw_params_get_buffer_size,
        (const snd_pcm_hw_params_t *h, snd_pcm_uframes_t *v), (h, v), -EIO)
FAILING(int, snd_pcm_sw_params_current, (snd_pcm_t * p, snd_pcm_sw_params_t *s), (p, s), -EIO)
FAILING(int, snd_pcm_sw_params_set_start_threshold,
        (snd_pcm_t * p, snd_pcm_sw_params_t *s, snd_pcm_uframes_t v), (p, s, v), -EIO)
FAILING_AFTER(1, int, snd_pcm_sw_params, (snd_pcm_t * p, snd_pcm_sw_params_t *s), (p, s), -EIO)
FAILING_AFTER(1, int, snd_pcm_prepare, (snd_pcm_t * p), (p), -EIO)
FAILING(int, snd_pcm_hw_params_test_format,
        (snd_pcm_t * p, snd_pcm_hw_params_t *h, snd_pcm_format_t v), (p, h, v), -EINVAL)
FAILING(int, snd_pcm_hw_params_set_format,
        (snd_pcm_t * p, snd_pcm_hw_params_t *h, snd_pcm_format_t v), (p, h, v), -EIO)
FAILING(int, snd_pcm_sw_params_set_avail_min,
        (snd_pcm_t * p, snd_pcm_sw_params_t *s, snd_pcm_uframes_t v), (p, s, v), -EIO)
FAILING(int, ferror, (FILE * f), (f), 1)
FAILING(int, pthread_join, (pthread_t t, void **r), (t, r), EINVAL)
FAILING(int, pthread_create, (pthread_t * t, const pthread_attr_t *a, void *(*f)(void *), void *g),
        (t, a, f, g), EAGAIN)
#undef FAILING
#undef FAILING_AFTER

snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t *pcm)
{
    static auto *real =
        reinterpret_cast<decltype(&snd_pcm_avail)>(dlsym(RTLD_NEXT, "snd_pcm_avail"));
    const bool fails = device.fault->avail_code != 0 && device.written >= device.fault_at;
    return fails ? device.fault->avail_code : real(pcm);
}

// CAPTURE_SWAP "A N B": the Nth opening of the file A gives B. With "interrupt" for B a SIGINT
// comes while it is opened. With "stall" it never ends, as on a lost network mount: the parent of a
// clone, too, sleeps where no handler of a signal can run.
FILE *fopen64(const char *path, const char *mode)
{
    static auto *real =
        reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "fopen64"));
    static int opened;
    const auto swap = words_of(setting("CAPTURE_SWAP", ""));
    const bool due = swap.size() == 3 && swap[0] == path && std::to_string(++opened) == swap[1];
    if (due && swap[2] == "interrupt") raise(SIGINT);
    // Not by vfork(): the thread sanitizer makes a fork of it.
    if (due && swap[2] == "stall" &&
        syscall(SYS_clone, CLONE_VFORK | SIGCHLD, nullptr, nullptr, nullptr, nullptr) == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // before anybody learns that there is a player to end
        log_line("stall\n");
        while (true) pause();
    }
    return real(due && swap[2] != "interrupt" ? swap[2].c_str() : path, mode);
}

int nice(int increment) noexcept
{
    log_line("nice %d\n", increment);
    errno = EPERM;
    return setting_has("CAPTURE_FAIL", "nice") ? -1 : 0;
}

// The controller of a test has a key of its own, so that no other player meets it.
key_t ftok(const char *path, int project) noexcept
{
    log_line("ftok %s %d\n", path, project);
    return std::stoi(setting("CAPTURE_KEY", "-1"));
}

// Waiting for a busy device, which the player does in slices of this length, takes a fiftieth.
int usleep(useconds_t microseconds)
{
    static auto *real = reinterpret_cast<decltype(&usleep)>(dlsym(RTLD_NEXT, "usleep"));
    if (!busy_now || microseconds != 50000) return real(microseconds);
    log_line("pause %u\n", microseconds);
    return real(microseconds / 50);
}

// The machine has CAPTURE_CARDS cards, all of the name CAPTURE_CARD_NAME.
int snd_card_next(int *card)
{
    const int cards = std::stoi(setting("CAPTURE_CARDS", "0"));
    *card = *card + 1 < cards ? *card + 1 : -1;
    return 0;
}

int snd_card_get_name(int, char **name)
{
    const char *told = setting("CAPTURE_CARD_NAME", nullptr);
    if (told == nullptr) return -ENODEV;
    *name = strdup(told);
    return 0;
}

} // extern "C"
