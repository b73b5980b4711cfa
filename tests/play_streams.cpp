// Streams through the whole player: lists of files of every kind, each of which must play as one
// stream without a gap. The lists are played in every form of the stream, with various transfer
// sizes of the device, and with the end of the ring at various places. Also lists whose files
// change while they play, oversampling, and the controller.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <random>

#include "play_model.h"
#include "scalar_filter.h"

namespace
{

// --- Lists --------------------------------------------------------------------------------------

struct list_row {
    const char *name;
    const char *caps; // frames that successive transfers take
    const char *ring;
    const char *speed;  // at 50 times real time the ring stays full
    const char *buffer; // bytes; at the speed of the row it lasts longer than the player's pauses
    size_t files;
    size_t most_frames;
};
const list_row list_rows[] = {
    {"single_frames", "1", "1536K", "once", "", 5, 2000},
    {"smallest_ring", "7", "1", "once", "", 5, 5000},
    {"steps", "1 13 2000", "64M", "once", "", 40, 1000},
    {"random_steps", "random 300 1", "2M", "once", "", 40, 3000},
    {"long_files", "", "1572865", "once", "", 5, 300000},
    {"full_ring", "", "1600003", "50", "96000-96000", 5, 150000},
    {"many_files", "random 1000 1", "1536K", "50", "96000-96000", 0, 1000},
};

using play_list = testing::TestWithParam<size_t>;

TEST_P(play_list, is_complete_in_every_form)
{
    const list_row &row = list_rows[GetParam()];
    for (size_t i = 0; i < stream_forms.size(); ++i) {
        const stream_form &form = stream_forms[i];
        const size_t turn = GetParam() + i; // so that each form is combined with each cut
        const cuts cut = {turn % 2 != 0, turn / 2 % 2 != 0};
        const size_t files = row.files != 0 ? row.files : static_cast<size_t>(soak_size(300));
        const auto list = make_mixed_list(form, files, row.most_frames, cut);
        auto settings = settings_for(form, {"-B", row.ring, list.directory});
        if (cut.left) settings.arguments.insert(settings.arguments.begin(), "--left-cut");
        if (cut.right) settings.arguments.insert(settings.arguments.begin(), "--right-cut");
        settings.capture.insert(
            {{"CAPS", row.caps}, {"SPEED", row.speed}, {"BUFFER_BYTES", row.buffer}});
        // On a busy machine, a device that takes one frame in each write is slower than the sound.
        // The player's clock is slower, too, so that its time limits do not end the run.
        if (row.speed == std::string("once")) settings.capture["CLOCK"] = "0.1";
        SCOPED_TRACE(testing::PrintToString(settings.arguments));
        expect_stream(run_player(settings), form, list.rate, list.sound, true, list.parts);
    }
}
INSTANTIATE_TEST_SUITE_P(all, play_list, testing::Range(size_t{0}, std::size(list_rows)),
                         [](const auto &row) { return std::string(list_rows[row.param].name); });

// The part of a result that belongs to one opening of the device: its log from that open to its
// close, and what the device got. *captured is the offset in the capture at which that part begins;
// the call sets it to the end of the part.
play_result opening(const play_result &result, int number, size_t frame_bytes, size_t *captured)
{
    play_result part = result;
    const auto starts = [](const std::string &head) {
        return [head](const std::string &line) { return line.starts_with(head); };
    };
    const auto begin = std::ranges::find_if(result.log, starts("open " + std::to_string(number)));
    const auto end = std::find_if(begin, result.log.end(), starts("close "));
    part.log.assign(begin, end == result.log.end() ? end : std::next(end));
    size_t frames = 0;
    if (!part.log.empty()) std::sscanf(part.log.back().c_str(), "close %*d took %zu", &frames);
    const auto from = result.capture.begin() + static_cast<ptrdiff_t>(*captured);
    *captured = std::min(*captured + frames * frame_bytes, result.capture.size());
    part.capture.assign(from, result.capture.begin() + static_cast<ptrdiff_t>(*captured));
    return part;
}

// A list of several forms plays as several streams, and each stream opens the device anew. A few
// descriptors are enough for any number of streams.
TEST(play_streams, of_other_forms_reopen_the_device)
{
    constexpr int streams = 12;
    for (const bool takes_dsd : {false, true}) {
        const std::string directory = takes_dsd ? "native" : "dop";
        std::mt19937 random(1);
        struct stream {
            const stream_form &form;
            int rate;
            bytes sound = {};
        };
        std::vector<stream> expected;
        int files = 0;
        for (int i = 0; i < streams; ++i) {
            const bool dsd = random() % 2 == 0;
            const int rate = (dsd ? 256000 : 8000) << i % 2; // not that of the stream before
            expected.push_back({dsd ? takes_dsd ? native : dop_s32 : s32_le, rate});
            for (auto left = 1 + random() % 3; left > 0; --left, ++files) {
                const auto seed = static_cast<uint32_t>(files);
                const size_t length = random() % 4 * 800;
                const auto bits = random_dsd(length + 4, seed, static_cast<uint32_t>(rate));
                const auto words = random_pcm(rate, length + 1, seed);
                scratch_file(directory + "/" + std::to_string(1000 + files),
                             dsd ? dsd_containers[random() % 3](bits) : wave_file(words));
                put_bytes(expected.back().sound, dsd ? device_bytes(bits, expected.back().form)
                                                     : device_bytes(words, s32_le));
            }
        }
        const auto result =
            run_player({.arguments = {"--reopen", directory},
                        .capture = {{"FORMATS", takes_dsd ? "S32_LE DSD_U32_BE" : "S32_LE"}},
                        .launcher = {"prlimit", "--nofile=20"}});
        EXPECT_EQ(result.end, "played,0") << result.err;
        EXPECT_NE(result.out.find("playing file " + std::to_string(files) + "/" +
                                  std::to_string(files) + " "),
                  std::string::npos);
        EXPECT_EQ(result.event_lines.find("\"other_rate\":true"), std::string::npos);
        size_t captured = 0;
        for (int i = 0; i < streams; ++i) {
            SCOPED_TRACE(directory + " " + std::to_string(i));
            const stream &each = expected[static_cast<size_t>(i)];
            const auto part = opening(result, 2 * i + 2, 2 * each.form.bytes, &captured);
            expect_stream(part, each.form, each.rate, each.sound);
        }
        EXPECT_EQ(captured, result.capture.size());
    }
}

// One SIGINT or one key ends the whole list, even while the next stream waits for its device.
TEST(play_streams, end_together_if_stopped_between_two)
{
    const auto first = scratch_wave("a.wav", 8000, 100);
    const auto second = scratch_wave("b.wav", 16000, 100);
    const auto third = scratch_wave("c.wav", 16000, 100);
    const play_event by_key = {.err_has = "retrying", .type = key_3};
    const play_event by_signal = {.err_has = "retrying", .signal = SIGINT};
    const play_event opened = {.log_has = "open 2"};
    const struct {
        std::pair<const std::string, std::string> setting;
        play_event event;
        const char *end;
    } rows[] = {
        {{"BUSY", "3 4 5 6 7"}, by_key, "key,0"}, // the probe fails
        {{"BUSY", "3 4 5 6 7"}, by_signal, "interrupt,0"},
        {{"BUSY", "4 5 6 7 8"}, by_key, "key,0"}, // the probe succeeds, the second opening fails
        {{"BUSY", "4 5 6 7 8"}, by_signal, "interrupt,0"},
        {{"SWAP", second + " 2 interrupt."}, opened, "interrupt,213"}, // the file is gone
    };
    for (const auto &row : rows) {
        const auto result = run_player({.arguments = {"--reopen", first, second, third},
                                        .capture = {row.setting},
                                        .events = {row.event}});
        EXPECT_EQ(result.end, row.end) << row.setting.second;
        EXPECT_EQ(log_has(result, "open 3"), row.setting.first == "BUSY");
        size_t captured = 0;
        auto part = opening(result, 2, 8, &captured);
        part.status = 0; // result.end was compared above
        expect_stream(part, s32_le, 8000, device_bytes(random_pcm(8000, 100), s32_le));
        EXPECT_EQ(captured, result.capture.size());
    }
}

// A file is played twice with --start: the first time from that time on, the second time from its
// beginning. The times are inside the file, at its end, and after it.
TEST(play_streams, begin_at_the_start_time)
{
    std::mt19937 random(1);
    for (size_t i = 0; i < stream_forms.size() * 3; ++i) {
        const stream_form &form = stream_forms[i / 3];
        const bool dsd = form.kind != packing::pcm;
        const uint32_t rate = dsd ? 256000 : 8000;
        const size_t length = 3000 + random() % 20; // frames, or groups of 4 bytes of a channel
        dsd_sound bits = random_dsd(4 * length + 3, 1, rate);
        pcm_sound pcm = random_pcm(8000, length, 1, samples[i % samples.size()], 1 + i % 3);
        const bytes file = dsd ? dsd_containers[i % 3](bits) : wave_file(pcm, wave_kind(i % 3));
        const bytes whole = dsd ? device_bytes(bits, form) : device_bytes(pcm, form);
        const size_t end = dsd ? bits.left.size() * 31250 : length * 125000; // nanoseconds
        for (const size_t time : {random() % end, end - random() % 2, end + random() % end}) {
            std::array<char, 40> start;
            std::snprintf(start.data(), start.size(), "--start=0.%09zu", time);
            const size_t passed = time / 125000 * (whole.size() / length);
            bytes sound;
            if (time < end) sound = {whole.begin() + static_cast<long>(passed), whole.end()};
            put_bytes(sound, whole);
            SCOPED_TRACE(std::string(form.name) + start.data());
            const auto path = scratch_file("start", file);
            const auto result = run_player(settings_for(form, {start.data(), path, path}));
            expect_stream(result, form, rate, sound);
        }
    }
}

// The names of a list keep their order. Names from a pipe are relative to the current directory.
TEST(play_streams, of_a_list_file_keep_its_order)
{
    for (const auto &[name, frames] : {std::pair("1.wav", 500), {"2.wav", 700}})
        scratch_wave(std::string("named/") + name, 8000, static_cast<size_t>(frames));
    scratch_file("named/list.m3u", text("#EXTM3U\r\n2.wav\r\n1.wav\n2.wav"));
    bytes sound;
    for (const size_t frames : {size_t{700}, size_t{500}, size_t{700}})
        put_bytes(sound, device_bytes(random_pcm(8000, frames), s32_le));
    const char *const through_pipe =
        "exec \"$0\" \"$@\" 4< <(printf 'named/2.wav\\nnamed/1.wav\\n'; sleep 0.2; "
        "printf 'named/2.wav')";
    for (const char *list : {"--list=named/list.m3u", "--list=/dev/fd/4"})
        expect_stream(run_player({.arguments = {list}, .launcher = {"bash", "-c", through_pipe}}),
                      s32_le, 8000, sound);
}

// The first file is longer than the ring, so the second file is opened only while the device plays.
// Before that it is replaced by noise, cut short or removed.
TEST(play_streams, a_file_that_changed_is_passed_over)
{
    const bytes pcm = wave_file(random_pcm(44100, 10000));
    const auto dsd = random_dsd(20000, 3, 2822400);
    const std::string path = scratch_file("2", pcm);
    const auto change = [] { scratch_file("2", noise(1, 100)); };
    const auto remove = [&] { std::filesystem::remove(path); };
    const auto cut = [&] { std::filesystem::resize_file(path, 10000); };
    const struct {
        bytes content;
        std::function<void()> happens;
        std::string end;
        std::string err = "";
    } rows[] = {
        {pcm, change, "played,0", "\nfile format of 2 unknown. Skip\n"},
        {pcm, remove, "read error,213", report_text("sonivane", 725, "file 2 open error.\n")},
        {pcm, cut, "read error,0"},
        {dsd_containers[0](dsd), cut, "read error,0"},
        {dsd_containers[1](dsd), cut, "read error,0"},
        {dsd_containers[2](dsd), cut, "read error,0"},
    };
    scratch_wave("1.wav", 44100, 400000);
    bytes incomplete = wave_file(random_pcm(44100, 1000)); // cut before the player sees it
    incomplete.resize(44 + 489 * 4);
    scratch_file("3.wav", incomplete);
    for (const auto &[content, happens, end, err] : rows) {
        scratch_file("2", content);
        auto result = run_player(
            {.arguments = {"1.wav", "2", "3.wav"},
             .events = {{.out_has = "playing file 1/3", .allow = 100000000, .call = happens}}});
        EXPECT_EQ(result.end, end);
        EXPECT_TRUE(result.err.ends_with(err)) << result.err;
        EXPECT_EQ(event_values(result, "read error"), end == "played,0" ? "" : "1");
        bytes sound = device_bytes(random_pcm(44100, 400000), s32_le);
        put_bytes(sound, device_bytes(random_pcm(44100, 489), s32_le));
        result.status = 0; // checked above for all rows
        if (end != "read error,0") expect_stream(result, s32_le, 44100, sound);
    }
}

// With oversampling the device gets exactly what the plain loops of the filter compute, for a list
// of several rates with the first rate. Floats are passed on unchanged, even beyond full scale.
TEST(play_streams, oversampled_are_what_the_plain_filter_gives)
{
    const struct {
        std::vector<int> rates;
        stream_form form;
    } cases[] = {{{44100}, s32_le},
                 {{48000}, s24_3le},
                 {{96000}, float_le},
                 {{44100, 48000, 44100}, float_le}};
    for (const auto &[rates, form] : cases)
        for (const bool use_short : {false, true}) {
            std::vector<std::string> arguments = {use_short ? "--short-filter" : "-os", "-os"};
            bytes words; // left-justified
            for (size_t i = 0; i < rates.size(); ++i) {
                const auto sound = random_pcm(rates[i], 5003, 1, samples[4 - i]);
                arguments.push_back(scratch_file(std::to_string(i) + ".wav", wave_file(sound)));
                put_bytes(words, device_bytes(sound, s32_le));
            }
            scalar_filter filter = use_short ? make_scalar_filter(set_44k_short, set_48k_short)
                                             : make_scalar_filter(set_44k_normal, set_48k_normal);
            const bytes input = device_bytes({{4, false}, 2, rates[0], words}, float_le);
            std::vector<float> output;
            for (size_t at = 0; at < input.size(); at += 8) {
                std::array<float, 2> frame;
                std::memcpy(frame.data(), &input[at], sizeof frame);
                scalar_filter_run(filter, rates[0], frame, output);
            }
            const auto *raw = reinterpret_cast<const uint8_t *>(output.data());
            const pcm_sound floats = {{4, true}, 2, 352800, {raw, raw + output.size() * 4}};
            auto settings = settings_for(form, arguments);
            settings.capture["CAPS"] = "random 5000 1";
            SCOPED_TRACE(std::to_string(rates[0]) + " Hz, " + arguments[0]);
            expect_stream(run_player(settings), form, 352800, device_bytes(floats, form));
        }
}

// --- The controller -----------------------------------------------------------------------------

std::atomic<int> signals;
std::atomic<int32_t> state_at_signal;

// This process is the controller.
void on_news(int)
{
    ++signals;
    state_at_signal = shared_block()->state;
}

TEST(play_streams, a_controller_gets_a_signal_for_changes_only)
{
    const auto dsd = scratch_file("b.dff", dsd_containers[1](random_dsd(400, 1, 2822400)));
    const auto wav = scratch_wave("a.wav", 44100, 100);
    const struct {
        const char *formats;
        std::string file;
        const char *device;
        const char *card;
        int32_t pid;
        int32_t state;       // of the controller's memory before the run
        int32_t state_after; // of the shared block after the run
        const char *banner;
    } rows[] = {
        {"S32_LE", dsd, "hw:1,0", "rpi", getpid(), 0, -1, "2.8fMHzfs I2S"},
        {"S32_LE", dsd, "hw:1,0", "snd_rpi_x", getpid(), -1, -1, "2.8fMHzfs I2S"},
        {"S32_LE", wav, "hw:1,0", "rpi", getpid(), -1, 0, "44100Hzfs PCM"},
        {"S32_LE", wav, "hw:1,0", "rpi", getpid(), 0, 0, "44100Hzfs PCM"},
        {"S32_LE", dsd, "hw:1,0", "RPI", getpid(), 7, 0, "2.8fMHzfs DoP"},
        {"S32_LE", dsd, "hw:1,0", "", getpid(), -1, 0, "2.8fMHzfs DoP"},
        {"S32_LE", dsd, "capture", "rpi", getpid(), -1, 0, "2.8fMHzfs DoP"},
        {"S32_LE DSD_U32_BE", dsd, "hw:1,0", "rpi", getpid(), -1, 0, "2.8fMHzfs native"},
        // No signal may go to the processes 0 (the player's own group) and 1 (init).
        {"S32_LE", dsd, "hw:1,0", "rpi", 0, 0, -1, "2.8fMHzfs I2S"},
        {"S32_LE", dsd, "hw:1,0", "rpi", 1, 0, -1, "2.8fMHzfs I2S"},
        {"S24_LE S24_3LE", dsd, "hw:1,0", "rpi", getpid(), 0, 0, nullptr}, // I2S needs S32_LE
    };
    std::signal(SIGINT, on_news);
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.formats) + " of " + row.device + " of " + row.card);
        signals = 0;
        shared_block()->pid = row.pid;
        shared_block()->state = row.state;
        auto settings =
            beside_controller({.arguments = {row.file}, .capture = {{"FORMATS", row.formats}}});
        settings.device_name = row.device;
        settings.capture["CARD_NAME"] = row.card;
        const auto result = run_player(settings);
        EXPECT_EQ(result.end, row.banner != nullptr ? "played,0" : "report,alsathread,514,2");
        EXPECT_EQ(result.err, row.banner != nullptr
                                  ? std::string("Open ") + row.banner + " stream\n"
                                  : report_text("alsathread", 514,
                                                "sound_hwparams() failed. Invalid argument\n"));
        EXPECT_TRUE(log_has(result, "ftok /tmp/sonivane.key 255"));
        EXPECT_EQ(shared_block()->state, row.state_after);
        const bool changed = (row.state != 0) != (row.state_after != 0);
        EXPECT_EQ(signals, changed && row.pid > 1 ? 1 : 0);
        EXPECT_EQ(log_has(result, "kill "), signals != 0);
        EXPECT_TRUE(signals == 0 || state_at_signal == row.state_after);
    }
    std::signal(SIGINT, SIG_DFL);
}

TEST(play_streams, a_block_of_another_user_is_no_controller)
{
    const int key = getpid() | 1 << 30;
    if (seteuid(65534) != 0) GTEST_SKIP() << "only root can make one";
    const int id = shmget(key, 4096, IPC_CREAT | 0666);
    ASSERT_EQ(seteuid(0), 0);
    auto settings = beside_controller(
        {.arguments = {scratch_file("b.dff", dsd_containers[1](random_dsd(400, 1, 2822400)))}});
    settings.capture["KEY"] = std::to_string(key);
    EXPECT_EQ(run_player(settings).err, "Open 2.8fMHzfs DoP stream\n");
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
}

} // namespace
