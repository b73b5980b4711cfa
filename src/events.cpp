#include "events.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string_view>

#include "util.h"

namespace
{

// --- Writing to the descriptor ------------------------------------------------------------------

// How a line is written without blocking. O_NONBLOCK is not set on the descriptor itself, because
// the parent shares its status flags.
enum class write_mode {
    reopened, // pipes and terminals: opened again with O_NONBLOCK, so that the flag is ours alone
    sent,     // sockets, which cannot be opened again: send() with MSG_DONTWAIT
    polled,   // where that open fails, as for a pipe of another user: poll() before write()
    direct,   // regular files, which never block; the file offset is shared with the parent
};

constexpr int reader_has_left = -1;

std::atomic<int> events_fd = reader_has_left; // also the value without --events
write_mode mode;                              // set before events_fd, then constant

// These two words make the "end" event the last line. Each side writes its own word and then reads
// the other one:
//
//   any other event     ++lines_under_way     then reads ended
//   the "end" event     ended = true          then reads lines_under_way
//
// So at least one side sees the other. Either the event is not written, or "end" waits for it, for
// 100 ms at most.
std::atomic<int32_t> lines_under_way;
std::atomic<bool> ended;

std::atomic<uint32_t> dropped_lines; // since the last line that was written
std::atomic<bool> line_is_torn;      // only a part of the last line was written

enum class outcome { written, no_room, reader_left };

// Sets *descriptor to the one to write to.
write_mode find_write_mode(int *descriptor)
{
    struct stat status;
    if (fstat(*descriptor, &status) != 0) return write_mode::polled;
    if (S_ISSOCK(status.st_mode)) return write_mode::sent;
    if (S_ISREG(status.st_mode)) return write_mode::direct;
    std::array<char, 32> path;
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", *descriptor);
    const int reopened = open(path.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (reopened < 0) return write_mode::polled;
    *descriptor = reopened;
    return write_mode::reopened;
}

// A pipe takes a line of up to PIPE_BUF bytes whole or not at all. A longer line may be written
// only in part, if the pipe runs out of pages. Except the first and the last one, the pages in use
// are more than half full on average. So the unread bytes and the line need at most
//
//   2 * unread + 2 pages (first and last) + size + 1 page for a line of the other thread
bool has_room_for_long_line(int descriptor, size_t size)
{
    const int capacity = fcntl(descriptor, F_GETPIPE_SZ);
    int unread = 0;
    if (capacity < 0 || ioctl(descriptor, FIONREAD, &unread) != 0) return true; // not a pipe
    return size + 2 * static_cast<size_t>(unread) + size_t{3} * PIPE_BUF <=
           static_cast<size_t>(capacity);
}

// If two threads poll at the same time, both can see room for one line, and the second write would
// block. So a line is written only if no other one is being written at the same time.
bool may_write_polled(int descriptor)
{
    pollfd polled = {descriptor, POLLOUT, 0};
    return lines_under_way <= 1 && poll(&polled, 1, 0) == 1;
}

outcome write_line(std::string_view line)
{
    const int descriptor = load_acquire(events_fd);
    if (descriptor == reader_has_left) return outcome::reader_left;
    if (line.size() > PIPE_BUF && !has_room_for_long_line(descriptor, line.size()))
        return outcome::no_room;
    if (mode == write_mode::polled && !may_write_polled(descriptor)) return outcome::no_room;

    const ssize_t taken = mode == write_mode::sent ? send(descriptor, line.data(), line.size(),
                                                          MSG_DONTWAIT | MSG_NOSIGNAL)
                                                   : write(descriptor, line.data(), line.size());
    if (taken == static_cast<ssize_t>(line.size())) return outcome::written;
    if (taken < 0 && (errno == EPIPE || errno == ECONNRESET)) {
        events_reader_left();
        return outcome::reader_left;
    }
    // A part of a line is written only to a full disk, to a network connection, or to a socket with
    // a small buffer.
    if (taken > 0) line_is_torn = true;
    return outcome::no_room;
}

// --- Building a line ----------------------------------------------------------------------------

constexpr size_t short_line = 512; // bytes of a line with numbers only
constexpr size_t escaped_byte = 6; // bytes that a byte of a text can become: \u0000
constexpr size_t long_line = escaped_byte * longest_sentence + short_line; // of one with a text
static_assert(longest_sentence >= PATH_MAX);
constexpr std::string_view longest_end = R"(,"dropped":4294967295})"
                                         "\n";

// A line while it is built. Its first byte is a line end, which is written only after a torn line.
struct event_line {
    std::span<char> room;
    size_t used;
    bool fits;
};

void put(event_line &line, std::string_view text)
{
    line.fits = line.fits && line.used + text.size() <= line.room.size();
    if (!line.fits) return;
    std::memcpy(&line.room[line.used], text.data(), text.size());
    line.used += text.size();
}

void put_number(event_line &line, int64_t number)
{
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    put(line, {digits.data(), end});
}

void put_escaped(event_line &line, unsigned code)
{
    static constexpr std::string_view hex = "0123456789abcdef";
    put(line, "\\u");
    for (int shift = 12; shift >= 0; shift -= 4) put(line, hex.substr(code >> shift & 15, 1));
}

// Bytes of the UTF-8 character at the start of text, or 0 if it is not valid UTF-8. Overlong forms,
// surrogates and code points above U+10FFFF are not valid.
size_t character_length(std::string_view text)
{
    const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(0);
    if (lead < 0x80) return 1;
    const size_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
    if (length == 0 || text.size() < length) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    const uint8_t least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const uint8_t most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    return byte(1) >= least && byte(1) <= most ? length : 0;
}

// Puts text as a JSON string. A byte that is not part of valid UTF-8 becomes a lone surrogate,
// U+DC80 to U+DCFF, which Python's "surrogateescape" decodes to the same byte.
void put_text(event_line &line, std::string_view text)
{
    put(line, "\"");
    while (!text.empty()) {
        const size_t length = std::max(character_length(text), size_t{1});
        const auto first = static_cast<uint8_t>(text[0]);
        const auto second = static_cast<uint8_t>(length > 1 ? text[1] : 0);
        if (first >= 0x80 && length == 1)
            put_escaped(line, 0xDC00U | first);
        else if (first < ' ' || first == 0x7F)
            put_escaped(line, first);
        else if (first == 0xC2 && second < 0xA0) // the C1 control characters
            put_escaped(line, second);
        else {
            if (first == '"' || first == '\\') put(line, "\\");
            put(line, text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    put(line, "\"");
}

constexpr int64_t fraction_units = 1000000; // per second: six decimals

// Puts units/rate seconds, truncated after six decimals. A negative number of units or a rate below
// 1 gives 0.
void put_seconds(event_line &line, int64_t units, int64_t rate)
{
    if (units < 0 || rate < 1) return put(line, "0");
    put_number(line, units / rate);
    int64_t fraction = units % rate * fraction_units / rate;
    if (fraction != 0) put(line, ".");
    while (fraction != 0) {
        fraction *= 10;
        put_number(line, fraction / fraction_units);
        fraction %= fraction_units;
    }
}

// --- Fields -------------------------------------------------------------------------------------

struct number_field {
    std::string_view name;
    int64_t value;
};
struct text_field {
    std::string_view name;
    std::string_view value;
};
struct truth_field {
    std::string_view name;
    bool value;
};
struct seconds_field {
    std::string_view name;
    int64_t units;
    int64_t rate; // units per second
};

void put_value(event_line &line, const number_field &field)
{
    put_number(line, field.value);
}
void put_value(event_line &line, const text_field &field)
{
    put_text(line, field.value);
}
void put_value(event_line &line, const truth_field &field)
{
    put(line, field.value ? "true" : "false");
}
void put_value(event_line &line, const seconds_field &field)
{
    put_seconds(line, field.units, field.rate);
}

template <typename Field> void put_field(event_line &line, const Field &field)
{
    put(line, line.used > 1 ? ",\"" : "{\"");
    put(line, field.name);
    put(line, "\":");
    put_value(line, field);
}

// --- Sending ------------------------------------------------------------------------------------

// Appends the end of the line to a copy of the line and writes the copy. The caller may call the
// function again with the same line.
outcome finish(event_line line)
{
    const uint32_t dropped = dropped_lines.exchange(0);
    const bool torn = line_is_torn.exchange(false);
    if (dropped > 0) put_field(line, number_field{"dropped", dropped});
    put(line, "}\n");
    const std::string_view text(line.room.data(), line.used);
    const outcome result = line.fits ? write_line(text.substr(torn ? 0 : 1)) : outcome::no_room;
    if (result == outcome::written) return result;
    dropped_lines += dropped;
    if (torn) line_is_torn = true;
    return result;
}

// Builds the line of an event on the stack and passes it to put_it.
template <size_t size, typename Put, typename... Fields>
void build_line(const char *event, Put put_it, const Fields &...fields)
{
    std::array<char, size> room;
    // The fields leave room for the longest end, so that finish can always append it.
    event_line line = {std::span(room).first(size - longest_end.size()), 0, true};
    put(line, "\n");
    put_field(line, text_field{"event", event});
    (put_field(line, fields), ...);
    line.room = room;
    put_it(line);
}

// Writes the line. While the output thread does not run, it waits up to five seconds for a slow
// reader: only the main thread sends events then, so that the wait interrupts no sound. A stop or a
// SIGINT ends the wait. There is no wait for a full disk.
outcome wait_to_finish(const event_line &line)
{
    constexpr int64_t patience = 5000000; // microseconds
    constexpr int64_t slice = 10000;      // microseconds between tries where poll does not help
    const int64_t latest = microseconds_now() + patience;
    const bool seen_by_poll =
        line.used + longest_end.size() < PIPE_BUF && mode != write_mode::polled;
    const auto gives_up = [latest] {
        return is_stopped() || load_acquire(interrupted) != 0 || microseconds_now() >= latest;
    };
    outcome result = finish(line);
    while (result == outcome::no_room && mode != write_mode::direct && !sound_is_on()) {
        announce_wait();
        if (gives_up()) break;
        finish_wait(seen_by_poll ? patience : slice,
                    seen_by_poll ? load_acquire(events_fd) : reader_has_left);
        result = finish(line);
    }
    return result;
}

template <size_t size, typename... Fields>
void send_event(const char *event, const Fields &...fields)
{
    if (!events_wanted()) return;
    const auto put_it = [](const event_line &line) {
        if (wait_to_finish(line) == outcome::no_room) ++dropped_lines;
    };
    ++lines_under_way;
    if (!ended) build_line<size>(event, put_it, fields...);
    --lines_under_way;
}

// Limits an event to ten a second. True for the first call and then 100 ms or more after the last
// true one. *next belongs to one kind of event.
bool is_time(int64_t *next)
{
    constexpr int64_t apart = 100000; // microseconds
    if (!events_wanted()) return false;
    const int64_t now = microseconds_now();
    if (now < *next) return false;
    *next = now + apart;
    return true;
}

// --- Values of fields ---------------------------------------------------------------------------

const char *kind_of(const soundfile *file)
{
    return file->rf64 != 0 ? "rf64" : container_word(file->container);
}

// The length of the sound in frames (PCM) or bits of a channel (DSD).
int64_t units_of(const soundfile *file)
{
    if (is_dsd(file)) return file->data_bytes > INT64_MAX / 8 ? 0 : file->data_bytes * 8;
    return file->wave.nBlockAlign == 0 ? 0 : file->data_bytes / file->wave.nBlockAlign;
}

// The position in the file after this many frames of the device:
//
//   start_unit / file rate + frames / output_rate  seconds
//
// It is exact: both terms are counted in units of 1/(least common multiple of both rates) s.
seconds_field seconds_into(const soundfile *file, int64_t frames)
{
    if (file->start_unit == 0) return {"seconds", frames, output_rate};
    const int64_t rate = file->wave.nSamplesPerSec;
    const int64_t common = std::lcm(rate, int64_t{output_rate});
    const int64_t units = file->start_unit * (common / rate) + frames * (common / output_rate);
    return {"seconds", units, common};
}

} // namespace

bool events_open(const char *number)
{
    int descriptor = -1;
    const char *end = number + std::strlen(number);
    const auto [parsed_end, error] = std::from_chars(number, end, descriptor);
    if (error != std::errc{} || parsed_end != end || descriptor < 0) return false;
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) return false;
    // A descriptor with close-on-exec cannot be inherited: this process opened it.
    if ((fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0) return false;
    mode = find_write_mode(&descriptor);
    store_release(events_fd, descriptor);
    wake_lookout(); // it must see a reader that leaves before the first line
    return true;
}

const char *name_of(stop_reason reason)
{
    switch (reason) {
    case stop_reason::played:
        return "played";
    case stop_reason::key:
        return "key";
    case stop_reason::interrupt:
        return "interrupt";
    case stop_reason::underrun:
        return "underrun";
    case stop_reason::suspended:
        return "suspended";
    case stop_reason::disconnected:
        return "disconnected";
    case stop_reason::refused:
        return "refused";
    case stop_reason::read_error:
        return "read error";
    case stop_reason::report:
        return "report";
    }
    return "";
}

bool events_wanted()
{
    return load_acquire(events_fd) != reader_has_left;
}

int events_descriptor()
{
    return load_acquire(events_fd);
}

void events_reader_left()
{
    store_release(events_fd, reader_has_left);
    stop_playing(&stopped_by_key);
}

void event_probing(int32_t index, int32_t of)
{
    static int64_t next;
    if (is_time(&next))
        send_event<short_line>("probing", number_field{"index", index}, number_field{"of", of});
}

void event_left_out(const char *path, const char *reason)
{
    send_event<long_line>("left_out", text_field{"path", path}, text_field{"reason", reason});
}

void event_file(const soundfile *file)
{
    const wave_format &wave = file->wave;
    send_event<long_line>(
        "file", number_field{"index", file->index}, text_field{"path", file->path},
        text_field{"kind", kind_of(file)}, number_field{"rate", wave.nSamplesPerSec},
        number_field{"bits", wave.wBitsPerSample}, number_field{"channels", file->channels},
        seconds_field{"seconds", units_of(file), wave.nSamplesPerSec});
}

void event_opening(int32_t attempt)
{
    send_event<short_line>("opening", number_field{"attempt", attempt});
}

void event_not_opened(int32_t attempt, const char *error)
{
    send_event<long_line>("not opened", number_field{"attempt", attempt},
                          text_field{"error", error});
}

void event_stream(const char *form, const char *format_name, uint32_t device_frames,
                  uint32_t ring_frames)
{
    std::array<char, 8> lower{};
    for (size_t i = 0; form[i] != '\0' && i + 1 < lower.size(); ++i)
        lower[i] = static_cast<char>(std::tolower(form[i]));
    const auto milliseconds = [](uint32_t frames) { return int64_t{frames} * 1000 / output_rate; };
    send_event<long_line>("stream", text_field{"device", device_name.data()},
                          text_field{"form", lower.data()}, number_field{"format", output_format},
                          text_field{"format_name", format_name}, number_field{"rate", output_rate},
                          number_field{"device_ms", milliseconds(device_frames)},
                          number_field{"ring_ms", milliseconds(ring_frames)});
}

void event_filling(int32_t percent)
{
    static int64_t next;
    if (is_time(&next)) send_event<short_line>("filling", number_field{"percent", percent});
}

void event_playing(const soundfile *file)
{
    // All files of a stream play at the rate of its first file.
    const bool other = file->wave.nSamplesPerSec != stream_file->wave.nSamplesPerSec;
    send_event<short_line>("playing", number_field{"index", file->index},
                           truth_field{"other_rate", other});
}

void event_position(const soundfile *file, int64_t frames)
{
    send_event<short_line>("position", number_field{"index", file->index},
                           seconds_into(file, frames), number_field{"ring", ring_percent(ring)});
}

void event_rebuffering(const soundfile *file, stop_reason reason, int64_t lost_frames)
{
    send_event<short_line>("rebuffering", number_field{"index", file->index},
                           text_field{"reason", name_of(reason)},
                           seconds_field{"lost", lost_frames, output_rate});
}

void event_draining(int64_t frames)
{
    send_event<short_line>("draining", seconds_field{"seconds", frames, output_rate});
}

void event_read_error(const soundfile *file)
{
    send_event<short_line>("read error", number_field{"index", file->index});
}

void event_end(int32_t status)
{
    constexpr int64_t patience = 100000; // microseconds
    if (!events_wanted() || ended.exchange(true)) return;
    const int64_t latest = microseconds_now() + patience;
    while (lines_under_way != 0 && microseconds_now() < latest) poll(nullptr, 0, 1);

    lines_under_way = 1;
    const auto put_it = [latest](const event_line &line) {
        while (finish(line) == outcome::no_room && microseconds_now() < latest) poll(nullptr, 0, 1);
    };
    const stop_cause &cause = *load_acquire(stopped_by);
    const char *reason = name_of(cause.reason);
    const int32_t shown_status = status & 0xFF;
    if (cause.unit == nullptr) {
        build_line<short_line>("end", put_it, text_field{"reason", reason},
                               number_field{"status", shown_status});
    } else {
        build_line<long_line>("end", put_it, text_field{"reason", reason},
                              text_field{"unit", cause.unit}, number_field{"number", cause.number},
                              text_field{"text", cause.text}, number_field{"status", shown_status});
    }
}
