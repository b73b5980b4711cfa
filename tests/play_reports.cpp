// Every report that can be reached from outside: its text, the exit status, and whether the player
// goes on. The rows stand in reports.txt.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "play_model.h"

namespace
{

const std::string stream_line = "Open 44100Hzfs PCM stream\n";

// What the texts of the table leave to be put in, in this order.
const std::vector<std::pair<std::string, std::string>> shorthands = {
    {"{open}", stream_line},
    {"{busy}",
     "1st snd_pcm_open() failed. retrying ...\\r2nd snd_pcm_open() failed. retrying ...\\r"
     "3rd snd_pcm_open() failed. retrying ...\\r4th snd_pcm_open() failed. retrying ...\\r"
     "5th snd_pcm_open() failed. retrying ...\\r\\n"
     "@alsathread 505 snd_pcm_open() failed. Device or resource busy\\n\\n"},
    {"{usage}", "usage:\t" PLAYER_PATH " [params...] sound_file...\n\n"},
    {"@", "\nERROR "},
    {"\\n", "\n"},
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

std::vector<std::string> split(const std::string &text, const std::string &separator)
{
    std::vector<std::string> parts;
    size_t at = 0;
    for (size_t end = 0; (end = text.find(separator, at)) != std::string::npos;) {
        parts.push_back(text.substr(at, end - at));
        at = end + separator.size();
    }
    if (at < text.size()) parts.push_back(text.substr(at));
    return parts;
}

struct report_row {
    std::string name;
    int number;
    play_settings settings;
    std::string err;
    std::string out;
};

void PrintTo(const report_row &row, std::ostream *out)
{
    *out << row.name;
}

std::vector<report_row> read_rows()
{
    std::vector<report_row> rows;
    std::ifstream table(REPORTS_TABLE);
    for (std::string line; std::getline(table, line);) {
        if (line.empty() || line[0] == '#') continue;
        auto columns = split(line + "  ", "| ");
        for (std::string &column : columns) column.erase(column.find_last_not_of(' ') + 1);
        report_row row = {columns.at(0),
                          std::stoi(columns.at(1)),
                          {.stand_ins = true},
                          text_of(columns.at(4)),
                          text_of(columns.at(5))};
        row.settings.arguments = split(columns.at(2), " ");
        for (const std::string &setting : split(columns.at(3), "; ")) {
            const size_t sign = setting.find('=');
            const std::string value = setting.substr(sign + 1);
            (setting.starts_with("DEVICE=") ? row.settings.device_name
                                            : row.settings.capture[setting.substr(0, sign)]) =
                value;
        }
        rows.push_back(row);
    }
    return rows;
}

pcm_sound short_sound()
{
    return random_pcm({2, false}, 2, 44100, 30000, 1);
}

// The files that the rows name, in the player's directory.
void make_files()
{
    const auto slow = random_pcm({2, false}, 2, 100, 1000, 2);
    const bytes half = noise(1, 4096);
    const bytes frames = noise(1, 800);
    scratch_file("a.wav", wave_file(short_sound()));
    scratch_file("b.wav", wave_file(slow));
    scratch_file("wide.wav", make_wav({.bits = 64, .data = frames}));
    scratch_file("blocks.dsf",
                 make_dsf({.rate = 705600, .block_bytes = 2048, .left = half, .right = half}));
    scratch_file("slow.dff", make_dsdiff({.rate = 256000, .frames = frames}));
    scratch_file("fast.dff", make_dsdiff({.rate = 11289616, .frames = frames}));
    scratch_file("text.txt", noise(3, 200));
    std::filesystem::create_directory(scratch_directory() + "/empty");
}

class play_report : public testing::TestWithParam<report_row>
{
};

TEST_P(play_report, is_told_and_ends_as_told)
{
    const report_row &row = GetParam();
    make_files();
    const auto result = run_player(row.settings);
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, row.number & 255);
    EXPECT_EQ(result.err, row.err);
    EXPECT_TRUE(result.out.starts_with(row.out)) << result.out;
    if (result.status == 0 && result.err.ends_with(stream_line)) {
        const bytes told = device_bytes(short_sound(), s32_le);
        EXPECT_EQ(stream_trouble(result, {s32_le, packing::pcm}, 44100, told), "");
    }
    // Each look at a busy device is followed by a wait of two seconds.
    int64_t waited = 0;
    for (const std::string &line : result.log)
        if (line.starts_with("pause ")) waited += std::stol(line.substr(6));
    const auto retries = static_cast<int64_t>(split(" " + result.err, "retrying").size()) - 1;
    EXPECT_EQ(waited, retries * 2000000);
}
INSTANTIATE_TEST_SUITE_P(all, play_report, testing::ValuesIn(read_rows()),
                         testing::PrintToStringParamName());

// Names and values that would steer the terminal or forge a line.
TEST(play_reports, show_no_control_byte_of_a_name)
{
    make_files();
    const std::string name = "\x1b[2J\x7f\xc3\xa9\r\n";
    scratch_file(name, noise(3, 200));
    scratch_file("\x1b.wav", wave_file(short_sound()));
    const std::string skip = "file format of ?[2J?\xc3\xa9?? unknown. Skip\n";
    const struct {
        std::vector<std::string> arguments;
        std::string swap, err;
    } rows[] = {
        {{"--mode=" + name}, "", "@parse_param 54 illegal mode name ?[2J?\xc3\xa9?? passed.\n"},
        {{"-B", name}, "", "@parse_param 183 illegal buffer size ?[2J?\xc3\xa9?? passed.\n"},
        {{name, "no" + name},
         "",
         "No such file or directory\n@dir2files 136 cannot stat no?[2J?\xc3\xa9??\n" + skip +
             "@sonivane 1009 No sound files are found.\n"},
        {{"\x1b.wav"}, "\x1b.wav 2 gone.wav", "@sonivane 725 file ?.wav open error.\n"},
        {{"\x1b.wav"},
         "\x1b.wav 2 text.txt",
         "file format of ?.wav unknown. Skip\n@sonivane 1012 soundfile ?.wav open failed.\n"},
    };
    for (const auto &[arguments, swap, err] : rows) {
        const auto result =
            run_player({.arguments = arguments, .capture = {{"SWAP", swap}}, .stand_ins = true});
        EXPECT_EQ(result.err, text_of(err));
    }
}

// --- What needs an event, a large ring, or root -------------------------------------------------

TEST(play_reports, an_interrupt_while_the_ring_is_filled)
{
    scratch_file("long.wav", wave_file(random_pcm({1, false}, 1, 44100, 40000000, 1)));
    const auto result = run_player({.arguments = {"-B", "512M", "long.wav"},
                                    .events = {{.out_has = "filling buffer", .signal = SIGINT}}});
    EXPECT_EQ(result.status, 1045 & 255);
    EXPECT_EQ(result.err, stream_line + report_text("sonivane", 1045, "exit by interrupt\n"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take address space
TEST(play_reports, no_memory_for_the_ring)
{
    make_files();
    const auto result =
        run_player({.arguments = {"-B", "2047M", "a.wav"}, .memory_limit = 1000000000});
    EXPECT_EQ(result.status, 1033 & 255);
    EXPECT_EQ(result.err, stream_line + report_text("ringbuffer", 16, "malloc() failed.\n") +
                              report_text("sonivane", 1033, "ringbuffer_new() failed.\n"));
}
#endif

TEST(play_reports, only_root_asks_for_a_better_priority)
{
    make_files();
    const bool root = geteuid() == 0;
    const auto result =
        run_player({.arguments = {"a.wav"}, .capture = {{"FAIL", "nice"}}, .stand_ins = true});
    EXPECT_EQ(log_has(result, "nice -10"), root);
    EXPECT_EQ(result.status, root ? 145 : 0);
    EXPECT_EQ(result.err, root ? "nice(): Operation not permitted\n" +
                                     report_text("util", 145, "nice() failed.\n")
                               : stream_line);
}

} // namespace
