// The events on a descriptor of their own: lists with every kind of file, the position, names with
// any bytes, and readers that do not read. All play tests check the end event.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <regex>
#include <sstream>

#include "play_model.h"

namespace
{

const std::string head = R"({"event":")"; // of every line

// The lines of the events whose kind occurs in the text kinds.
std::string pick(const play_result &result, const std::string &kinds)
{
    std::string picked;
    std::istringstream lines(result.event_lines);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(head)) continue;
        const std::string kind =
            line.substr(head.size(), line.find('"', head.size()) - head.size());
        if (kinds.find(kind) != std::string::npos) picked += line + "\n";
    }
    return picked;
}

// The device is busy at first and then plays at once. The list has files that share a write, a file
// without a frame, and names that cannot be played or read. The expected events are in events.txt.
TEST(play_events, of_a_list_of_every_kind_of_file)
{
    const auto wave = [](int rate, size_t frames, size_t channels, wave_kind kind) {
        return wave_file(random_pcm(rate, frames, 1, {3, false}, channels), kind);
    };
    scratch_file("kinds/1.wav", wave(44100, 30000, 6, wave_kind::riff));
    scratch_file("kinds/2.wav", wave(44100, 0, 2, wave_kind::riff));
    scratch_file("kinds/3.txt", noise(1, 100));
    scratch_file("kinds/4\n\xFF.rf64", wave(48000, 7, 1, wave_kind::rf64));
    for (size_t i = 0; i < dsd_containers.size(); ++i)
        scratch_file("kinds/" + std::to_string(5 + i),
                     dsd_containers[i](random_dsd(3528, 1, 2822400)));
    scratch_file("kinds/inside/a.wav", {});

    const auto result =
        run_player({.arguments = {"kinds", "missing", "/proc/self/mem"}, // a read at offset 0 fails
                    .capture = {{"FAIL", "readdir"}, {"BUSY", "1"}}});
    EXPECT_EQ(pick(result, "left_out file opening not opened stream playing end read error"),
              file_text(SOURCE_TREE "/tests/events.txt"));
    EXPECT_TRUE(pick(result, "probing").starts_with(head + "probing\",\"index\":0,\"of\":8}\n"));
    EXPECT_TRUE(pick(result, "filling").starts_with(head + "filling\",\"percent\":0}\n"));
    EXPECT_EQ(std::ranges::count(pick(result, "draining"), '\n'), 1);
}

// The device stops at a certain frame, and the event must have that frame's time. One of the rates
// is above 352800 Hz, where the position of the status line does not advance. At another one the
// rate of the device is not exactly that of the file.
TEST(play_events, have_the_position_that_is_heard)
{
    const bytes pcm = wave_file(random_pcm(400000, 2000000));
    const bytes dsd = dsd_containers[1](random_dsd(3000000, 1, 2822410));
    const struct {
        const char *start, *format, *shown;
        bytes content;
        int64_t stands_at;      // frames at which the device stops; the silence counts
        double rate, starts_at; // frames per second, and seconds
    } rows[] = {
        {"--start=0", "S32_LE", "position 00:00 ", pcm, 491000, 400000, 0},
        {"--start=0", "S32_LE", "position 00:00 ", pcm, 491000, 400000, -0.125}, // second file
        {"--start=1.0000012", "S32_LE", "position 00:01 ", pcm, 491000, 400000, 1},
        {"--start=1.5", "DSD_U32_BE", "position 00:02 ", dsd, 141000, 88200, 4233600 / 2822410.0},
    };
    for (const auto &row : rows) {
        std::vector<std::string> arguments = {row.start, scratch_file("a", row.content)};
        if (row.starts_at < 0) arguments.push_back(scratch_wave("0", 400000, 50000));
        const auto result =
            run_player({.arguments = arguments,
                        .capture = {{"FORMATS", row.format}, {"BUFFER_BYTES", "32768-32768"}},
                        .events = {{.out_has = "playing", .allow = row.stands_at},
                                   {.after_ms = 2500, .type = key_3}}});
        const auto first =
            std::ranges::find_if(result.capture, [&](uint8_t b) { return b != result.capture[0]; });
        const int64_t heard = row.stands_at - (first - result.capture.begin()) / 8;
        double seconds = 0;
        int percent = 0; // of the ring; main fills it when a third, or a quarter, is free
        std::sscanf(event_values(result, "position").c_str(), "%*d,%lf,%d", &seconds, &percent);
        EXPECT_GT(percent, 60);
        EXPECT_LT(result.busy_seconds, 1); // no thread spins while the device stands
        EXPECT_EQ(
            std::lround(seconds * 1000000),
            std::lround((row.starts_at + static_cast<double>(heard) / row.rate) * 1e6 - 0.499));
        EXPECT_NE(result.out.find(row.shown), std::string::npos) << result.out;
        EXPECT_EQ(row.starts_at < 1, result.out.find("position 00:00 ") != std::string::npos);
    }
}

TEST(play_events, have_names_of_any_bytes)
{
    const std::pair<std::string, std::string> rows[] = {
        {"\x01\x1F\x7F \"\\/~", R"(\u0001\u001f\u007f \"\\/~)"},
        {"\xC2\x80\xC2\x9F\xC2\xA0", "\\u0080\\u009f\xC2\xA0"},
        {"\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", "\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"\x80\xBF\xC0\x80\xC1\xBF", R"(\udc80\udcbf\udcc0\udc80\udcc1\udcbf)"},
        {"\xE0\x9F\xBF\xED\xA0\x80", R"(\udce0\udc9f\udcbf\udced\udca0\udc80)"},
        {"\xF0\x8F\xBF\xBF\xF4\x90\x80\x80", R"(\udcf0\udc8f\udcbf\udcbf\udcf4\udc90\udc80\udc80)"},
        {"\xF5\xFE\xFF\xE2\x82", R"(\udcf5\udcfe\udcff\udce2\udc82)"},
        {"\xE2\x82g\xF0\x9F\x98", R"(\udce2\udc82g\udcf0\udc9f\udc98)"},
    };
    std::vector<std::string> names = {std::string(30000, 'n')}; // too long for an event
    std::string expected, dropped = ",\"dropped\":1";
    const auto add = [&](const std::string &name, const std::string &shown) {
        names.push_back(name);
        expected += head + "left_out\",\"path\":\"" + shown + "\",\"reason\":\"cannot stat\"" +
                    std::exchange(dropped, "") + "}\n";
    };
    for (const auto &[name, shown] : rows) add(name, shown);
    std::string longest; // longer than PIPE_BUF
    for (int i = 0; i < 4095; ++i) longest += "\\udcff";
    add(std::string(4095, '\xFF'), longest);
    EXPECT_EQ(pick(run_player({.arguments = names}), "left_out"), expected);
}

// --- Readers ------------------------------------------------------------------------------------

// Nothing waits for a reader that does not read. Its next line has the number of missing lines.
TEST(play_events, do_not_wait_for_their_reader)
{
    const auto result = run_player({.arguments = {scratch_wave("a.wav", 8000, 16000)},
                                    .events = {{.log_has = "open 2", .clogs = 3},
                                               {.log_has = "start", .allow = 16000, .clogs = 3},
                                               {.after_ms = 1500, .allow = 100000}}});
    expect_stream(result, s32_le, 8000, device_bytes(random_pcm(8000, 16000), s32_le));
    // The pipe has only whole lines and the empty lines with which the test filled it.
    const std::regex line(R"re(\{"event":"[^\n]*?(?:"dropped":(\d+))?\}\n)re");
    const std::string rest = std::regex_replace(result.event_lines, line, "");
    EXPECT_EQ(rest.find_first_not_of('\n'), std::string::npos) << rest;
    int most_dropped = 0; // in a row; becomes at least 2, for the events playing and position
    for (std::sregex_iterator at(result.event_lines.begin(), result.event_lines.end(), line), end;
         at != end; ++at)
        if ((*at)[1].matched) most_dropped = std::max(most_dropped, std::stoi((*at)[1]));
    EXPECT_GE(most_dropped, 2) << result.event_lines;
}

// Until the sound starts, an event waits until its reader has room for it.
TEST(play_events, all_reach_the_reader_before_the_sound)
{
    constexpr int files = 200;
    std::string directory = "many"; // its path becomes so long that an event exceeds PIPE_BUF
    for (int i = 0; i < 3; ++i) directory += "/" + std::string(250, '\1');
    for (int i = 0; i < files; ++i)
        scratch_wave(directory + "/" + std::to_string(i), 8000, 10, static_cast<uint32_t>(i));
    for (const wire kind : {wire::pipe, wire::socket}) {
        const auto result =
            run_player({.arguments = {directory},
                        .events = {{.clogs = 3}, {.after_ms = 1000}, {.allow = 100000}},
                        .event_wire = kind,
                        .launcher = {"sh", "-c", "sleep 0.5; exec \"$@\"", "sh"}});
        std::istringstream lines(pick(result, "file"));
        int whole =
            0; // lines; of some, the socket takes a part first, and all of it at a second try
        for (std::string line; std::getline(lines, line);)
            whole += line.back() == '}' && line.find('{', 1) == std::string::npos;
        EXPECT_EQ(whole, files);
        EXPECT_EQ(std::ranges::count(pick(result, "opening stream"), '\n'), 3);
    }
}

// If the reader closes its end of the pipe, the player stops, because the front-end is gone.
TEST(play_events, a_reader_that_left_ends_the_sound)
{
    const auto result =
        run_player({.arguments = {scratch_wave("a.wav", 8000, 8000)}, .event_wire = wire::gone});
    EXPECT_EQ(result.end, "0");
    EXPECT_TRUE(result.capture.empty());
    EXPECT_TRUE(result.out.ends_with(std::string(72, ' ') + "\n\n"));
}

// The program of docs/front-end.md, taken from the page.
TEST(play_events, are_what_the_documented_front_end_reads)
{
    const std::string text = file_text(SOURCE_TREE "/docs/front-end.md");
    const size_t begin = text.find("```python\n") + 10;
    const std::string program = text.substr(begin, text.find("```", begin) - begin);
    const std::string script = scratch_file("front_end.py", {program.begin(), program.end()});
    scratch_wave("a.wav", 44100, 44100 * 3);
    scratch_wave("b.wav", 48000, 1000);
    const auto result = run_player({.arguments = {"a.wav", "b.wav", "missing"},
                                    .capture = {{"SPEED", "2"}},
                                    .event_wire = wire::closed,
                                    .launcher = {"python3", script}});
    EXPECT_EQ(result.end, "0") << result.err;
    for (const char *shown :
         {"left out: missing - cannot stat\ncapture: pcm S32_LE 44100 Hz\n\n1/2 a.wav\n",
          "\r0:01 of 0:03 ", "\n2/2 b.wav at the wrong speed\n", "\nended: played, status 0\n"})
        EXPECT_NE(result.out.find(shown), std::string::npos) << result.out;

    // The program of the page stops the player as soon as Return is typed. The program must not
    // wait for the next event: while the device does not play, none comes.
    const auto stopped =
        run_player({.arguments = {"a.wav"},
                    .capture = {{"SPEED", "1"}},
                    .events = {{.log_has = "start", .allow = 0}, {.after_ms = 300, .type = "\n"}},
                    .event_wire = wire::closed,
                    .launcher = {"python3", script}});
    EXPECT_NE(stopped.out.find("\nended: key, status 0\n"), std::string::npos) << stopped.out;
}

} // namespace
