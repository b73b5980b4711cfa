// What each fault of the device leads to in each phase of a run, and a SIGINT in each stage: the
// status, the report, the terminal, what the device got, and an end at all.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>

#include "play_model.h"

namespace
{

const std::string stream_line = "Open 44100Hzfs PCM stream\n";
const std::string key_3 = "\x03";

std::string thread_report(int number, const std::string &message)
{
    return report_text("alsathread", number, message);
}

// --- The matrix ---------------------------------------------------------------------------------

struct ending {
    int status;
    std::string err;
};

ending lost_early(int state)
{
    return {404 & 255, thread_report(404, "snd_pcm_state() returned " + std::to_string(state) +
                                              ". " + strerror(state) + "\n")};
}

ending write_failed(int code)
{
    return {368 & 255,
            thread_report(368, "snd_pcm_writei() returned code " + std::to_string(code) + "\n")};
}

const ending in_order = {0, ""};
const ending no_room = {0, thread_report(312, "snd_pcm_avail() returned -5\n")};

struct fault_row {
    const char *kind;
    ending early; // in the silence
    ending late;  // in the sound
};

const std::vector<fault_row> fault_rows = {
    {"setup", lost_early(1), write_failed(-77)},
    {"xrun", lost_early(4), in_order},
    {"pointer", lost_early(4), in_order},
    {"avail", no_room, no_room},
    {"draining", lost_early(5), in_order}, // for good
    {"suspended", lost_early(7), in_order},
    {"disconnected", lost_early(8), in_order},
    {"transfer", in_order, write_failed(-5)},
    {"again", in_order, write_failed(-11)}, // early the device refuses until the key comes
};

struct phase_row {
    const char *name;
    size_t file_frames;
    size_t strikes_after; // frames
};
constexpr phase_row phases[] = {
    {"silence", 30000, 100},
    {"playing", 250000, 60000}, // longer than the ring: there is more to read
    {"draining", 30000, 60000}, // all is in the ring
};

class play_fault : public testing::TestWithParam<std::tuple<fault_row, phase_row>>
{
};

TEST_P(play_fault, ends_as_told)
{
    const auto &[fault, phase] = GetParam();
    const bool early = phase.strikes_after == 100;
    const bool waits = early && fault.kind == std::string("again");
    const auto sound = random_pcm({2, false}, 2, 44100, phase.file_frames, 1);
    const auto result = run_player(
        {.arguments = {"-B", "1536K", scratch_file("a.wav", wave_file(sound))},
         .capture = {{"FAULT", fault.kind + (" " + std::to_string(phase.strikes_after))}},
         .events = {{.log_has = "fault ", .type = waits ? key_3 : "", .may_miss = true}},
         .input = wire::terminal,
         .stand_ins = true,
         .terminal_mode = ISIG,
         .timeout_seconds = 20});
    const ending &told = early ? fault.early : fault.late;
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, told.status);
    EXPECT_EQ(result.err, stream_line + told.err);
    EXPECT_EQ(result.capture.size(), phase.strikes_after * 8);
    EXPECT_TRUE(same_mode(result.before, result.after));
    // An end in order closes the device.
    EXPECT_EQ(log_has(result, "close " + std::to_string(phase.strikes_after) + " "),
              told.status == 0);
}
std::string name_of(const testing::TestParamInfo<play_fault::ParamType> &info)
{
    const auto &[fault, phase] = info.param;
    return std::string(fault.kind) + "_" + phase.name;
}
INSTANTIATE_TEST_SUITE_P(all, play_fault,
                         testing::Combine(testing::ValuesIn(fault_rows), testing::ValuesIn(phases)),
                         name_of);

// --- Waits that must not hold the player --------------------------------------------------------

// Waiting for a device that another program has ends with a SIGINT, by a report; a key ends it in
// order at the second opening, and right behind the first one.
TEST(play_faults, a_busy_device_does_not_hold_the_player)
{
    const auto sound = random_pcm({2, false}, 2, 44100, 250000, 1);
    const std::string file = scratch_file("a.wav", wave_file(sound));
    struct row {
        const char *busy; // openings
        bool by_key;
        int status;
    };
    for (const auto &[busy, by_key, status] : std::initializer_list<row>{
             {"all", false, 1045 & 255},
             {"2 3 4 5 6", false, 1045 & 255},
             {"2 3 4 5 6", true, 0},
             {"1", true, 0},
         }) {
        play_event end = {.err_has = "retrying"};
        if (by_key)
            end.type = key_3;
        else
            end.signal = SIGINT;
        const auto result = run_player({.arguments = {file},
                                        .capture = {{"BUSY", busy}},
                                        .events = {end},
                                        .input = wire::pipe,
                                        .timeout_seconds = 8});
        EXPECT_EQ(result.trouble, "") << busy;
        EXPECT_EQ(result.status, status) << busy;
        EXPECT_TRUE(result.capture.empty());
        EXPECT_EQ(result.err.ends_with(report_text("sonivane", 1045, "exit by interrupt\n")),
                  !by_key);
    }
}

// A device that plays nothing: the ring is full, and there is more to read.
TEST(play_faults, a_key_ends_a_run_whose_ring_is_full)
{
    const auto sound = random_pcm({2, false}, 2, 44100, 250000, 1);
    const auto result =
        run_player({.arguments = {"-B", "1536K", scratch_file("a.wav", wave_file(sound))},
                    .events = {{.out_has = "position 00:00"}, {.after_ms = 200, .type = key_3}},
                    .input = wire::pipe,
                    .gated = true,
                    .timeout_seconds = 20});
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, 0);
}

// A device that stands still with the end of the list in its queue: the player does not wait for it
// longer than that could last.
TEST(play_faults, a_device_that_stands_still_does_not_hold_the_end)
{
    const auto sound = random_pcm({2, false}, 2, 8000, 1000, 1);
    const auto result = run_player({.arguments = {scratch_file("a.wav", wave_file(sound))},
                                    .events = {{.allow = 9500}},
                                    .gated = true,
                                    .timeout_seconds = 20});
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.capture.size(), (3 * 3998 + 1000) * 8U);
    EXPECT_FALSE(all_sounded(result));
}

// Main stands in a write to a pipe that nobody reads: the key still closes the device.
TEST(play_faults, a_key_closes_the_device_while_standard_output_is_full)
{
    const auto sound = random_pcm({2, false}, 2, 8000, 200000, 1);
    const auto result =
        run_player({.arguments = {"--silent", scratch_file("a.wav", wave_file(sound))},
                    .capture = {{"SPEED", "4"}},
                    .events = {{.out_has = "0 1\n", .clogs = true},
                               {.after_ms = 1000, .type = key_3, .clogs = true},
                               {.log_has = "stop\nclose "}},
                    .input = wire::pipe,
                    .timeout_seconds = 30});
    EXPECT_EQ(result.trouble, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(all_sounded(result));
}

// --- Buffers that are too small -----------------------------------------------------------------

TEST(play_faults, a_buffer_must_hold_more_than_1025_frames)
{
    const auto sound = random_pcm({2, false}, 2, 8000, 10000, 1);
    const auto file = scratch_file("a.wav", wave_file(sound));
    const auto small = run_player(
        {.arguments = {file}, .capture = {{"BUFFER_BYTES", "8200-8200"}}, .timeout_seconds = 20});
    EXPECT_EQ(small.trouble, "");
    EXPECT_EQ(small.status, 0);
    EXPECT_EQ(small.err, "Open 8000Hzfs PCM stream\n" +
                             thread_report(576, "a device buffer of 1025 frames is too small to "
                                                "play.\n"));
    EXPECT_EQ(small.capture.size(), 0U);
    const auto enough =
        run_player({.arguments = {file}, .capture = {{"BUFFER_BYTES", "8216-8216"}}});
    EXPECT_EQ(stream_trouble(enough, {s32_le, packing::pcm}, 8000, device_bytes(sound, s32_le)),
              "");
}

// --- SIGINT in every stage ----------------------------------------------------------------------

struct stage_row {
    const char *name;
    play_event begin;
    unsigned latest_ms; // of the interrupt behind the begin
    bool before_play;   // the interrupt may end the run before a thread plays
    size_t frames;      // of the file
    const char *ring;
    const char *speed;
};

const std::vector<stage_row> stages = {
    {"probing", {.err_has = "Skip"}, 3, true, 8000, "1536K", "100"},
    {"priming", {.out_has = "filling buffer"}, 20, true, 2000000, "16M", "400"},
    {"silence", {.log_has = "write "}, 20, false, 400000, "1536K", "40"},
    {"playing", {.out_has = "position 00:01"}, 40, false, 400000, "1536K", "200"},
    {"draining", {.out_has = "playing file"}, 20, false, 40000, "1536K", "200"},
    {"joining", {.out_has = std::string(72, ' ') + "\n"}, 2, false, 8000, "1536K", "100"},
};

void PrintTo(const stage_row &row, std::ostream *out)
{
    *out << row.name;
}

class play_interrupt : public testing::TestWithParam<stage_row>
{
};

// One or two at random moments. SONIVANE_SOAK is the number of runs.
TEST_P(play_interrupt, ends_in_order_or_as_told)
{
    const stage_row &stage = GetParam();
    constexpr int rate = 8000;
    const auto sound = random_pcm({2, false}, 2, rate, stage.frames, 1);
    const bytes told = device_bytes(sound, s32_le);
    std::filesystem::create_directory(scratch_directory() + "/list");
    scratch_file("list/a.wav", wave_file(sound));
    for (int i = 0; i < 100; ++i) scratch_file("list/" + std::to_string(i) + ".txt", noise(1, 100));
    std::mt19937 random(1);
    for (int run = 0; run < soak_size(6); ++run) {
        const bool twice = run % 2 != 0;
        const auto after = [&] { return static_cast<int>(random() % (stage.latest_ms + 1)); };
        std::vector<play_event> events = {stage.begin};
        events.push_back({.after_ms = after(), .signal = SIGINT, .may_miss = true});
        if (twice) events.push_back({.after_ms = after(), .signal = SIGINT, .may_miss = true});
        const auto result = run_player({.arguments = {"-B", stage.ring, "list"},
                                        .capture = {{"SPEED", stage.speed}},
                                        .events = events,
                                        .input = wire::terminal,
                                        .output = wire::terminal});
        const bool early = result.status == (1045 & 255) && stage.before_play;
        const bool hard = result.status == (799 & 255) && twice;
        EXPECT_EQ(stream_trouble(result, {s32_le, packing::pcm}, rate, told, extent::broken_off),
                  "");
        EXPECT_TRUE(result.status == 0 || early || hard) << result.status << result.err;
        // The second one may come on the way out that the first one opened.
        EXPECT_TRUE(!early || result.err.find("exit by interrupt\n") != std::string::npos);
        EXPECT_TRUE(!hard || result.err.find("Interrupt stack. Abort\n") != std::string::npos);
        EXPECT_TRUE(same_mode(result.before, result.after));
    }
}
INSTANTIATE_TEST_SUITE_P(all, play_interrupt, testing::ValuesIn(stages),
                         testing::PrintToStringParamName());

} // namespace
