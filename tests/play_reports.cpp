// Every report, every fault of the device and every form of the stream that can be caused from
// outside: texts, reasons and statuses, and what the device got. The rows are in reports.txt.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <thread>
#include <utility>

#include "play_model.h"

namespace
{

const std::string steering_name = "\x1b[2J\x7f\xc3\xa9\r\n"; // would clear the screen
const std::string end_mark = "\x04";

// Shorthands of the table and what replaces them, in this order.
const std::vector<std::pair<std::string, std::string>> shorthands = {
    {"{open}", stream_line},
    {"{busy}",
     "1st snd_pcm_open() failed. retrying ...\\r2nd snd_pcm_open() failed. retrying ...\\r"
     "3rd snd_pcm_open() failed. retrying ...\\r4th snd_pcm_open() failed. retrying ...\\r"
     "5th snd_pcm_open() failed. retrying ...\\r\\n"
     "@alsathread 505 snd_pcm_open() failed. Device or resource busy\\n\\n"},
    {"{usage}", "usage:\t" PLAYER_PATH " [params...] sound_file...\n\n"},
    {"{steering}", steering_name},
    {"{end}", end_mark},
    {"@", "\nERROR "},
    {"\\n", "\n"},
    {"\\e", "\x1b"},
    {"\\r", "\r"},
    {"\\t", "\t"},
};

std::string text_of(std::string column)
{
    for (const auto &[from, to] : shorthands)
        for (size_t at = 0; (at = column.find(from, at)) != std::string::npos; at += to.size())
            column.replace(at, from.size(), to);
    return column;
}

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) {
        part.erase(0, part.find_first_not_of(' '));
        part.erase(part.find_last_not_of(' ') + 1);
        if (!part.empty() || separator == '|') parts.push_back(text_of(part));
    }
    return parts;
}

// The files that the rows name, in the directory where the player runs.
void make_files()
{
    const bytes half = noise(1, 4096);
    const bytes frames = noise(1, 800);
    const bytes no_sound = noise(3, 200);
    scratch_wave("a.wav", 44100, 30000);
    scratch_wave("folder/a.wav", 44100, 30000);
    scratch_wave("b.wav", 100, 1000);
    scratch_wave("slow.wav", 8000, 100000);
    scratch_wave("long.wav", 44100, 250000);
    scratch_wave("\x1b.wav", 44100, 100);
    scratch_file("list.m3u", text("a.wav\n"));
    scratch_file("empty.m3u", {});
    scratch_file("wide.wav", make_wav({.bits = 64, .data = frames}));
    scratch_file("blocks.dsf",
                 make_dsf({.rate = 705600, .block_bytes = 2048, .left = half, .right = half}));
    for (const auto &[name, rate] : {std::pair("slow.dff", 256000U),
                                     {"fast.dff", 11289616},
                                     {"dsd64.dff", 2822400},
                                     {"dsd128.dff", 5644800},
                                     {"dsd256.dff", 11289600},
                                     {"fastest.dff", 11289615},
                                     {"odd.dff", 128050}})
        scratch_file(name, make_dsdiff({.rate = rate, .frames = frames}));
    for (const std::string name : {"text.txt", steering_name.c_str(), "none/below/text"})
        scratch_file(name, no_sound);
}

const auto rows = [] {
    std::istringstream table(file_text(SOURCE_TREE "/tests/reports.txt"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(table, line);)
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    return lines;
}();

using reports = testing::TestWithParam<size_t>;

TEST_P(reports, are_printed_and_end_as_expected)
{
    make_files();
    auto columns = split(rows[GetParam()], '|');
    columns.resize(7);
    const std::string &err = columns[4];
    play_settings settings = {.arguments = split(columns[2], ' ')};
    for (const std::string &setting : split(columns[3], ';')) {
        const size_t sign = setting.find('=');
        settings.capture[setting.substr(0, sign)] = setting.substr(sign + 1);
    }
    const bool no_device = settings.capture.contains("NO_DEVICE");
    if (no_device) settings.device_name = "";
    if (no_device) settings.event_wire = wire::closed;

    const auto result = run_player(settings);
    EXPECT_EQ(result.end, columns[1]);
    EXPECT_EQ(result.err, err);
    EXPECT_TRUE((result.out + end_mark).starts_with(columns[5])) << result.out;
    if (!columns[6].empty()) {
        EXPECT_EQ(event_values(result, "stream"), columns[6]);
        EXPECT_TRUE(settings.arguments[0] == "-os" ||
                    log_has(result, "thresholds start 11025 avail_min 22050"));
    }
    if (result.end == "played,0" && err.ends_with(stream_line) && columns[6].empty())
        expect_stream(result, s32_le, 44100, device_bytes(random_pcm(44100, 30000), s32_le));
    unsigned long fault_at = 0;
    if (std::sscanf(settings.capture["FAULT"].c_str(), "%*s %lu", &fault_at) == 1) {
        EXPECT_EQ(result.capture.size(), fault_at * 8);
        EXPECT_TRUE(log_has(result, "close 2 took " + std::to_string(fault_at) + " "));
    }
    // Each attempt on a busy device is followed by a wait of two seconds.
    const auto waits = std::ranges::count(result.log, "pause 2 s");
    const auto busy = std::ranges::count_if(
        result.log, [](const std::string &entry) { return entry.ends_with(" busy"); });
    EXPECT_EQ(waits, busy);
}

INSTANTIATE_TEST_SUITE_P(all, reports, testing::Range(size_t{0}, rows.size()),
                         [](const auto &row) { return split(rows[row.param], '|')[0]; });

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they reserve address space
TEST(play_reports, no_memory)
{
    const std::string file = scratch_wave("a.wav", 44100, 9);
    const auto ring = run_player(
        {.arguments = {"-B", "2047M", file}, .launcher = {"prlimit", "--as=1000000000"}});
    EXPECT_EQ(ring.end, "report,sonivane,1033,9");
    EXPECT_EQ(ring.err, stream_line + report_text("ringbuffer", 16, "malloc() failed.\n") +
                            report_text("sonivane", 1033, "ringbuffer_new() failed.\n"));
    bytes names;
    for (int i = 0; i < 500000; ++i) put_bytes(names, {'a', 0});
    scratch_file("a", {});
    const auto list = run_player({.arguments = {"--list=" + scratch_file("names", names)},
                                  .launcher = {"prlimit", "--as=100000000"}});
    EXPECT_EQ(list.end, "report,1");
    EXPECT_EQ(list.err, "sonivane: out of memory\n");
}
#endif

// Only root asks for another nice value. With a small buffer any user asks for a real-time
// priority.
TEST(play_reports, the_priority_is_what_the_system_grants)
{
    const bool root = geteuid() == 0;
    const auto file = scratch_wave("a.wav", 44100, 100);
    const auto refused = run_player({.arguments = {file}, .capture = {{"FAIL", "nice"}}});
    EXPECT_EQ(refused.end, root ? "145" : "played,0");
    EXPECT_EQ(refused.err, root ? "nice(): Operation not permitted\n" +
                                      report_text("util", 145, "nice() failed.\n")
                                : stream_line);
    const sched_param least = {.sched_priority = 1};
    int refusal = 0;
    std::thread([&] {
        refusal = pthread_setschedparam(pthread_self(), SCHED_FIFO, &least);
    }).join();
    const auto large = run_player({.arguments = {file}});
    const auto small =
        run_player({.arguments = {file}, .capture = {{"BUFFER_BYTES", "16384-16384"}}});
    EXPECT_EQ(log_has(large, "nice -10"), root);
    EXPECT_TRUE(log_has(large, "policy 0"));
    EXPECT_TRUE(log_has(small, refusal == 0 ? "policy 1" : "policy 0"));
}

} // namespace
