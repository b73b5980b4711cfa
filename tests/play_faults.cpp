// Calls and devices that block must not block the player, and SIGINT must work in each stage of a
// run. The tests compare the last event, the report and what the device got.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>
#include <regex>

#include "play_model.h"

namespace
{

// --- Waits that must not block the player -------------------------------------------------------

// A SIGINT ends the wait for a busy device, and the filling of a large ring, with a report. A key
// ends that wait without a report, at both openings of the device. A device that keeps refusing the
// silence does not end the run by itself.
TEST(play_faults, nothing_blocks_the_player_before_it_plays)
{
    const play_event filling = {.out_has = "filling buffer", .signal = SIGINT};
    const play_event by_signal = {.err_has = "retrying", .signal = SIGINT};
    const play_event by_key = {.err_has = "retrying", .type = key_3};
    const struct {
        std::pair<const std::string, std::string> setting;
        play_event event;
        const char *end;
    } rows[] = {
        {{"BUSY", "all"}, by_signal, "report,sonivane,1045,21"},
        {{"BUSY", "2 3 4 5 6"}, by_signal, "report,sonivane,1045,21"},
        {{"BUSY", "2 3 4 5 6"}, by_key, "key,0"},
        {{"BUSY", "1"}, by_key, "key,0"},
        {{"BUSY", ""}, filling, "report,sonivane,1045,21"},
        {{"FAULT", "again 100"}, {.log_has = "fault ", .type = key_3}, "key,0"},
    };
    const auto file = scratch_wave("a.wav", 44100, 8000000);
    for (const auto &[setting, event, end] : rows) {
        SCOPED_TRACE(setting.second);
        const auto result = run_player(
            {.arguments = {"-B", "512M", file}, .capture = {setting}, .events = {event}});
        EXPECT_EQ(result.end, end);
        EXPECT_EQ(result.capture.size(), setting.first == "FAULT" ? 800U : 0U);
        EXPECT_EQ(result.err.ends_with(report_text("sonivane", 1045, "exit by interrupt\n")),
                  result.status != 0);
    }
}

// All files have been read, and then the device stands still: in the silence, in the sound, or with
// all of the sound in its queue. The player waits as long as the rest should last.
TEST(play_faults, a_device_that_stops_playing_does_not_block_the_end)
{
    const struct {
        int64_t allowed; // frames that the device plays
        size_t frames;   // of the file
        const char *end;
        play_event stop;
    } rows[] = {
        {100, 1000, "refused,0", {}},
        {100, 1000, "interrupt,0", {.log_has = "policy ", .signal = SIGINT}},
        {9500, 8000, "refused,0", {}},
        {9500, 8000, "interrupt,0", {.captured = 9500 * 8, .signal = SIGINT}},
        {8500, 1000, "played,0", {}},
        {8500, 1000, "interrupt,0", {.log_has = "runs on ", .signal = SIGINT}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.allowed) + row.end);
        const auto result = run_player({.arguments = {scratch_wave("a.wav", 8000, row.frames)},
                                        .capture = {{"CLOCK", "4"}, {"SPEED", "4"}},
                                        .events = {{.allow = row.allowed}, row.stop}});
        EXPECT_EQ(result.end, row.end);
        EXPECT_EQ(result.err, "Open 8000Hzfs PCM stream\n");
        EXPECT_FALSE(all_sounded(result));
    }
}

// Main blocks in a call that does not return, and no signal reaches it there. Each stop must still
// end the process, and after a SIGINT the content of the ring is played. The calls block before the
// sound, during it, or on a standard output that nobody reads.
TEST(play_faults, a_call_that_blocks_does_not_block_the_end)
{
    const auto file = scratch_wave("a.wav", 44100, 400000);
    const auto next = scratch_wave("b.wav", 44100, 400000);
    const auto small = scratch_wave("0.wav", 44100, 100);
    struct stalled_call {
        const char *name;
        std::vector<std::string> arguments;
        std::pair<const std::string, std::string> setting;
        play_event begin;
        bool plays;
    };
    const stalled_call calls[] = {
        {"open, probing", {file, next}, {"SWAP", next + " 1 stall"}, {.log_has = "stall"}, false},
        {"open, filling", {small, next}, {"SWAP", next + " 2 stall"}, {.log_has = "stall"}, false},
        {"open, playing", {file, next}, {"SWAP", next + " 2 stall"}, {.log_has = "write "}, true},
        {"read, filling", {file}, {"STALL", "500000"}, {.log_has = "stall"}, false},
        {"read, playing", {file}, {"STALL", "1500000"}, {.log_has = "write "}, true},
#ifndef __SANITIZE_THREAD__ // it flushes all streams when the process ends
        {"write", {file}, {"SPEED", "4"}, {.out_has = "00:01", .clogs = STDOUT_FILENO}, true},
#endif
    };
    for (const stalled_call &call : calls) {
        const play_event sends = {.after_ms = 300, .signal = SIGINT, .clogs = call.begin.clogs};
        const play_event again = {
            .after_ms = 80, .signal = SIGINT, .clogs = call.begin.clogs, .may_miss = !call.plays};
        const char *const first_ends = "report,sonivane,1045,21"; // the sound has not started yet
        const struct {
            std::vector<play_event> events;
            const char *end;
            const char *other_end = ""; // also accepted: the second SIGINT can come too late
        } stops[] = {
            {{{.after_ms = 300, .type = key_3, .clogs = call.begin.clogs}}, "key,0"},
            {{sends}, call.plays ? "interrupt,0" : first_ends},
            {{sends, again}, "report,sonivane,799,31", call.plays ? "" : first_ends},
            {{{.after_ms = 300, .signal = SIGTERM, .clogs = call.begin.clogs}}, "-15"},
        };
        for (const auto &stop : stops) {
            SCOPED_TRACE(std::string(call.name) + ": " + stop.end);
            play_settings settings = {
                .arguments = call.arguments, .capture = {{"SPEED", "4"}}, .events = {call.begin}};
            settings.capture.insert_or_assign(call.setting.first, call.setting.second);
            settings.events.insert(settings.events.end(), stop.events.begin(), stop.events.end());
            const auto result = run_player(settings);
            if (result.end != stop.other_end) {
                EXPECT_EQ(result.end, stop.end);
            }
            EXPECT_EQ(call.plays && all_sounded(result), result.end == "interrupt,0");
        }
    }
}

// Main blocks in a write to a full pipe. A key and a fatal report must still close the device.
TEST(play_faults, the_device_is_closed_while_standard_output_is_full)
{
    const play_event full = {.out_has = "0 1\n", .clogs = STDOUT_FILENO};
    const play_event key = {.after_ms = 1000, .type = key_3, .clogs = STDOUT_FILENO};
    const play_event closed = {.log_has = "\nclose 2 "};
    const struct {
        const char *fault;
        std::vector<play_event> events;
        const char *end;
    } rows[] = {
        {"none 0", {full, key, {.log_has = "stop\nclose 2 "}}, "key,0"},
        {"transfer 100000", {full, closed}, "report,alsathread,368,112"},
    };
    for (const auto &row : rows) {
        const auto result =
            run_player({.arguments = {"--silent", scratch_wave("a.wav", 8000, 200000)},
                        .capture = {{"SPEED", "4"}, {"FAULT", row.fault}},
                        .events = row.events});
        EXPECT_EQ(result.end, row.end);
        EXPECT_FALSE(all_sounded(result));
    }
}

// --- Going on -----------------------------------------------------------------------------------

const std::string stopped_line = "the sound stopped: waiting for the files\n";

int64_t times(const std::string &text, const std::string &part)
{
    int64_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
    return count;
}

// Checks that each break (an underrun or a suspend) was reported once, and that the device was
// prepared again after each of them, except after the last `unmended` breaks.
void expect_breaks(const play_result &result, int64_t least, int64_t unmended = 0)
{
    const auto prepared = std::ranges::count_if(result.log, [](const std::string &line) {
        return line.starts_with("prepare after ") && !line.starts_with("prepare after 0 ");
    });
    EXPECT_GE(prepared + unmended, least);
    EXPECT_EQ(times(result.err, stopped_line), prepared + unmended);
    EXPECT_EQ(times(result.event_lines, "\"rebuffering\""), prepared + unmended);
}

// Writes a DSF file that fills that many frames of DoP. Result: its path.
std::string scratch_dsd(const std::string &name, uint32_t seed, size_t frames, bytes &sound,
                        const stream_form &form)
{
    const auto dsd = random_dsd(frames * 2, seed, 512000);
    put_bytes(sound, device_bytes(dsd, form));
    return scratch_file(name, dsd_containers[0](dsd));
}

// The device stops in the silence, at its end and in the sound. It is started again and gets the
// next frame. The markers of DoP alternate, even if that frame is the second one of its group.
TEST(play_faults, the_sound_goes_on_after_the_device_stopped)
{
    const char *const all_faults = "xrun 1 suspended 16001 xrun 48001 suspended 96011 suspended "
                                   "140004 xrun 140005 xrun 175999 suspended 220000";
    for (const stream_form &form : stream_forms) {
        SCOPED_TRACE(form.name);
        const bool dsd = form.kind != packing::pcm;
        bytes sound;
        std::vector<std::string> arguments = {"--keep-going"};
        for (uint32_t i = 0; i < 3; ++i) {
            const std::string name = std::to_string(i) + (dsd ? ".dff" : ".wav");
            if (!dsd) put_bytes(sound, device_bytes(random_pcm(32000, 25001, i), form));
            arguments.push_back(dsd ? scratch_dsd(name, i, 50001, sound, form)
                                    : scratch_wave(name, 32000, 25001, i));
        }
        auto settings = settings_for(form, arguments);
        settings.capture["FAULT"] = all_faults;
        settings.capture["CAPS"] = "random 10000 1";
        const auto result = run_player(settings);
        expect_stream(result, form, dsd ? 512000 : 32000, sound);
        EXPECT_EQ(result.end, "played,0");
        expect_breaks(result, 6);
    }
}

// Reads block for a while, even at the last byte of the list, and the list still plays to its end.
// If nothing is left after such a read, the device is not started again.
TEST(play_faults, the_sound_goes_on_after_the_files_stalled)
{
    bytes sound;
    const auto first = scratch_dsd("0.dsf", 0, 100001, sound, dop_s32);
    const auto second = scratch_dsd("1.dsf", 1, 150000, sound, dop_s32);
    const auto empty = scratch_wave("2.wav", 44100, 0);
    // Both files are read to their end, the last 8192 bytes in one read. Headers count twice,
    // because the probe has read them before.
    const auto whole = std::filesystem::file_size(first) + std::filesystem::file_size(second);
    const std::string last = std::to_string(whole - 3000), never = " 1000000000";
    const struct {
        std::pair<const std::string, std::string> setting;
        std::string prime;
        int64_t breaks, unmended;
        const char *last;
    } rows[] = {
        {{"STALL", "150000 350000" + never}, "--prime=100K", 2, 0, "0,underrun,0"},
        {{"STALL", "900000" + never}, "--prime=64M", 1, 0, "1,underrun,0"},
        {{"STALL", last + never}, "--prime=0", 1, 0, "1,underrun,0"},
        {{"SWAP", empty + " 2 dry"}, "--prime=100K", 1, 1, "1,underrun,0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.setting.second);
        auto settings = settings_for(dop_s32, {"--keep-going", row.prime, first, second, empty});
        settings.capture["DRY_MS"] = "500";
        settings.capture.insert(row.setting);
        const auto result = run_player(settings);
        expect_stream(result, dop_s32, 512000, sound);
        EXPECT_EQ(result.end, "played,0");
        EXPECT_EQ(event_values(result, "rebuffering"), row.last);
        const bool filled = std::regex_search(result.out, std::regex("buffer 8\\d\\[%\\]   fill"));
        EXPECT_EQ(filled, row.prime == "--prime=64M");
        expect_breaks(result, row.breaks, row.unmended);
    }
}

// The machine was suspended. The event has the length of the sound that the device held and
// dropped. The position after that is the time of the frame that is heard. Main has to fill the
// ring although less than a quarter of it is free.
TEST(play_faults, what_a_suspend_drops_is_in_the_event)
{
    constexpr int64_t fault_at = 90000, stands_at = 120000; // frames
    const auto sound = random_pcm(44100, 400000);
    const auto result =
        run_player({.arguments = {"--keep-going", scratch_wave("a.wav", 44100, 400000)},
                    .capture = {{"FAULT", "suspended " + std::to_string(fault_at)}},
                    .events = {{.out_has = "playing", .allow = fault_at - 10000},
                               {.err_has = stopped_line, .allow = stands_at},
                               {.after_ms = 2500, .type = key_3}}});
    expect_stream(result, s32_le, 44100, device_bytes(sound, s32_le), false);
    expect_breaks(result, 1);
    int64_t silence = 0;
    long dropped = 0;
    for (size_t at = 0; at < stands_at * 8; at += 8)
        silence += result.capture[at + 3] == 0 && result.capture[at + 2] == 0 &&
                   result.capture[at + 7] == 0;
    for (const std::string &line : result.log)
        std::sscanf(line.c_str(), "prepare after 90000 dropped %ld", &dropped);
    double lost = 0, heard = 0;
    std::sscanf(event_values(result, "rebuffering").c_str(), "0,suspended,%lf", &lost);
    std::sscanf(event_values(result, "position").c_str(), "0,%lf", &heard);
    EXPECT_GT(dropped, 0);
    EXPECT_NEAR(lost * 44100, static_cast<double>(dropped), 0.1);
    EXPECT_NEAR(heard * 44100, static_cast<double>(stands_at - silence), 0.1);
}

// After a SIGINT main waits until a deadline, which each underrun or suspend puts off.
TEST(play_faults, breaks_put_off_the_end)
{
    const auto result = run_player(
        {.arguments = {"--keep-going", scratch_wave("a.wav", 8000, 8000)},
         .capture = {{"SPEED", "1"}, {"FAULT", "suspended 15000 suspended 24000 xrun 33000"}},
         .events = {{.out_has = "playing file", .signal = SIGINT}}});
    EXPECT_EQ(result.end, "interrupt,0");
    expect_stream(result, s32_le, 8000, device_bytes(random_pcm(8000, 8000), s32_le));
    expect_breaks(result, 3);
}

// A key, a SIGINT and a lost device also end the sound while it waits after an underrun or a
// suspend. After a SIGINT everything that was read is played.
TEST(play_faults, a_break_does_not_block_the_end)
{
    const struct {
        std::pair<const std::string, std::string> setting;
        play_event event;
        const char *end;
        int64_t unmended;
    } rows[] = {
        {{"STALL", "300000"},
         {.err_has = stopped_line, .after_ms = 1500, .type = key_3},
         "key,0",
         1},
        {{"STALL", "300000"}, {.err_has = stopped_line, .signal = SIGINT}, "interrupt,0", 1},
        {{"STALL", "300000 350000"}, {.log_has = "stall", .signal = SIGINT}, "interrupt,0", 0},
        {{"FAULT", "away 60001"}, {.err_has = stopped_line, .type = key_3}, "key,0", 1},
        {{"FAULT", "away 60001"}, {.log_has = "fault"}, "disconnected,0", 1},
        {{"FAULT", "gone 60001"}, {.log_has = "fault"}, "disconnected,0", 1},
    };
    const auto sound = device_bytes(random_pcm(44100, 400000), s32_le);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.setting.second + ": " + row.end);
        const auto result = run_player(
            {.arguments = {"--keep-going", "--prime=100K", scratch_wave("a.wav", 44100, 400000)},
             .capture = {row.setting, {"DRY_MS", "10000"}, {"CLOCK", "20"}},
             .events = {row.event}});
        EXPECT_EQ(result.end, row.end);
        expect_stream(result, s32_le, 44100, sound, false);
        expect_breaks(result, 1, row.unmended);
        EXPECT_LT(result.busy_seconds, 0.6); // no thread spins in the break
        EXPECT_EQ(all_sounded(result), row.setting.first == "STALL");
    }
}

// --- SIGINT in every stage ----------------------------------------------------------------------

struct stage_row {
    const char *name;
    play_event begin;
    unsigned latest_ms; // milliseconds; longest time from the event begin to the SIGINT
    bool before_play;   // the SIGINT may end the run before the output thread exists
    size_t frames;      // of the file
    const char *ring;
    const char *speed;
};

const std::vector<stage_row> stages = {
    {"probing", {.err_has = "Skip"}, 3, true, 8000, "1536K", "100"},
    {"priming", {.out_has = "filling buffer"}, 20, true, 2000000, "16M", "400"},
    {"silence", {.log_has = "write "}, 20, false, 400000, "1536K", "40"},
    {"playing", {.captured = 160000}, 40, false, 400000, "1536K", "200"},
    {"draining", {.out_has = "playing file"}, 20, false, 40000, "1536K", "200"},
    {"joining", {.out_has = std::string(72, ' ') + "\n"}, 2, false, 8000, "1536K", "100"},
};

// Sends one or two SIGINTs at random moments. SONIVANE_SOAK is the number of runs.
void interrupt_in(const stage_row &stage)
{
    SCOPED_TRACE(stage.name);
    scratch_wave("list/a.wav", 8000, stage.frames);
    for (int i = 0; i < 100; ++i) scratch_file("list/" + std::to_string(i) + ".txt", noise(1, 100));
    const bytes expected = device_bytes(random_pcm(8000, stage.frames), s32_le);
    std::mt19937 random(1);
    for (int run = 0; run < soak_size(6); ++run) {
        const bool twice = run % 2 != 0;
        std::vector<play_event> events = {stage.begin};
        for (int i = 0; i < (twice ? 2 : 1); ++i) {
            const auto after = static_cast<int>(random() % (stage.latest_ms + 1));
            events.push_back({.after_ms = after, .signal = SIGINT, .may_miss = true});
        }
        const auto result = run_player({.arguments = {"-B", stage.ring, "list"},
                                        .capture = {{"SPEED", stage.speed}},
                                        .events = events,
                                        .input = wire::terminal,
                                        .output = wire::terminal});
        const bool early = result.status == (1045 & 255) && stage.before_play;
        const bool hard = result.status == (799 & 255) && twice;
        expect_stream(result, s32_le, 8000, expected, false);
        EXPECT_TRUE(result.status == 0 || early || hard) << result.status << result.err;
        // The second SIGINT may come while the process is already ending because of the first.
        EXPECT_TRUE(!early || result.err.find("exit by interrupt\n") != std::string::npos);
        EXPECT_TRUE(!hard || result.err.find("Interrupt stack. Abort\n") != std::string::npos);
    }
}

TEST(play_faults, interrupts_end_in_order_or_with_their_report)
{
    for (const stage_row &stage : stages) interrupt_in(stage);
}

} // namespace
