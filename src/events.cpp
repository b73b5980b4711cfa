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
#include <ctime>
#include <numeric>
#include <string_view>

namespace
{

// --- The way out --------------------------------------------------------------------------------

// How a line gets into a descriptor without waiting. The parent shares the flags of what it handed
// over, so these stay as they are.
enum class way_out {
    opened_anew, // pipes, terminals: a description of our own, which does not block
    sent,        // sockets, which cannot be opened anew: a flag of the call
    polled,      // what may not be opened anew, as by another user: a look before each write
    written,     // files: there is always room, and our place in them is the parent's
};

constexpr int reader_has_left = -1;

std::atomic<int> voice = reader_has_left; // the descriptor; the same when there never was one
way_out way;                              // set with the descriptor, then constant

// In the order that makes the end the last line: a line is counted before it looks for the end, and
// the end is set before it looks for lines.
std::atomic<int32_t> lines_under_way;
std::atomic<bool> ended;

std::atomic<uint32_t> dropped_lines; // since the last one that went out
std::atomic<bool> line_is_torn;      // the last write took a part of its line

enum class outcome { out, no_room, left };

way_out find_way(int *descriptor)
{
    struct stat status;
    if (fstat(*descriptor, &status) != 0) return way_out::polled;
    if (S_ISSOCK(status.st_mode)) return way_out::sent;
    if (S_ISREG(status.st_mode)) return way_out::written;
    std::array<char, 32> path;
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", *descriptor);
    const int anew = open(path.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (anew < 0) return way_out::polled;
    *descriptor = anew;
    return way_out::opened_anew;
}

// A pipe takes up to PIPE_BUF bytes whole or not at all. More of them it may take in part, where
// its pages run out. Pages that are written one after the other are more than half full, but for
// the first and the last one; one is left for a line of the other thread.
bool has_room_for_long_line(int descriptor, size_t size)
{
    const int capacity = fcntl(descriptor, F_GETPIPE_SZ);
    int unread = 0;
    if (capacity < 0 || ioctl(descriptor, FIONREAD, &unread) != 0) return true; // no pipe
    return size + 2 * static_cast<size_t>(unread) + size_t{3} * PIPE_BUF <=
           static_cast<size_t>(capacity);
}

// Two lines that both saw room for one would have the second wait: it does without.
bool may_write_polled(int descriptor)
{
    pollfd polled = {descriptor, POLLOUT, 0};
    return lines_under_way <= 1 && poll(&polled, 1, 0) == 1;
}

outcome put_out(std::string_view line)
{
    const int descriptor = load_acquire(voice);
    if (descriptor == reader_has_left) return outcome::left;
    if (line.size() > PIPE_BUF && !has_room_for_long_line(descriptor, line.size()))
        return outcome::no_room;
    if (way == way_out::polled && !may_write_polled(descriptor)) return outcome::no_room;

    const ssize_t taken = way == way_out::sent ? send(descriptor, line.data(), line.size(),
                                                      MSG_DONTWAIT | MSG_NOSIGNAL)
                                               : write(descriptor, line.data(), line.size());
    if (taken == static_cast<ssize_t>(line.size())) return outcome::out;
    if (taken < 0 && (errno == EPIPE || errno == ECONNRESET)) {
        events_reader_left();
        return outcome::left;
    }
    // Only a full disk, a connection over a network or a socket with a small buffer takes a part of
    // a line.
    if (taken > 0) line_is_torn = true;
    return outcome::no_room;
}

// --- Writing a line -----------------------------------------------------------------------------

constexpr size_t short_line = 512; // bytes of one with numbers only
constexpr size_t escaped_byte = 6; // bytes that one of a text may become
constexpr size_t long_line = escaped_byte * longest_sentence + short_line; // of one with a text
static_assert(longest_sentence >= PATH_MAX);
constexpr std::string_view longest_end = R"(,"dropped":4294967295})"
                                         "\n";

// A line that grows. Its first byte is a line end, which goes out only behind a torn line.
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

// Bytes of the character of UTF-8 at the start of text; 0: there is none. Of the forms that stand
// for the same character only the shortest counts, and none for half of a pair of UTF-16.
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

// A byte that is no UTF-8 becomes half of a pair, U+DC80 to U+DCFF, from which Python's
// "surrogateescape" makes the byte again.
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
        else if (first == 0xC2 && second < 0xA0) // the other control characters
            put_escaped(line, second);
        else {
            if (first == '"' || first == '\\') put(line, "\\");
            put(line, text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    put(line, "\"");
}

constexpr int64_t fraction_units = 1000000; // of a second: six decimals

// units/rate seconds, cut off behind six decimals; 0 for what no file can mean.
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

// --- Telling ------------------------------------------------------------------------------------

// Ends a copy of the line and puts it out.
outcome finish(event_line line)
{
    const uint32_t dropped = dropped_lines.exchange(0);
    const bool torn = line_is_torn.exchange(false);
    if (dropped > 0) put_field(line, number_field{"dropped", dropped});
    put(line, "}\n");
    const std::string_view text(line.room.data(), line.used);
    const outcome result = line.fits ? put_out(text.substr(torn ? 0 : 1)) : outcome::no_room;
    if (result == outcome::out) return result;
    dropped_lines += dropped;
    if (torn) line_is_torn = true;
    return result;
}

// Lays out the event in room and hands it to put_it.
template <size_t size, typename Put, typename... Fields>
void lay_out(const char *event, Put put_it, const Fields &...fields)
{
    std::array<char, size> room;
    // What ends every line always fits behind what does.
    event_line line = {std::span(room).first(size - longest_end.size()), 0, true};
    put(line, "\n");
    put_field(line, text_field{"event", event});
    (put_field(line, fields), ...);
    line.room = room;
    put_it(line);
}

int64_t milliseconds_now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

// Before the sound nothing is lost by waiting for a reader that is slow: only main tells events
// then. A stop or a SIGINT ends the wait. A full disk is not waited for.
outcome wait_to_finish(const event_line &line)
{
    constexpr int64_t patience = 5000; // milliseconds
    constexpr int64_t slice = 10000;   // microseconds, where poll cannot see whether a line fits
    const int64_t latest = milliseconds_now() + patience;
    const bool seen_by_poll = line.used + longest_end.size() < PIPE_BUF && way != way_out::polled;
    const auto gives_up = [latest] {
        return is_stopped() || load_acquire(interrupted) != 0 || milliseconds_now() >= latest;
    };
    outcome result = finish(line);
    while (result == outcome::no_room && way != way_out::written && !sound_is_on()) {
        announce_wait();
        if (gives_up()) break;
        finish_wait(seen_by_poll ? patience * 1000 : slice,
                    seen_by_poll ? load_acquire(voice) : reader_has_left);
        result = finish(line);
    }
    return result;
}

template <size_t size, typename... Fields> void tell(const char *event, const Fields &...fields)
{
    if (!events_wanted()) return;
    const auto put_it = [](const event_line &line) {
        if (wait_to_finish(line) == outcome::no_room) ++dropped_lines;
    };
    ++lines_under_way;
    if (!ended) lay_out<size>(event, put_it, fields...);
    --lines_under_way;
}

// True at most ten times a second, and at the first time. next: of the kind of event.
bool is_time(int64_t *next)
{
    constexpr int64_t apart = 100; // milliseconds
    if (!events_wanted()) return false;
    const int64_t now = milliseconds_now();
    if (now < *next) return false;
    *next = now + apart;
    return true;
}

// --- The words of the fields --------------------------------------------------------------------

const char *kind_of(const soundfile *file)
{
    return file->rf64 != 0 ? "rf64" : container_word(file->container);
}

// Frames, or bits of a channel.
int64_t units_of(const soundfile *file)
{
    if (is_dsd(file)) return file->data_bytes > INT64_MAX / 8 ? 0 : file->data_bytes * 8;
    return file->wave.nBlockAlign == 0 ? 0 : file->data_bytes / file->wave.nBlockAlign;
}

// Where in the file that many frames of the device end, exactly: its own rate need not divide the
// device's.
seconds_field seconds_into(const soundfile *file, int64_t frames)
{
    if (file->begun_at == 0) return {"seconds", frames, output_rate};
    const int64_t rate = file->wave.nSamplesPerSec;
    const int64_t common = std::lcm(rate, int64_t{output_rate});
    return {"seconds", file->begun_at * (common / rate) + frames * (common / output_rate), common};
}

} // namespace

bool events_open(const char *number)
{
    int descriptor = -1;
    const char *end = number + std::strlen(number);
    const auto [behind, error] = std::from_chars(number, end, descriptor);
    if (error != std::errc{} || behind != end || descriptor < 0) return false;
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) return false;
    // One that closes when a program starts is no parent's, but one of this process.
    if ((fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0) return false;
    way = find_way(&descriptor);
    store_release(voice, descriptor);
    wake_lookout(); // its reader may leave before the first line
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
    return load_acquire(voice) != reader_has_left;
}

int events_descriptor()
{
    return load_acquire(voice);
}

void events_reader_left()
{
    store_release(voice, reader_has_left);
    stop_playing(&stopped_by_key);
}

void event_probing(int32_t index, int32_t of)
{
    static int64_t next;
    if (is_time(&next))
        tell<short_line>("probing", number_field{"index", index}, number_field{"of", of});
}

void event_left_out(const char *path, const char *reason)
{
    tell<long_line>("left_out", text_field{"path", path}, text_field{"reason", reason});
}

void event_file(const soundfile *file)
{
    const wave_format &wave = file->wave;
    tell<long_line>("file", number_field{"index", file->index}, text_field{"path", file->path},
                    text_field{"kind", kind_of(file)}, number_field{"rate", wave.nSamplesPerSec},
                    number_field{"bits", wave.wBitsPerSample},
                    number_field{"channels", file->channels},
                    seconds_field{"seconds", units_of(file), wave.nSamplesPerSec});
}

void event_opening(int32_t attempt)
{
    tell<short_line>("opening", number_field{"attempt", attempt});
}

void event_not_opened(int32_t attempt, const char *error)
{
    tell<long_line>("not opened", number_field{"attempt", attempt}, text_field{"error", error});
}

void event_stream(const char *form, const char *format_name, uint32_t device_frames,
                  uint32_t ring_frames)
{
    std::array<char, 8> lower{};
    for (size_t i = 0; form[i] != '\0' && i + 1 < lower.size(); ++i)
        lower[i] = static_cast<char>(std::tolower(form[i]));
    const auto milliseconds = [](uint32_t frames) { return int64_t{frames} * 1000 / output_rate; };
    tell<long_line>("stream", text_field{"device", device_name.data()},
                    text_field{"form", lower.data()}, number_field{"format", output_format},
                    text_field{"format_name", format_name}, number_field{"rate", output_rate},
                    number_field{"device_ms", milliseconds(device_frames)},
                    number_field{"ring_ms", milliseconds(ring_frames)});
}

void event_filling(int32_t percent)
{
    static int64_t next;
    if (is_time(&next)) tell<short_line>("filling", number_field{"percent", percent});
}

void event_playing(const soundfile *file)
{
    // The stream's first file decides its rate, whatever the frames of others become in it.
    const bool other = file->wave.nSamplesPerSec != stream_file->wave.nSamplesPerSec;
    tell<short_line>("playing", number_field{"index", file->index},
                     truth_field{"other_rate", other});
}

void event_position(const soundfile *file, int64_t frames)
{
    tell<short_line>("position", number_field{"index", file->index}, seconds_into(file, frames),
                     number_field{"ring", ring_percent(ring)});
}

void event_rebuffering(const soundfile *file, stop_reason reason, int64_t lost_frames)
{
    tell<short_line>("rebuffering", number_field{"index", file->index},
                     text_field{"reason", name_of(reason)},
                     seconds_field{"lost", lost_frames, output_rate});
}

void event_draining(int64_t frames)
{
    tell<short_line>("draining", seconds_field{"seconds", frames, output_rate});
}

void event_read_error(const soundfile *file)
{
    tell<short_line>("read error", number_field{"index", file->index});
}

void event_end(int32_t status)
{
    constexpr int64_t tried_for = 100; // milliseconds
    if (!events_wanted() || ended.exchange(true)) return;
    const int64_t latest = milliseconds_now() + tried_for;
    while (lines_under_way != 0 && milliseconds_now() < latest) poll(nullptr, 0, 1);

    lines_under_way = 1;
    const auto insist = [latest](const event_line &line) {
        while (finish(line) == outcome::no_room && milliseconds_now() < latest) poll(nullptr, 0, 1);
    };
    const stop_cause &cause = *load_acquire(stopped_by);
    const char *reason = name_of(cause.reason);
    const int32_t shown_status = status & 0xFF;
    if (cause.unit == nullptr) {
        lay_out<short_line>("end", insist, text_field{"reason", reason},
                            number_field{"status", shown_status});
    } else {
        lay_out<long_line>("end", insist, text_field{"reason", reason},
                           text_field{"unit", cause.unit}, number_field{"number", cause.number},
                           text_field{"text", cause.text}, number_field{"status", shown_status});
    }
}
