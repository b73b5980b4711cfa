// What a user sees and can do: lines on standard output, keys, signals and the terminal. The runner
// checks the terminal's mode before, during and after each run.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <regex>

#include "play_model.h"

namespace
{

// --- Parsing the output -------------------------------------------------------------------------

// The kinds of output, tried in this order. The first group of a pattern is a number.
const std::vector<std::pair<char, std::regex>> kinds = {
    {'B',
     std::regex(
         "\r {72}\nplaying file (\\d+)/\\d+ total \\d+:\\d\\d (\"[^\"/]+\" ?)?\n?\"[^\"]+\"\n")},
    {'F', std::regex("\rposition 00:00 buffer (\\d+)\\[%\\]   filling buffer   \r")},
    {'S', std::regex("\rposition 00:(\\d\\d) buffer \\d+\\[%\\]   (DoP   |Bi-Naural   )?\r")},
    {'T', std::regex("0 (\\d+)\n")},
    {'W', std::regex("\r {72}\n")},
    {'w', std::regex("\r {72}")},
    {'N', std::regex("\n")},
    {'K', std::regex("[^\\0]")}, // keys that the terminal echoes
};

struct shown {
    std::string letters;
    std::map<char, std::vector<int>> numbers; // of each kind
};

shown read_shown(const std::string &out)
{
    shown all;
    std::smatch match;
    for (auto at = out.begin(); at != out.end(); at += match.length()) {
        const auto kind = std::ranges::find_if(kinds, [&](const auto &row) {
            return std::regex_search(at, out.end(), match, row.second,
                                     std::regex_constants::match_continuous);
        });
        all.letters += kind->first;
        if (match.size() > 1) all.numbers[kind->first].push_back(std::stoi(match[1]));
    }
    return all;
}

void expect_shape(const shown &all, const std::string &shape)
{
    EXPECT_TRUE(std::regex_match(all.letters, std::regex(shape)))
        << all.letters << " does not match " << shape;
}

constexpr size_t device_second = 44100 * 8; // bytes of the device

// --- Lines --------------------------------------------------------------------------------------

TEST(play_console, shows_a_banner_and_a_line_a_second)
{
    const struct {
        const char *option;
        const char *shape;
        const char *text; // a part of the output
        char kind;        // in shape, the letter of the lines with the seconds
    } rows[] = {{"--left-cut", "F+BS[SwW]*WN", "%]   \r", 'S'},
                {"--mode=1", "F+BS[SwW]*WN", "%]   DoP   \r", 'S'},
                {"--mode=2", "F+BS[SwW]*WN", "%]   Bi-Naural   \r", 'S'},
                {"--silent", "F+BTT+WT?WN", "total 0:03", 'T'}};
    const std::string file = scratch_wave("a.wav", 44100, 3 * 44100);
    for (const auto &[option, shape, text, kind] : rows) {
        const auto result = run_player({.arguments = {option, file},
                                        .capture = {{"SPEED", "8"}},
                                        .output = wire::terminal,
                                        .event_wire = wire::closed});
        EXPECT_EQ(result.end, "0");
        EXPECT_EQ(result.err, stream_line);
        EXPECT_NE(result.out.find(text), std::string::npos);
        shown all = read_shown(result.out);
        expect_shape(all, shape);
        EXPECT_TRUE(std::ranges::is_sorted(all.numbers['F']));
        const auto &seconds = all.numbers[kind];
        EXPECT_EQ(std::ranges::adjacent_find(seconds, std::greater_equal<>()), seconds.end());
        EXPECT_TRUE(!seconds.empty() && seconds.front() == 0 && seconds.back() <= 3);
    }
}

// The first file ends with a write, so that no frame of the second file has gone to the device
// then. The position after the last frame of the list is 0:01, which is not printed.
TEST(play_console, a_banner_waits_for_the_first_frame_of_its_file)
{
    // The device has a buffer of 4000 frames and plays at once: it takes 3 writes of silence.
    constexpr size_t silence = 3 * 3998;
    constexpr size_t border = silence + 2 * 3999;
    const auto result =
        run_player({.arguments = {"--silent", scratch_wave("a.wav", 8000, border - silence),
                                  scratch_wave("b.wav", 8000, 8019)},
                    .events = {{.out_has = "playing file 1/2", .allow = border - 3990},
                               {.captured = border * 8},
                               {.after_ms = 100, .allow = border},
                               {.out_has = "playing file 2/2", .allow = 100000}}});
    ASSERT_EQ(result.at_events.size(), 4U);
    EXPECT_EQ(result.at_events[2].captured, border * 8);
    EXPECT_GT(result.out.find("playing file 2/2"), result.at_events[2].shown);
    shown all = read_shown(result.out);
    expect_shape(all, "F+BTBWWN");
    EXPECT_EQ(all.numbers['B'], (std::vector{1, 2}));
}

// --- Ways to end --------------------------------------------------------------------------------

// Types the keys when the device has taken a second of the file and a status line was printed. Then
// more of the file is unread than the ring can hold.
play_event then_type(const std::string &keys)
{
    return {.out_has = "%]   \r", .captured = 2 * device_second, .type = keys};
}

play_event then_send(int signal)
{
    return {.out_has = "%]   \r", .captured = 2 * device_second, .signal = signal};
}

// Main has erased the status line and waits for the output thread.
const std::string wiped_status = "\r" + std::string(72, ' ') + "\n";

const struct {
    const char *name;
    std::vector<play_event> events;
    const char *end;
    tcflag_t without = 0; // c_lflag bits to clear in the terminal
} endings[] = {
    {"keys", {then_type("x y" + key_3)}, "key,0", ISIG | ECHO},
    {"echoed keys", {then_type("x"), {.out_has = "x", .signal = SIGINT}}, "interrupt,0"},
    {"interrupt key", {then_type(key_3)}, "interrupt,0"},
    {"interrupt, then a key",
     {then_send(SIGINT), {.out_has = wiped_status, .type = key_3}},
     "key,0",
     ISIG | ECHO},
    {"two interrupts",
     {then_send(SIGINT), {.out_has = wiped_status, .signal = SIGINT}},
     "report,sonivane,799,31"},
    {"stop where no shell could continue",
     {then_type("\x1a"), {.mode_is = line_mode::raw, .after_ms = 100, .type = key_3}},
     "interrupt,0"},
    {"terminate", {then_send(SIGTERM)}, "-15"},
    {"terminate at a held terminal", // Ctrl-S holds it, and main blocks in a write to it
     {then_type("\x13"), {.after_ms = 600, .signal = SIGTERM}},
     "-15"},
    {"hang up", {then_send(SIGHUP)}, "-1"},
    {"quit", {then_send(SIGQUIT)}, "-3"},
    {"fault", {then_send(SIGABRT)}, "-6"},
    {"signal of a program", {then_send(SIGUSR1)}, "-10"},
};

TEST(play_console, every_end_leaves_the_terminal_as_it_was)
{
    const auto file = scratch_wave("a.wav", 44100, 12 * 44100);
    for (const auto &[name, events, end, without] : endings) {
        SCOPED_TRACE(name);
        const auto result = run_player({.arguments = {file},
                                        .capture = {{"SPEED", "4"}},
                                        .events = events,
                                        .input = wire::terminal,
                                        .output = wire::terminal,
                                        .terminal_without = without});
        EXPECT_EQ(result.end, end);
        const bool killed = result.status < 0;
        const bool hard = result.status > 0;
        shown all = read_shown(result.out);
        // The thread sanitizer can delay a signal.
        expect_shape(all, killed ? "F+BS+" : hard ? "F+BS+WW?" : "F+BS+[SK]*WWN");
        EXPECT_EQ(all.numbers['F'].back(), 80); // per cent of the ring; then the sound starts
        EXPECT_TRUE(result.err.starts_with(stream_line)) << result.err;
        EXPECT_TRUE(result.err.ends_with(
            hard ? report_text("sonivane", 799, "Interrupt stack. Abort\n") : stream_line));
        EXPECT_LT(result.capture.size(), 13 * device_second);
        if (result.at_events.empty()) continue; // the runner has reported that
        // The frames that were in the ring at the interrupt are still played.
        const bool plays_out = result.end == "interrupt,0";
        const size_t captured = result.at_events.back().captured;
        // A key after a SIGINT can come when the ring has been played, on a busy machine.
        const bool late_key = events.size() == 2 && result.end == "key,0";
        EXPECT_TRUE(late_key || all_sounded(result) == plays_out);
        EXPECT_EQ(result.capture.size() > captured + 400000, plays_out);
    }
}

// --- Jobs of a shell ----------------------------------------------------------------------------

constexpr auto raw = line_mode::raw;
constexpr auto canonical = line_mode::canonical;
const std::vector<play_event> jobs[] = {
    // In the background it plays and leaves the terminal alone.
    {{.type = "\"$@\" & echo $((40 + 2))\n", .allow = 100000},
     {.out_has = "42\n", .captured = 2 * device_second, .mode_is = canonical, .allow = 140000},
     {.captured = 3 * device_second,
      .mode_is = canonical,
      .type = "kill -STOP %1; until [ \"$(jobs -s)\" ]; do :; done; fg\n"},
     {.mode_is = raw, .type = "\x1a"},
     {.err_has = "Stopped", .mode_is = canonical, .type = "fg\n"},
     {.mode_is = raw, .signal = SIGSTOP},
     {.mode_is = canonical, .type = "bg\n", .allow = 190000},
     {.captured = 4 * device_second, .mode_is = canonical, .allow = 10000000},
     {.type = "wait %1; exit $?\n"}},
    // A SIGTSTP that is ignored at the start stays ignored.
    {{.type = "(trap '' TSTP; exec \"$@\"); exit $?\n", .allow = 100000},
     {.captured = 2 * device_second, .mode_is = raw, .type = "\x1a"},
     {.out_has = "^Z", .mode_is = raw, .after_ms = 100, .allow = 140000},
     {.captured = 3 * device_second, .mode_is = raw, .allow = 10000000}},
};

TEST(play_console, a_job_shares_the_terminal_with_its_shell)
{
    for (const auto &events : jobs) {
        const auto result = run_player({.arguments = {scratch_wave("a.wav", 44100, 4 * 44100)},
                                        .events = events,
                                        .input = wire::terminal,
                                        .output = wire::terminal,
                                        .launcher = interactive_shell});
        EXPECT_EQ(result.end, "played,0") << result.err;
        EXPECT_EQ(result.capture.size() / device_second, 5U); // seconds, one of them silence
    }
}

// Whatever the standard streams are, the sound is complete and nothing else reaches the device. The
// cases are an input that never delivers, an output whose reader has left, and streams that are
// closed at the start, so that a file could get their numbers.
TEST(play_console, the_streams_do_not_matter_to_the_sound)
{
    const auto file = scratch_wave("a.wav", 8000, 8000);
    const bytes sound = device_bytes(random_pcm(8000, 8000), s32_le);
    constexpr auto closed = wire::closed;
    for (const auto &[input, output, error] : {std::array{wire::pipe, closed, wire::pipe},
                                               {closed, wire::pipe, wire::pipe},
                                               {wire::terminal, wire::pipe, closed},
                                               {wire::terminal, wire::gone, wire::gone},
                                               {closed, closed, closed}}) {
        const auto result = run_player({.arguments = {file},
                                        .input = input,
                                        .output = output,
                                        .error = error,
                                        .event_wire = closed});
        expect_stream(result, s32_le, 8000, sound);
    }
}

} // namespace
