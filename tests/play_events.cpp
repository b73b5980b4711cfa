// What a front-end hears on a descriptor of its own: whole runs, every reason of an end, readers
// that do not read, and a sound that none of it changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "play_model.h"

namespace
{

const std::string key_3 = "\x03";
const std::string head = R"({"event":")"; // of every line

// The lines of what was told; the line ends that fill an unread pipe make none.
std::vector<std::string> lines_of(const std::string &told)
{
    std::vector<std::string> lines;
    std::istringstream stream(told);
    for (std::string line; std::getline(stream, line);)
        if (!line.empty()) lines.push_back(line);
    return lines;
}

// Those of the events whose kind stands among the given ones.
std::string pick(const play_result &result, const std::string &kinds, size_t count = SIZE_MAX)
{
    std::string picked;
    for (const std::string &line : lines_of(result.told)) {
        const size_t start = head.size();
        const std::string kind = line.substr(start, line.find('"', start) - start);
        if (count == 0 || kinds.find(kind) == std::string::npos) continue;
        picked += line + "\n";
        --count;
    }
    return picked;
}

// --- A whole run --------------------------------------------------------------------------------

// A list of every kind on a device that plays at once: files that share a write, one without a
// frame, names that do not play.
TEST(play_events, of_a_list_of_every_kind)
{
    const std::string list = scratch_directory() + "/kinds";
    std::filesystem::create_directories(list + "/inside");
    const auto pcm = [](int rate, size_t frames, size_t channels) {
        return random_pcm({3, false}, channels, rate, frames, 1);
    };
    const auto dsd = random_dsd(3528, 1, 2822400);
    scratch_file("kinds/1.wav", wave_file(pcm(44100, 30000, 6)));
    scratch_file("kinds/2.wav", wave_file(pcm(44100, 0, 2)));
    scratch_file("kinds/3.txt", noise(1, 100));
    scratch_file("kinds/4\n\xFF.rf64", wave_file(pcm(48000, 7, 1), wave_kind::rf64));
    for (size_t i = 0; i < containers.size(); ++i)
        scratch_file("kinds/" + std::to_string(5 + i), containers[i].make(dsd));

    const auto result = run_player({.arguments = {"kinds", "missing"}, .voice = wire::pipe});
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(pick(result, "left_out file opening stream playing end read error"),
              R"({"event":"left_out","path":"kinds/inside","reason":"not a file"}
{"event":"left_out","path":"missing","reason":"cannot stat"}
{"event":"file","index":0,"path":"kinds/1.wav","kind":"wav","rate":44100,"bits":24,"channels":6,"seconds":0.680272}
{"event":"file","index":1,"path":"kinds/2.wav","kind":"wav","rate":44100,"bits":24,"channels":2,"seconds":0}
{"event":"left_out","path":"kinds/3.txt","reason":"unknown format"}
{"event":"file","index":2,"path":"kinds/4\u000a\udcff.rf64","kind":"rf64","rate":48000,"bits":24,"channels":1,"seconds":0.000145}
{"event":"file","index":3,"path":"kinds/5","kind":"dsf","rate":2822400,"bits":1,"channels":2,"seconds":0.01}
{"event":"file","index":4,"path":"kinds/6","kind":"dsdiff","rate":2822400,"bits":1,"channels":2,"seconds":0.01}
{"event":"file","index":5,"path":"kinds/7","kind":"wsd","rate":2822400,"bits":1,"channels":3,"seconds":0.01}
{"event":"opening","attempt":1}
{"event":"stream","device":"capture","form":"pcm","format":10,"format_name":"S32_LE","rate":44100,"device_ms":500,"ring_ms":4458}
{"event":"opening","attempt":1}
{"event":"playing","index":0,"other_rate":false}
{"event":"playing","index":2,"other_rate":true}
{"event":"playing","index":3,"other_rate":true}
{"event":"playing","index":4,"other_rate":true}
{"event":"playing","index":5,"other_rate":true}
{"event":"end","reason":"played","status":0}
)");
    EXPECT_EQ(pick(result, "probing", 1), "{\"event\":\"probing\",\"index\":0,\"of\":7}\n");
    EXPECT_EQ(pick(result, "filling", 1), "{\"event\":\"filling\",\"percent\":0}\n");
    EXPECT_EQ(lines_of(pick(result, "draining")).size(), 1U);
}

TEST(play_events, of_each_form_of_the_stream)
{
    const std::string file =
        scratch_file("a.dsf", containers[0].make(random_dsd(4096, 1, 2822400)));
    const char *told[] = {
        R"("form":"native","format":52,"format_name":"DSD_U32_BE","rate":88200,"device_ms":500,"ring_ms":2229})",
        R"("form":"dop","format":10,"format_name":"S32_LE","rate":176400,"device_ms":500,"ring_ms":1114})",
        R"("form":"dop","format":6,"format_name":"S24_LE","rate":176400,"device_ms":500,"ring_ms":1114})",
        R"("form":"dop","format":32,"format_name":"S24_3LE","rate":176400,"device_ms":500,"ring_ms":1486})",
        R"("form":"i2s","format":10,"format_name":"S32_LE","rate":88200,"device_ms":500,"ring_ms":2229})"};
    for (size_t i = 0; i < dsd_forms.size(); ++i) {
        auto settings = settings_for(dsd_forms[i], {file});
        settings.voice = wire::socket;
        const auto result = run_player(settings);
        EXPECT_NE(result.told.find(told[i]), std::string::npos) << result.told;
        EXPECT_EQ(pick(result, "playing"), head + "playing\",\"index\":0,\"other_rate\":false}\n");
    }
}

// The device stands still at a frame: the position tells that very one, at a rate at which the
// printed one stands at 0.
TEST(play_events, tell_the_position_that_is_heard)
{
    constexpr int64_t stands_at = 500000; // frames, the silence among them
    const auto sound = random_pcm({2, false}, 2, 400000, 300000, 1);
    const auto result = run_player({.arguments = {scratch_file("a.wav", wave_file(sound))},
                                    .events = {{.told_has = "stream", .allow = stands_at},
                                               {.told_has = "playing"},
                                               {.after_ms = 2500, .type = key_3}},
                                    .input = wire::pipe,
                                    .voice = wire::pipe,
                                    .gated = true});
    EXPECT_EQ(result.trouble, "");
    const auto first = std::find_if(result.capture.begin(), result.capture.end(),
                                    [](uint8_t byte) { return byte != 0; });
    const int64_t silence = (first - result.capture.begin()) / 8;
    const auto lines = lines_of(pick(result, "position"));
    ASSERT_FALSE(lines.empty());
    double seconds = 0;
    std::sscanf(lines.back().c_str(), R"({"event":"position","index":0,"seconds":%lf,)", &seconds);
    EXPECT_EQ(std::lround(seconds * 1000000), (stands_at - silence) * 10 / 4) << lines.back();
}

// --- Reasons ------------------------------------------------------------------------------------

struct end_row {
    std::string end; // reason, unit and number of a report, status
    std::map<std::string, std::string> capture = {};
    std::vector<play_event> events = {};
    std::vector<std::string> options = {};
};

// The whole event, from a row's words.
std::string end_event(const std::string &words)
{
    std::istringstream stream(words);
    std::string reason, unit, number, status;
    stream >> reason >> unit >> number >> status;
    std::replace(reason.begin(), reason.end(), '_', ' ');
    std::ostringstream event;
    event << head << "end\",\"reason\":\"" << reason;
    if (!number.empty()) event << R"(","unit":")" << unit << R"(","number":)" << number;
    event << (number.empty() ? "\"" : "") << ",\"status\":" << (number.empty() ? unit : status);
    return event.str() + "}\n";
}

TEST(play_events, tell_each_reason_of_an_end)
{
    const auto file =
        scratch_file("long.wav", wave_file(random_pcm({2, false}, 2, 44100, 44100 * 8, 1)));
    const play_event key = {.told_has = "playing", .type = key_3};
    const play_event interrupt = {.told_has = "playing", .signal = SIGINT};
    const play_event again = {.told_has = "draining", .signal = SIGINT};
    const auto fault = [](const char *kind) {
        return std::map<std::string, std::string>{{"FAULT", kind}};
    };
    for (const end_row &row : std::initializer_list<end_row>{
             {"played 0", {{"SPEED", "once"}}},
             {"key 0", {}, {key}},
             {"interrupt 0", {}, {interrupt}},
             {"report sonivane 799 31", {}, {interrupt, again}},
             {"report sonivane 1045 21", {{"SWAP", file + " 1 interrupt"}}, {}, {file}},
             {"underrun 0", fault("xrun 60000")},
             {"underrun 0", fault("pointer 60000")},
             {"suspended 0", fault("suspended 60000")},
             {"disconnected 0", fault("disconnected 60000")},
             {"disconnected 148", fault("disconnected 100")}, // a report comes behind it
             {"refused 0", fault("transfer 100")},            // the silence
             {"refused 0", fault("draining 60000")},
             {"report alsathread 368 112", fault("transfer 60000")},
             {"report alsathread 312 0", fault("avail 60000")},
             {"report alsathread 576 0", {{"BUFFER_BYTES", "8200-8200"}}},
             {"report parse_param 54 54", {}, {}, {"--mode=3"}},
             {"read_error 0", {{"SPEED", "once"}, {"FAIL", "ferror"}}},
         }) {
        play_settings settings = {.arguments = row.options,
                                  .capture = row.capture,
                                  .events = row.events,
                                  .input = wire::pipe,
                                  .voice = wire::pipe,
                                  .stand_ins = true,
                                  .timeout_seconds = 30};
        settings.arguments.push_back(file);
        settings.capture.insert({"SPEED", "4"});
        const auto result = run_player(settings);
        EXPECT_EQ(result.trouble, "") << row.end;
        EXPECT_EQ(pick(result, "end"), end_event(row.end));
        EXPECT_TRUE(result.told.ends_with(end_event(row.end))) << result.told;
        EXPECT_EQ(row.end.substr(row.end.rfind(' ') + 1), std::to_string(result.status));
    }
}

// A file that loses its end while another one plays, and one that never had what it promises.
TEST(play_events, tell_a_file_that_breaks_off)
{
    scratch_file("1.wav", wave_file(random_pcm({2, false}, 2, 44100, 400000, 1)));
    bytes promising = wave_file(random_pcm({2, false}, 2, 44100, 1000, 1));
    promising.resize(2000);
    scratch_file("3.wav", promising);
    std::vector<bytes> files = {wave_file(random_pcm({2, false}, 2, 44100, 10000, 2))};
    for (const auto &container : containers)
        files.push_back(container.make(random_dsd(20000, 3, 2822400)));
    for (const bytes &content : files) {
        const std::string path = scratch_file("2", content);
        const auto result = run_player(
            {.arguments = {"1.wav", "2", "3.wav"},
             .events = {{.out_has = "playing file 1/3",
                         .allow = 100000000,
                         .call = [&path] { std::filesystem::resize_file(path, 10000); }}},
             .voice = wire::pipe,
             .gated = true});
        EXPECT_EQ(pick(result, "read error end"),
                  "{\"event\":\"read error\",\"index\":1}\n"
                  "{\"event\":\"end\",\"reason\":\"read error\",\"status\":0}\n");
    }
}

// --- Names --------------------------------------------------------------------------------------

TEST(play_events, tell_names_of_any_bytes)
{
    const struct {
        std::string name, told;
    } rows[] = {
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
    std::vector<std::string> names;
    std::string told;
    for (const auto &row : rows) {
        names.push_back(row.name);
        told += R"({"event":"left_out","path":")" + row.told + "\",\"reason\":\"cannot stat\"}\n";
    }
    std::string longest; // more than a pipe takes in one piece for sure
    for (int i = 0; i < 4095; ++i) longest += "\\udcff";
    names.emplace_back(4095, '\xFF');
    told += R"({"event":"left_out","path":")" + longest + "\",\"reason\":\"cannot stat\"}\n";
    const auto result = run_player({.arguments = names, .voice = wire::pipe});
    EXPECT_EQ(pick(result, "left_out"), told);
}

// --- Readers ------------------------------------------------------------------------------------

TEST(play_events, need_a_descriptor_that_is_open_for_writing)
{
    for (const std::string bad : {"", "x", "3x", "-1", "99", "0", "4294967299"}) {
        const auto result = run_player({.arguments = {"--events=" + bad}, .input = wire::pipe});
        EXPECT_EQ(result.status, 61);
        EXPECT_EQ(result.err, report_text("parse_param", 61,
                                          "--events needs an open descriptor, not " + bad + ".\n"));
    }
}

// Nothing waits for a reader that does not read, and the first line that it then gets counts what
// it missed.
TEST(play_events, do_not_wait_for_their_reader)
{
    const auto sound = random_pcm({2, false}, 2, 8000, 16000, 1);
    const auto result = run_player({.arguments = {scratch_file("a.wav", wave_file(sound))},
                                    .events = {{.told_has = "stream", .mutes = true},
                                               {.log_has = "start", .allow = 16000, .mutes = true},
                                               {.after_ms = 1500, .allow = 100000}},
                                    .voice = wire::pipe,
                                    .gated = true});
    EXPECT_EQ(stream_trouble(result, {s32_le, packing::pcm}, 8000, device_bytes(sound, s32_le)),
              "");
    int most_dropped = 0; // playing and a position, at least
    for (const std::string &line : lines_of(result.told)) {
        EXPECT_TRUE(line.starts_with(head) && line.ends_with("}")) << line;
        const size_t field = line.find(",\"dropped\":");
        if (field != std::string::npos)
            most_dropped = std::max(most_dropped, std::stoi(line.substr(field + 11)));
    }
    EXPECT_GE(most_dropped, 2) << result.told;
}

// A reader that has left is a front-end that is no more.
TEST(play_events, a_reader_that_left_ends_the_sound)
{
    const std::string file =
        scratch_file("a.wav", wave_file(random_pcm({2, false}, 2, 8000, 8000, 1)));
    const auto gone = run_player({.arguments = {file}, .voice = wire::gone});
    EXPECT_EQ(gone.status, 0);
    EXPECT_TRUE(gone.capture.empty());
    EXPECT_TRUE(gone.out.ends_with(std::string(72, ' ') + "\n\n"));
}

// --- Everything else ----------------------------------------------------------------------------

// With and without the option: the same output where the device waits for the first line of it,
// the same sound where the silence before does not hang on the pace, the same errors and status.
TEST(play_events, change_nothing_else)
{
    scratch_file("a.wav", wave_file(random_pcm({2, false}, 2, 44100, 30000, 1)));
    scratch_file("b.txt", noise(1, 100));
    for (const char *fault : {"", "none 0", "avail 60000", "transfer 60000"}) {
        const bool gated = *fault == '\0';
        play_settings settings = {.arguments = {"--silent", "a.wav", "b.txt", "missing"},
                                  .capture = {{"FAULT", fault}},
                                  .gated = gated,
                                  .stand_ins = true};
        if (gated) settings.events = {{.out_has = "\n0 0\n", .allow = 1000000}};
        const auto without = run_player(settings);
        EXPECT_FALSE(without.err.empty() || without.capture.empty());
        for (const wire voice : {wire::pipe, wire::socket, wire::null}) {
            settings.voice = voice;
            const auto with = run_player(settings);
            EXPECT_EQ(with.trouble, "");
            EXPECT_EQ(with.status, without.status);
            EXPECT_EQ(with.err, without.err);
            EXPECT_TRUE(gated ? with.out == without.out : with.capture == without.capture);
        }
    }
}

// The front-end of the documents, as it stands there.
TEST(play_events, are_what_the_documented_front_end_reads)
{
    std::ifstream page(FRONT_END_PAGE);
    std::string program;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("```"))
            inside = line == "```python";
        else if (inside)
            program += line + "\n";
    }
    const std::string script = scratch_file("front_end.py", {program.begin(), program.end()});
    scratch_file("a.wav", wave_file(random_pcm({2, false}, 2, 44100, 44100 * 3, 1)));
    scratch_file("b.wav", wave_file(random_pcm({2, false}, 2, 48000, 1000, 1)));
    const auto result = run_player({.arguments = {"a.wav", "b.wav", "missing"},
                                    .capture = {{"SPEED", "2"}},
                                    .launcher = {"python3", script}});
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, 0) << result.err;
    for (const char *shown :
         {"left out: missing - cannot stat\ncapture: pcm S32_LE 44100 Hz\n\n1/2 a.wav\n",
          "\r0:01 of 0:03 ", "\n2/2 b.wav at the wrong speed\n", "\nended: played, status 0\n"})
        EXPECT_NE(result.out.find(shown), std::string::npos) << result.out;
}

} // namespace
