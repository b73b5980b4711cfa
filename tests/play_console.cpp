// What a user sees and can do: the lines on standard output, the keys, SIGINT, and the mode of the
// terminal before, while and after.
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <regex>
#include <string>
#include <vector>

#include "play_model.h"
#include "run_player.h"

namespace
{

// --- Reading what was shown ---------------------------------------------------------------------

// The kinds of output, one letter each, tried in this order.
struct shown_kind {
    char letter;
    std::regex form;
};
const std::vector<shown_kind> shown_kinds = {
    {'B', std::regex("\r {72}\nplaying file (\\d+)/(\\d+) total (\\d+:\\d\\d) (\"[^\"/]+\" "
                     "?)?\n?\"[^\"]+\"\n")},
    {'F', std::regex("\rposition 00:00 buffer (\\d+)\\[%\\]   filling buffer   \r")},
    {'S', std::regex("\rposition 00:(\\d\\d) buffer (\\d+)\\[%\\]   (DoP   |Bi-Naural   )?\r")},
    {'T', std::regex("(\\d+) (\\d+)\n")},
    {'W', std::regex("\r {72}\n")},
    {'w', std::regex("\r {72}")},
    {'N', std::regex("\n")},
    {'?', std::regex("[^\\0]")},
};

struct shown_item {
    char letter;
    std::vector<std::string> values; // of the form's groups
};

std::vector<shown_item> read_shown(const std::string &out)
{
    std::vector<shown_item> items;
    for (auto at = out.begin(); at != out.end();) {
        std::smatch match;
        for (const auto &[letter, form] : shown_kinds) {
            if (!std::regex_search(at, out.end(), match, form,
                                   std::regex_constants::match_continuous))
                continue;
            items.push_back({letter, {match.begin() + 1, match.end()}});
            break;
        }
        at += match.length();
    }
    return items;
}

std::string letters_of(const std::vector<shown_item> &items)
{
    std::string letters;
    for (const shown_item &item : items) letters += item.letter;
    return letters;
}

// The values of one group of all items of a kind.
std::vector<int> numbers_of(const std::vector<shown_item> &items, char letter, size_t group)
{
    std::vector<int> numbers;
    for (const shown_item &item : items)
        if (item.letter == letter) numbers.push_back(std::stoi(item.values[group]));
    return numbers;
}

void expect_shape(const std::vector<shown_item> &items, const std::string &shape)
{
    EXPECT_TRUE(std::regex_match(letters_of(items), std::regex(shape)))
        << letters_of(items) << " is not " << shape;
}

bool rises(const std::vector<int> &numbers, int step_at_least)
{
    for (size_t i = 1; i < numbers.size(); ++i)
        if (numbers[i] - numbers[i - 1] < step_at_least) return false;
    return true;
}

bool starts_at_0(const std::vector<int> &numbers)
{
    return !numbers.empty() && numbers.front() == 0;
}

int highest(const std::vector<int> &numbers)
{
    return numbers.empty() ? -1 : *std::max_element(numbers.begin(), numbers.end());
}

const std::string stream_line = "Open 44100Hzfs PCM stream\n";
// The status line of a second wiped by main, which then waits for the output thread.
const std::string wiped_status = "%]   \r\r" + std::string(72, ' ') + "\n";

// A file of 44.1 kHz and 16 bits, so many seconds long.
std::string wave_of_seconds(const std::string &name, size_t seconds)
{
    return scratch_file(name, wave_file(random_pcm({2, false}, 2, 44100, seconds * 44100, 1)));
}

// --- Lines --------------------------------------------------------------------------------------

TEST(play_console, banner_and_one_status_line_a_second)
{
    struct row {
        std::vector<std::string> options;
        const char *label;
    };
    const std::string file = wave_of_seconds("a.wav", 3);
    for (const auto &[options, label] : std::initializer_list<row>{
             {{}, ""}, {{"--mode=1"}, "DoP   "}, {{"--mode=2"}, "Bi-Naural   "}}) {
        auto arguments = options;
        arguments.push_back(file);
        const auto result = run_player(
            {.arguments = arguments, .capture = {{"SPEED", "8"}}, .output = wire::terminal});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, stream_line);
        const auto items = read_shown(result.out);
        expect_shape(items, "F+BS[SwW]*WN");
        EXPECT_TRUE(rises(numbers_of(items, 'F', 0), 0));
        EXPECT_TRUE(rises(numbers_of(items, 'S', 0), 1));
        EXPECT_TRUE(starts_at_0(numbers_of(items, 'S', 0)));
        EXPECT_LE(highest(numbers_of(items, 'S', 0)), 3);
        for (const shown_item &item : items) {
            const std::string told = item.letter == 'B' ? "0:03" : label;
            if (item.letter == 'S' || item.letter == 'B') {
                EXPECT_EQ(item.values[2], told);
            }
        }
    }
}

TEST(play_console, silent_lines_tell_index_and_second)
{
    const auto result = run_player(
        {.arguments = {"--silent", wave_of_seconds("a.wav", 2)}, .capture = {{"SPEED", "4"}}});
    EXPECT_EQ(result.status, 0);
    const auto items = read_shown(result.out);
    expect_shape(items, "F+BTT+WWN");
    EXPECT_TRUE(starts_at_0(numbers_of(items, 'T', 1)));
    EXPECT_TRUE(rises(numbers_of(items, 'T', 1), 1));
    for (const int index : numbers_of(items, 'T', 0)) EXPECT_EQ(index, 0);
}

// The device plays on only when the banner of each file has been seen.
TEST(play_console, each_file_has_its_banner_when_its_first_frame_goes_out)
{
    std::vector<std::string> files;
    for (const char *name : {"a.wav", "b.wav", "c.wav"}) files.push_back(wave_of_seconds(name, 2));
    const auto result = run_player({.arguments = files,
                                    .events = {{.allow = 50000},
                                               {.out_has = "playing file 1/3", .allow = 150000},
                                               {.out_has = "playing file 2/3", .allow = 250000},
                                               {.out_has = "playing file 3/3", .allow = 1000000}},
                                    .gated = true});
    EXPECT_EQ(result.status, 0);
    const auto items = read_shown(result.out);
    expect_shape(items, "F+BS+B[Sw]*B[SwW]*WN");
    EXPECT_EQ(numbers_of(items, 'B', 0), (std::vector{1, 2, 3}));
}

// Files whose border is the end of a write: after it nothing of the second file has gone out.
TEST(play_console, a_banner_waits_for_the_first_frame_of_its_file)
{
    constexpr size_t silence = 3 * 3998; // writes of a device of 4000 frames that plays at once
    constexpr size_t border = silence + 2 * 3999;
    const std::vector<std::string> files = {
        scratch_file("a.wav", wave_file(random_pcm({2, false}, 2, 8000, border - silence, 1))),
        scratch_file("b.wav", wave_file(random_pcm({2, false}, 2, 8000, 8000, 2)))};
    const auto result =
        run_player({.arguments = files,
                    .events = {{.out_has = "playing file 1/2", .allow = border - 3990},
                               {.captured = border * 8},
                               {.after_ms = 100, .allow = border},
                               {.out_has = "playing file 2/2", .allow = 100000}},
                    .gated = true});
    ASSERT_EQ(result.captured_at_events.size(), 4U);
    EXPECT_EQ(result.captured_at_events[2], border * 8);
    EXPECT_GT(result.out.find("playing file 2/2"), result.shown_at_events[2]);
}

// The device waits for the banner: a short file may be played before main comes to show it.
play_result play_until_banner(const std::string &name)
{
    return run_player({.arguments = {name},
                       .events = {{.out_has = "playing file 1/1", .allow = 1000000}},
                       .gated = true});
}

// A name with a directory is shown twice, and a long one on a line of its own.
TEST(play_console, banner_shows_the_name_as_it_was_given)
{
    wave_of_seconds("a.wav", 1);
    const std::string longer = wave_of_seconds("a-name-that-is-longer-than-a-line-holds.wav", 1);
    const auto short_one = play_until_banner("a.wav");
    EXPECT_NE(short_one.out.find("total 0:01 \"a.wav\"\n"), std::string::npos);
    const auto with_directory = play_until_banner("./a.wav");
    EXPECT_NE(with_directory.out.find("total 0:01 \"a.wav\" \"./a.wav\"\n"), std::string::npos);
    const auto long_one = play_until_banner(longer);
    EXPECT_NE(long_one.out.find("holds.wav\" \n\"" + longer + "\"\n"), std::string::npos);
}

// --- The terminal and the ways to an end --------------------------------------------------------

bool same_but_not_canonical(termios a, const termios &b)
{
    a.c_lflag &= ~static_cast<tcflag_t>(ICANON);
    return same_mode(a, b);
}

bool is_raw(const termios &mode)
{
    return (mode.c_lflag & ICANON) == 0;
}

bool is_canonical(const termios &mode)
{
    return !is_raw(mode);
}

struct ending_row {
    const char *name;
    std::vector<play_event> events;
    int status;
    const char *shape;    // of what was shown
    std::string err = ""; // what standard error ends with
    const char *fault = "none 0";
    tcflag_t without = 0;   // bits of the terminal's mode
    bool plays_out = false; // what the ring held at the last event is still heard
};

// A second of the file has gone to the device, and more than the ring holds is still to be read.
const play_event playing = {.out_has = "\rposition 00:01"};
const std::string key_3 = "\x03";

play_event then_type(const std::string &keys)
{
    play_event event = playing;
    event.type = keys;
    return event;
}

play_event then_send(int signal)
{
    play_event event = playing;
    event.signal = signal;
    return event;
}

const std::vector<ending_row> endings = {
    {.name = "fault",
     .events = {playing},
     .status = 0,
     .shape = "F+BS+WWN",
     .fault = "xrun 150000"},
    {.name = "report",
     .events = {playing},
     .status = 368 & 255,
     .shape = "F+BS+.*",
     .err = report_text("alsathread", 368, "snd_pcm_writei() returned code -5\n"),
     .fault = "transfer 150000"},
    {.name = "key",
     .events = {then_type(key_3)},
     .status = 0,
     .shape = "F+BS+WWN",
     .without = ISIG | ECHO},
    {.name = "keys",
     .events = {then_type("x y" + key_3)},
     .status = 0,
     .shape = "F+BS+WWN",
     .without = ISIG | ECHO},
    {.name = "echoed_keys",
     .events = {then_type("x"), {.after_ms = 30, .signal = SIGINT}},
     .status = 0,
     .shape = "F+BS+\\?S*WWN",
     .plays_out = true},
    {.name = "interrupt_key",
     .events = {then_type(key_3)},
     .status = 0,
     .shape = "F+BS+\\?\\?S*WWN", // the terminal shows ^C
     .plays_out = true},
    {.name = "interrupt",
     .events = {then_send(SIGINT)},
     .status = 0,
     .shape = "F+BS+WWN",
     .plays_out = true},
    {.name = "interrupt_then_key",
     .events = {then_send(SIGINT), {.out_has = wiped_status, .type = key_3}},
     .status = 0,
     .shape = "F+BS+WWN",
     .without = ISIG | ECHO},
    {.name = "two_interrupts",
     .events = {then_send(SIGINT), {.out_has = wiped_status, .signal = SIGINT}},
     .status = 799 & 255,
     .shape = "F+BS+WW?", // the thread sanitizer keeps a signal back for a while
     .err = report_text("sonivane", 799, "Interrupt stack. Abort\n")},
    {.name = "stop_that_no_shell_could_continue",
     .events = {then_type("\x1a"), {.mode_is = is_raw, .after_ms = 100, .type = key_3}},
     .status = 0,
     .shape = "F+BS+\\?\\?S*\\?\\?S*WWN", // ^Z and ^C
     .plays_out = true},
    {.name = "terminate", .events = {then_send(SIGTERM)}, .status = -SIGTERM, .shape = "F+BS+"},
    {.name = "terminate_at_a_held_terminal", // by Ctrl-S, with main inside a write to it
     .events = {then_type("\x13"), {.after_ms = 600, .signal = SIGTERM}},
     .status = -SIGTERM,
     .shape = "F+BS+"},
    {.name = "hang_up", .events = {then_send(SIGHUP)}, .status = -SIGHUP, .shape = "F+BS+"},
    {.name = "quit", .events = {then_send(SIGQUIT)}, .status = -SIGQUIT, .shape = "F+BS+"},
};

void PrintTo(const ending_row &row, std::ostream *out)
{
    *out << row.name;
}

class play_console_ending : public testing::TestWithParam<ending_row>
{
};

TEST_P(play_console_ending, leaves_the_terminal_as_it_was)
{
    const ending_row &row = GetParam();
    const auto result = run_player({.arguments = {wave_of_seconds("a.wav", 12)},
                                    .capture = {{"SPEED", "4"}, {"FAULT", row.fault}},
                                    .events = row.events,
                                    .input = wire::terminal,
                                    .output = wire::terminal,
                                    .terminal_mode = row.without});
    EXPECT_EQ(result.status, row.status);
    const auto items = read_shown(result.out);
    expect_shape(items, row.shape);
    EXPECT_EQ(highest(numbers_of(items, 'F', 0)), 80); // per cent, then the device starts
    EXPECT_TRUE(result.err.starts_with(stream_line)) << result.err;
    EXPECT_TRUE(row.err.empty() ? result.err == stream_line : result.err.ends_with(row.err))
        << result.err;
    for (const termios &mode : result.at_events)
        EXPECT_TRUE(same_but_not_canonical(result.before, mode));
    EXPECT_TRUE(same_mode(result.before, result.after));
    EXPECT_LT(result.capture.size(), 44100U * 8 * 13);
    EXPECT_EQ(all_sounded(result), row.plays_out);
    if (row.plays_out && !result.captured_at_events.empty()) {
        EXPECT_GT(result.capture.size(), result.captured_at_events.back() + 400000);
    }
}
INSTANTIATE_TEST_SUITE_P(all, play_console_ending, testing::ValuesIn(endings),
                         testing::PrintToStringParamName());

// A file that the feeder comes to while the ring is filled cannot be opened, nor fail to be.
TEST(play_console, a_read_that_stalls_does_not_hold_up_the_end)
{
    const auto result =
        run_player({.arguments = {wave_of_seconds("a.wav", 1), wave_of_seconds("b.wav", 1)},
                    .capture = {{"SWAP", scratch_directory() + "/b.wav 2 stall"}},
                    .events = {{.log_has = "stall", .mode_is = is_raw, .signal = SIGTERM}},
                    .input = wire::terminal,
                    .stand_ins = true,
                    .timeout_seconds = 20});
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, -SIGTERM);
    EXPECT_TRUE(same_mode(result.before, result.after));
}

// --- Jobs of a shell ----------------------------------------------------------------------------

struct job_row {
    const char *name;
    std::vector<play_event> events; // for an interactive shell
};

constexpr size_t device_second = 44100 * 8; // bytes
const std::vector<job_row> jobs = {
    {"in_the_background_it_plays_and_leaves_the_terminal_alone",
     {{.type = "\"$@\" & echo $((40 + 2))\n", .allow = 100000},
      {.out_has = "42\n", .captured = 2 * device_second, .mode_is = is_canonical, .allow = 140000},
      {.captured = 3 * device_second,
       .mode_is = is_canonical,
       .type = "kill -STOP %1; until [ \"$(jobs -s)\" ]; do :; done; fg\n"},
      {.mode_is = is_raw, .type = "\x1a"},
      {.err_has = "Stopped", .mode_is = is_canonical, .type = "fg\n"},
      {.mode_is = is_raw, .signal = SIGSTOP},
      {.mode_is = is_canonical, .type = "bg\n", .allow = 190000},
      {.captured = 4 * device_second, .mode_is = is_canonical, .allow = 10000000},
      {.type = "wait %1; exit $?\n"}}},
    {"an_ignored_stop_stays_ignored",
     {{.type = "(trap '' TSTP; exec \"$@\"); exit $?\n", .allow = 100000},
      {.captured = 2 * device_second, .mode_is = is_raw, .type = "\x1a"},
      {.out_has = "^Z", .mode_is = is_raw, .after_ms = 100, .allow = 140000},
      {.captured = 3 * device_second, .mode_is = is_raw, .allow = 10000000}}},
};

void PrintTo(const job_row &row, std::ostream *out)
{
    *out << row.name;
}

class play_console_job : public testing::TestWithParam<job_row>
{
};

TEST_P(play_console_job, shares_the_terminal_with_its_shell)
{
    const auto result = run_player({.arguments = {wave_of_seconds("a.wav", 4)},
                                    .events = GetParam().events,
                                    .input = wire::terminal,
                                    .output = wire::terminal,
                                    .gated = true,
                                    .in_shell = true,
                                    .timeout_seconds = 30});
    EXPECT_EQ(result.trouble, "") << result.err;
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.capture.size() / device_second, 5U); // one of silence
    EXPECT_TRUE(same_mode(result.before, result.after));
}
INSTANTIATE_TEST_SUITE_P(all, play_console_job, testing::ValuesIn(jobs),
                         testing::PrintToStringParamName());

// Before the ring exists the terminal is left alone.
TEST(play_console, a_report_before_playing_leaves_the_terminal_alone)
{
    const auto result = run_player({.arguments = {wave_of_seconds("a.wav", 1)},
                                    .capture = {{"RATES", "48000-96000"}},
                                    .input = wire::terminal});
    EXPECT_EQ(result.status, 202);
    EXPECT_TRUE(same_mode(result.before, result.after));
}

// Whatever the standard streams are, the sound is whole and nothing else reaches the device: input
// at its end, which select reports for ever; a reader of the output that left; streams closed at
// the start, whose numbers no file may get.
TEST(play_console, the_streams_do_not_matter_to_the_sound)
{
    const auto sound = random_pcm({2, false}, 2, 8000, 8000, 1);
    const auto file = scratch_file("a.wav", wave_file(sound));
    for (const auto &[input, output, error] :
         std::initializer_list<std::array<wire, 3>>{{wire::null, wire::pipe, wire::pipe},
                                                    {wire::pipe, wire::pipe, wire::pipe},
                                                    {wire::closed, wire::pipe, wire::pipe},
                                                    {wire::terminal, wire::gone, wire::pipe},
                                                    {wire::terminal, wire::closed, wire::pipe},
                                                    {wire::terminal, wire::pipe, wire::closed},
                                                    {wire::terminal, wire::gone, wire::gone},
                                                    {wire::closed, wire::closed, wire::closed}}) {
        const auto result =
            run_player({.arguments = {file}, .input = input, .output = output, .error = error});
        EXPECT_EQ(stream_trouble(result, {s32_le, packing::pcm}, 8000, device_bytes(sound, s32_le)),
                  "");
        EXPECT_TRUE(same_mode(result.before, result.after));
    }
}

} // namespace
