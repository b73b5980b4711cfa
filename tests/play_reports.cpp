// Every report that can be reached from outside: its text, the exit status, and whether the player
// goes on; and how each fault of the device ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "play_model.h"
#include "run_player.h"

namespace
{

const std::string stream_line = "Open 44100Hzfs PCM stream\n";
constexpr size_t short_frames = 30000;

pcm_sound short_sound()
{
    return random_pcm(2, false, 2, 44100, short_frames, 1);
}

// The files that the rows name, in the player's directory.
void make_files()
{
    scratch_file("a.wav", wave_file(short_sound()));
    scratch_file("b.wav", wave_file(random_pcm(2, false, 2, 100, 1000, 2)));
    scratch_file("wide.wav", make_wav({.bits = 64, .data = noise(1, 800)}));
    scratch_file("blocks.dsf", make_dsf({.rate = 705600,
                                         .block_bytes = 2048,
                                         .left = noise(1, 4096),
                                         .right = noise(2, 4096)}));
    scratch_file("text.txt", noise(3, 200));
    std::filesystem::create_directory(scratch_directory() + "/empty");
}

std::string thread_report(int number, const std::string &message)
{
    return report_text("alsathread", number, message);
}

// --- Reports that end the program, and some that do not -----------------------------------------

struct report_row {
    const char *name;
    int number; // its low 8 bits are the exit status; 0: the player goes on
    std::string err;
    std::vector<std::string> arguments = {"a.wav"};
    std::map<std::string, std::string> capture = {};
    bool stand_ins = false;
    const char *device = "capture";
    std::string out = ""; // what standard output begins with
};

const std::string io_error = "Input/output error\n";
const std::string retries = "1st snd_pcm_open() failed. retrying ...\r"
                            "2nd snd_pcm_open() failed. retrying ...\r"
                            "3rd snd_pcm_open() failed. retrying ...\r"
                            "4th snd_pcm_open() failed. retrying ...\r"
                            "5th snd_pcm_open() failed. retrying ...\r\n";
const std::string busy =
    retries + thread_report(505, "snd_pcm_open() failed. Device or resource busy\n\n");

// A call of libasound that fails.
report_row failing(const char *call, int number, const std::string &message)
{
    return {.name = call,
            .number = number,
            .err = thread_report(number, message + io_error),
            .capture = {{"FAIL", call}},
            .stand_ins = true};
}

const std::vector<report_row> report_rows = {
    // The command line and the list.
    {.name = "nothing_given",
     .number = 933,
     .err = report_text("sonivane", 933, "argc is 1 skip is 2\n"),
     .arguments = {},
     .device = "",
     .out = "usage:\t" PLAYER_PATH " [params...] sound_file...\n\n"},
    {.name = "mode",
     .number = 54,
     .err = report_text("parse_param", 54, "illegal mode name 3 passed.\n"),
     .arguments = {"--mode=3", "a.wav"}},
    {.name = "buffer_size",
     .number = 183,
     .err = report_text("parse_param", 183, "illegal buffer size abc passed.\n"),
     .arguments = {"-B", "abc", "a.wav"},
     .out = "usage:\t"},
    {.name = "help", .number = 1, .err = "", .arguments = {"--help"}, .out = "usage:\t"},
    {.name = "version",
     .number = 0,
     .err = "",
     .arguments = {"--version"},
     .out = "sonivane Ver.1.4 "},
    {.name = "no_card",
     .number = 946,
     .err = report_text("sonivane", 946, "Output device is not defined.\n"),
     .stand_ins = true,
     .device = ""},
    {.name = "last_card",
     .number = 0,
     .err = stream_line,
     .capture = {{"CARDS", "3"}},
     .stand_ins = true,
     .device = "",
     .out = "last device hw:2,0\n"},
    {.name = "no_files",
     .number = 958,
     .err = report_text("sonivane", 958, "no files found.\n"),
     .arguments = {"empty"}},
    {.name = "no_sound",
     .number = 1009,
     .err = "file format of text.txt unknown. Skip\n" +
            report_text("sonivane", 1009, "No sound files are found.\n"),
     .arguments = {"text.txt"}},
    {.name = "some_sound",
     .number = 0,
     .err = "file format of text.txt unknown. Skip\n" + stream_line,
     .arguments = {"text.txt", "a.wav"}},
    {.name = "missing_name",
     .number = 0,
     .err = "No such file or directory\n" +
            report_text("dir2files", 136, "cannot stat missing.wav\n") + stream_line,
     .arguments = {"missing.wav", "a.wav"}},
    {.name = "sample_width",
     .number = 714,
     .err = report_text("sonivane", 714, "sample bit length 64 is not supported.\n"),
     .arguments = {"wide.wav"}},
    {.name = "gone_at_the_second_look",
     .number = 725,
     .err = report_text("sonivane", 725, "file a.wav open error.\n"),
     .capture = {{"SWAP", "a.wav 2 gone.wav"}},
     .stand_ins = true},
    {.name = "another_file_at_the_second_look",
     .number = 1012,
     .err = "file format of a.wav unknown. Skip\n" +
            report_text("sonivane", 1012, "soundfile a.wav open failed.\n"),
     .capture = {{"SWAP", "a.wav 2 text.txt"}},
     .stand_ins = true},
    {.name = "block_size",
     .number = 0,
     .err = report_text("dsf", 142, "DSF block size if 2048\n") +
            report_text("dsf", 142, "DSF block size if 2048\n") + "Open 0.7fMHzfs DoP stream\n",
     .arguments = {"blocks.dsf"}},
    // The ring.
    {.name = "small_ring",
     .number = 0,
     .err = stream_line +
            report_text("sonivane", 1027,
                        "buffer size 1024Bytes is too small. reset to 1572864[Bytes].\n"),
     .arguments = {"-B", "1k", "a.wav"}},
    {.name = "huge_ring",
     .number = 1033,
     .err = stream_line + report_text("sonivane", 1033, "ringbuffer_new() failed.\n"),
     .arguments = {"-B", "4096M", "a.wav"}},
    {.name = "negative_ring",
     .number = 1033,
     .err = stream_line + report_text("sonivane", 1033, "ringbuffer_new() failed.\n"),
     .arguments = {"-B", "-5", "a.wav"}},
    // The threads.
    {.name = "thread",
     .number = 1062,
     .err = stream_line + report_text("sonivane", 1062, "pthread_create() failed.\n"),
     .capture = {{"FAIL", "pthread_create"}},
     .stand_ins = true},
    {.name = "join",
     .number = 1068,
     .err = stream_line + report_text("sonivane", 1068, "pthread_join() failed.\n"),
     .capture = {{"FAIL", "pthread_join"}},
     .stand_ins = true},
    // Opening the device.
    {.name = "busy", .number = 505, .err = busy, .capture = {{"BUSY", "all"}}, .stand_ins = true},
    {.name = "busy_for_good",
     .number = 505,
     .err = stream_line + busy,
     .capture = {{"BUSY", "2 3 4 5 6"}},
     .stand_ins = true},
    {.name = "busy_at_first",
     .number = 0,
     .err = retries.substr(0, retries.find("3rd")) + stream_line,
     .capture = {{"BUSY", "1 2"}},
     .stand_ins = true},
    {.name = "access",
     .number = 126,
     .err = thread_report(126, "Access type not available for playback: Invalid argument\n"),
     .capture = {{"ACCESS", "mmap"}}},
    {.name = "channels",
     .number = 133,
     .err =
         thread_report(133, "Channels count (2) not available for playbacks: Invalid argument\n"),
     .capture = {{"CHANNELS", "1"}}},
    {.name = "no_format",
     .number = 191,
     .err = thread_report(191, "snd_pcm_hw_params_set_format(format=-1) failed.\n"),
     .capture = {{"FAIL", "snd_pcm_hw_params_test_format"}},
     .stand_ins = true},
    {.name = "format",
     .number = 191,
     .err = thread_report(191, "snd_pcm_hw_params_set_format(format=10) failed.\n"),
     .capture = {{"FAIL", "snd_pcm_hw_params_set_format"}},
     .stand_ins = true},
    {.name = "avail",
     .number = 0,
     .err = stream_line + thread_report(312, "snd_pcm_avail() returned -5\n"),
     .capture = {{"FAIL", "snd_pcm_avail"}},
     .stand_ins = true},
    {.name = "low_rate",
     .number = 202,
     .err = thread_report(202, "This hardware supports minimum rate 48000Hz not 44100Hz\n"),
     .capture = {{"RATES", "48000-96000"}}},
    {.name = "high_rate",
     .number = 211,
     .err = thread_report(211, "This hardware maximum rate 44099Hz, do not support 44100Hz\n"),
     .capture = {{"RATES", "8000-44099"}}},
    {.name = "rate_between",
     .number = 217,
     .err = thread_report(217, "Rate 44100Hz not available for playback: Invalid argument\n"),
     .capture = {{"RATES", "32000 48000"}}},
    failing("snd_pcm_nonblock", 509, "snd_pcm_hw_nonblock() failed. "),
    failing("snd_pcm_hw_params_any", 118,
            "Broken configuration for playback: no configurations available: "),
    failing("snd_pcm_hw_params_get_rate_min", 198, "snd_pcm_hw_params_get_rate_min() failed. "),
    failing("snd_pcm_hw_params_get_rate_max", 207, "snd_pcm_hw_params_get_rate_max() failed. "),
    failing("snd_pcm_hw_params_set_buffer_time_near", 226,
            "Unable to set buffer time 500000 for playback: "),
    failing("snd_pcm_hw_params_get_buffer_size", 231, "Unable to get buffer size for playback: "),
    failing("hw_params", 239, "Unable to set hw params for playback: "),
    failing("snd_pcm_sw_params_current", 257,
            "Unable to determine current swparams for playback: "),
    failing("snd_pcm_sw_params_set_start_threshold", 265,
            "Unable to set start threshold mode for playback: "),
    failing("snd_pcm_sw_params_set_avail_min", 273, "Unable to set avail min for playback: "),
    failing("snd_pcm_sw_params", 279, "Unable to set sw params for playback: "),
    failing("snd_pcm_prepare", 526, "snd_pcm_prepare() failed. "),
    // Another device at the second opening: the ring already holds frames of the first form.
    {.name = "other_format_later",
     .number = 514,
     .err = stream_line + thread_report(514, "sound_hwparams() failed. Invalid argument\n"),
     .capture = {{"FORMATS_2", "S16_LE"}}},
    {.name = "other_rates_later",
     .number = 202,
     .err = stream_line +
            thread_report(202, "This hardware supports minimum rate 48000Hz not 44100Hz\n"),
     .capture = {{"RATES_2", "48000-96000"}}},
    // Starting the device, with little room in it or with a second of silence in it.
    {.name = "start_when_nearly_full",
     .number = 323,
     .err = stream_line + thread_report(323, "snd_pcm_start() error. " + io_error),
     .capture = {{"FAIL", "start"}, {"BUFFER_BYTES", "8800-8800"}, {"CAPS", "7"}}},
    {.name = "start_behind_the_silence",
     .number = 399,
     .err = "Open 100Hzfs PCM stream\n" + thread_report(399, "snd_pcm_start() error. " + io_error),
     .arguments = {"b.wav"},
     .capture = {{"FAIL", "start"}, {"BUFFER_BYTES", "32768-32768"}, {"CAPS", "7"}}},
};

void PrintTo(const report_row &row, std::ostream *out)
{
    *out << row.name;
}

class play_report : public testing::TestWithParam<report_row>
{
};

TEST_P(play_report, is_told_and_ends_as_told)
{
    const report_row &row = GetParam();
    make_files();
    const auto result = run_player({.arguments = row.arguments,
                                    .device_name = row.device,
                                    .capture = row.capture,
                                    .stand_ins = row.stand_ins});
    EXPECT_EQ(result.status, row.number & 255);
    EXPECT_EQ(result.err, row.err);
    EXPECT_TRUE(result.out.starts_with(row.out)) << result.out;
    // Those that go on play the file to its end.
    if (result.err.ends_with(stream_line)) {
        const bytes told = device_bytes(short_sound(), s32_le);
        EXPECT_TRUE(result.capture.size() > told.size() &&
                    std::equal(told.rbegin(), told.rend(), result.capture.rbegin()));
    }
    size_t sleeps = 0;
    for (const std::string &line : result.log) sleeps += line == "sleep 2";
    const size_t refused = row.number == 505 ? 5 : row.capture.contains("BUSY") ? 2 : 0;
    EXPECT_EQ(sleeps, refused);
}
INSTANTIATE_TEST_SUITE_P(all, play_report, testing::ValuesIn(report_rows),
                         testing::PrintToStringParamName());

// --- Faults while the output thread runs --------------------------------------------------------

constexpr int in_silence = 100; // frames after which a fault strikes
constexpr int in_sound = 60000;

struct fault_row {
    const char *kind;
    int after; // frames
    int status;
    std::string err;
};

std::string lost_early(int state)
{
    return thread_report(404, "snd_pcm_state() returned " + std::to_string(state) + ". " +
                                  strerror(state) + "\n");
}

const std::vector<fault_row> fault_rows = {
    {"setup", in_silence, 404 & 255, lost_early(1)},
    {"xrun", in_silence, 404 & 255, lost_early(4)},
    {"pointer", in_silence, 404 & 255, lost_early(4)},
    {"draining", in_silence, 404 & 255, lost_early(5)},
    {"suspended", in_silence, 404 & 255, lost_early(7)},
    {"disconnected", in_silence, 404 & 255, lost_early(8)},
    {"transfer", in_silence, 0, ""},
    {"setup", in_sound, 368 & 255, thread_report(368, "snd_pcm_writei() returned code -77\n")},
    {"xrun", in_sound, 0, ""},
    {"pointer", in_sound, 0, ""},
    {"suspended", in_sound, 0, ""},
    {"disconnected", in_sound, 0, ""},
    {"transfer", in_sound, 368 & 255, thread_report(368, "snd_pcm_writei() returned code -5\n")},
    {"again", in_sound, 368 & 255, thread_report(368, "snd_pcm_writei() returned code -11\n")},
};

void PrintTo(const fault_row &row, std::ostream *out)
{
    *out << row.kind << (row.after == in_sound ? "_late" : "_early");
}

class play_fault : public testing::TestWithParam<fault_row>
{
};

TEST_P(play_fault, ends_as_told)
{
    const fault_row &row = GetParam();
    make_files();
    const auto result =
        run_player({.arguments = {"a.wav"},
                    .capture = {{"FAULT", std::string(row.kind) + " " + std::to_string(row.after)}},
                    .timeout_seconds = 20});
    EXPECT_EQ(result.status, row.status);
    EXPECT_EQ(result.err, stream_line + row.err);
    EXPECT_EQ(result.capture.size(), static_cast<size_t>(row.after) * 8);
    const bool closed = !result.log.empty() && result.log.back().starts_with("close ");
    EXPECT_EQ(closed, row.status == 0);
}
INSTANTIATE_TEST_SUITE_P(all, play_fault, testing::ValuesIn(fault_rows),
                         testing::PrintToStringParamName());

// A device that is ready but never takes a frame of the silence ends with a key.
TEST(play_faults, a_device_that_takes_nothing_ends_with_a_key)
{
    make_files();
    const auto result = run_player({.arguments = {"a.wav"},
                                    .capture = {{"FAULT", "again 100"}},
                                    .events = {{.log_has = "fault again", .type = "\x03"}},
                                    .input = wire::pipe,
                                    .timeout_seconds = 20});
    EXPECT_EQ(result.status, 0);
}

TEST(play_faults, a_buffer_must_hold_more_than_1025_frames)
{
    make_files();
    const auto small = run_player({.arguments = {"a.wav"},
                                   .capture = {{"BUFFER_BYTES", "8200-8200"}},
                                   .timeout_seconds = 20});
    EXPECT_EQ(small.status, 0);
    EXPECT_EQ(small.capture.size(), 0U);
    const auto enough =
        run_player({.arguments = {"a.wav"}, .capture = {{"BUFFER_BYTES", "8216-8216"}}});
    expect_pcm_stream(enough, s32_le, 44100, device_bytes(short_sound(), s32_le));
}

// --- Files that change while the list plays -----------------------------------------------------

// The first file is longer than the ring, so that the second is opened only when the device plays:
// after the change.
play_result play_changing_list(const std::function<void()> &change)
{
    for (const unsigned i : {1U, 2U, 3U}) {
        const auto sound = random_pcm(2, false, 2, 44100, i == 1 ? 400000 : 1000, i);
        scratch_file(std::to_string(i) + ".wav", wave_file(sound));
    }
    return run_player(
        {.arguments = {"1.wav", "2.wav", "3.wav"},
         .events = {{.out_has = "playing file 1/3", .allow = 100000000, .call = change}},
         .gated = true});
}

TEST(play_list, a_file_that_is_no_sound_any_more_is_passed_over)
{
    const auto result = play_changing_list([] { scratch_file("2.wav", noise(1, 100)); });
    EXPECT_EQ(result.err, stream_line + "file format of 2.wav unknown. Skip\n");
    bytes told = device_bytes(random_pcm(2, false, 2, 44100, 400000, 1), s32_le);
    put_bytes(told, device_bytes(random_pcm(2, false, 2, 44100, 1000, 3), s32_le));
    expect_pcm_stream(result, s32_le, 44100, told);
}

TEST(play_list, a_file_that_is_gone_ends_the_program)
{
    const auto result =
        play_changing_list([] { std::filesystem::remove(scratch_directory() + "/2.wav"); });
    EXPECT_EQ(result.status, 725 & 255);
    EXPECT_EQ(result.err, stream_line + report_text("sonivane", 725, "file 2.wav open error.\n"));
}

// --- What needs a large ring, or root -----------------------------------------------------------

TEST(play_reports, an_interrupt_while_the_ring_is_filled)
{
    scratch_file("long.wav", wave_file(random_pcm(1, false, 1, 44100, 40000000, 1)));
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
