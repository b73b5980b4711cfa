// Streams through the whole player: lists of files of every kind, gapless into one stream of every
// form, whatever the device takes at a time and wherever the ring goes round; lists whose files
// change while they play; the form, format and rate that each device is asked for; the controller.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>

#include "play_model.h"

namespace
{

// --- Lists --------------------------------------------------------------------------------------

struct list_row {
    const char *caps; // frames of successive transfers
    const char *ring;
    const char *speed;  // at 50 times real time the ring stays full
    const char *buffer; // of the device, in bytes; the player looks at it every 40 ms at least
    size_t files;
    size_t most_frames;
};

TEST(play_streams, every_form_gets_every_kind)
{
    const auto files = static_cast<size_t>(soak_size(300));
    size_t runs = 0;
    for (const list_row &row : std::initializer_list<list_row>{
             {"1", "1536K", "once", "", 5, 2000},
             {"7", "1", "once", "", 5, 5000},
             {"1 13 2000", "64M", "once", "", 40, 1000},
             {"random 300 1", "2M", "once", "", 40, 3000},
             {"", "1572865", "once", "", 5, 300000},
             {"", "1600003", "50", "96000-96000", 5, 150000},
             {"random 1000 1", "1536K", "50", "96000-96000", files, 1000},
         }) {
        std::vector<stream_form> forms(pcm_forms.begin(), pcm_forms.end());
        forms.insert(forms.end(), dsd_forms.begin(), dsd_forms.end());
        for (const stream_form &form : forms) {
            const cuts cut = all_cuts[(runs + runs / forms.size()) % all_cuts.size()];
            ++runs; // so that each form meets each cut
            const auto list = make_mixed_list(form, row.files, row.most_frames, 1, cut);
            auto settings = settings_for(form, cut_options(cut));
            settings.arguments.insert(settings.arguments.end(), {"-B", row.ring, list.directory});
            settings.capture["CAPS"] = row.caps;
            settings.capture["SPEED"] = row.speed;
            settings.capture["BUFFER_BYTES"] = row.buffer;
            EXPECT_EQ(stream_trouble(run_player(settings), form, list.rate, list.sound), "")
                << form.device.name << " in transfers of " << row.caps << ", ring " << row.ring;
        }
    }
}

// The first file is longer than the ring, so that the second is opened only when the device plays:
// after the change.
play_result play_changing_list(const std::function<void()> &change)
{
    for (const unsigned i : {1U, 2U, 3U}) {
        const auto sound = random_pcm({2, false}, 2, 44100, i == 1 ? 400000 : 1000, i);
        scratch_file(std::to_string(i) + ".wav", wave_file(sound));
    }
    return run_player(
        {.arguments = {"1.wav", "2.wav", "3.wav"},
         .events = {{.out_has = "playing file 1/3", .allow = 100000000, .call = change}},
         .gated = true});
}

TEST(play_streams, a_file_that_is_no_sound_any_more_is_passed_over)
{
    const auto result = play_changing_list([] { scratch_file("2.wav", noise(1, 100)); });
    EXPECT_TRUE(result.err.ends_with("\nfile format of 2.wav unknown. Skip\n")) << result.err;
    bytes told = device_bytes(random_pcm({2, false}, 2, 44100, 400000, 1), s32_le);
    put_bytes(told, device_bytes(random_pcm({2, false}, 2, 44100, 1000, 3), s32_le));
    EXPECT_EQ(stream_trouble(result, {s32_le, packing::pcm}, 44100, told), "");
}

TEST(play_streams, a_file_that_is_gone_ends_the_program)
{
    const auto result =
        play_changing_list([] { std::filesystem::remove(scratch_directory() + "/2.wav"); });
    EXPECT_EQ(result.status, 725 & 255);
    EXPECT_TRUE(result.err.ends_with(report_text("sonivane", 725, "file 2.wav open error.\n")));
}

// --- Negotiation --------------------------------------------------------------------------------

TEST(play_streams, the_widest_format_is_taken_and_the_lowest_of_equals)
{
    struct row {
        const char *accepted;
        const char *taken;
        int not_filled; // number of a format that the player makes no samples for
    };
    const auto file = scratch_file("a.wav", wave_file(random_pcm({2, false}, 2, 48000, 100, 1)));
    for (const auto &[accepted, taken, not_filled] : std::initializer_list<row>{
             {"U8 S8", "S8", 0},
             {"S16_LE U16_LE S16_BE MU_LAW", "S16_LE", 0},
             {"S24_3LE S24_LE S16_LE", "S24_LE", 0},
             {"S24_3LE S20_3LE S16_LE DSD_U32_BE", "S24_3LE", 0}, // PCM as DSD would be noise
             {"FLOAT_LE S32_LE S24_LE", "S32_LE", 0},
             {"FLOAT_LE S24_LE", "FLOAT_LE", 0},
             {"FLOAT64_LE S32_LE", "FLOAT64_LE", 16},
             {"U32_LE S24_LE", "U32_LE", 12},
         }) {
        const auto result = run_player({.arguments = {file}, .capture = {{"FORMATS", accepted}}});
        EXPECT_EQ(result.status, 0);
        const std::string told = std::string("params ") + taken + " rate 48000 channels 2";
        EXPECT_TRUE(log_has(result, told + " buffer 24000")) << accepted;
        EXPECT_TRUE(log_has(result, "thresholds start 12000 avail_min 24000"));
        std::string err = "Open 48000Hzfs PCM stream\n";
        if (not_filled != 0) {
            err += report_text("alsathread", 148,
                               "the device's widest format, number " + std::to_string(not_filled) +
                                   ", is one that this player cannot fill rightly. Try a hw "
                                   "device.\n");
        }
        EXPECT_EQ(result.err, err);
    }
}

// A low rate has a short second of silence.
constexpr uint32_t slow_rate = 256000;

std::string short_dsdiff(uint32_t rate)
{
    return scratch_file("b.dff", containers[1].make(random_dsd(400, 1, rate)));
}

TEST(play_streams, the_best_form_that_the_device_takes)
{
    struct row {
        uint32_t bit_rate;
        const char *accepted;
        const char *taken; // format and rate
        const char *banner;
    };
    const std::initializer_list<row> rows = {
        {2822400, "S24_3LE S24_LE S32_LE DSD_U32_BE", "DSD_U32_BE rate 88200", "2.8fMHzfs native"},
        {5644800, "S24_3LE S24_LE S32_LE DSD_U32_BE", "DSD_U32_BE rate 176400", "5.6fMHzfs native"},
        {11289600, "DSD_U32_BE DSD_U32_LE", "DSD_U32_BE rate 352800", "11.2fMHzfs native"},
        {2822400, "S24_3LE S24_LE S32_LE DSD_U32_LE", "S32_LE rate 176400", "2.8fMHzfs DoP"},
        {5644800, "S24_3LE S24_LE S16_LE", "S24_LE rate 352800", "5.6fMHzfs DoP"},
        {11289600, "S24_3LE S16_LE", "S24_3LE rate 705600", "11.2fMHzfs DoP"},
        {11289615, "S32_LE", "S32_LE rate 705600", "11.2fMHzfs DoP"},
        {128050, "S32_LE", "S32_LE rate 8002", "0.1fMHzfs DoP"},
        {128050, "DSD_U32_BE", "DSD_U32_BE rate 4001", "0.1fMHzfs native"},
    };
    for (const auto &[bit_rate, accepted, taken, banner] : rows) {
        SCOPED_TRACE(std::string(accepted) + " at " + std::to_string(bit_rate));
        const auto result = run_player(
            {.arguments = {"-os", short_dsdiff(bit_rate)}, .capture = {{"FORMATS", accepted}}});
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(log_has(result, std::string("params ") + taken + " "));
        EXPECT_EQ(result.err, std::string("Open ") + banner + " stream\n");
    }
}

// In I2S form there is one word only.
TEST(play_streams, i2s_is_not_tried_in_24_bits)
{
    auto settings = settings_for({s32_le, packing::i2s}, {short_dsdiff(slow_rate)});
    settings.capture["FORMATS"] = "S24_LE S24_3LE";
    const auto result = run_player(settings);
    EXPECT_EQ(result.status, 514 & 255);
    EXPECT_EQ(result.err,
              report_text("alsathread", 514, "sound_hwparams() failed. Invalid argument\n"));
}

// --- The controller -----------------------------------------------------------------------------

std::atomic<int> signals;
std::atomic<int32_t> state_at_signal;

// The controller is this process.
void on_news(int)
{
    ++signals;
    state_at_signal = shared_block()->state;
}

TEST(play_streams, a_controller_is_told_of_changes_only)
{
    struct row {
        bool dsd; // else PCM
        const char *formats;
        const char *device;
        const char *card;
        int32_t state; // before
        int32_t told;  // after
        const char *banner;
    };
    const auto dsd = short_dsdiff(2822400);
    const auto wav = scratch_file("a.wav", wave_file(random_pcm({2, false}, 2, 44100, 100, 1)));
    shared_block()->pid = getpid();
    std::signal(SIGINT, on_news);
    for (const row &row : std::initializer_list<row>{
             {true, "S32_LE", "hw:1,0", "rpi", 0, -1, "2.8fMHzfs I2S"},
             {true, "S32_LE", "hw:1,0", "snd_rpi_x", -1, -1, "2.8fMHzfs I2S"},
             {false, "S32_LE", "hw:1,0", "rpi", -1, 0, "44100Hzfs PCM"},
             {false, "S32_LE", "hw:1,0", "rpi", 0, 0, "44100Hzfs PCM"},
             {true, "S32_LE", "hw:1,0", "RPI", 7, 0, "2.8fMHzfs DoP"},
             {true, "S32_LE", "hw:1,0", "", -1, 0, "2.8fMHzfs DoP"},
             {true, "S32_LE", "capture", "rpi", -1, 0, "2.8fMHzfs DoP"},
             {true, "S32_LE DSD_U32_BE", "hw:1,0", "rpi", -1, 0, "2.8fMHzfs native"},
         }) {
        SCOPED_TRACE(std::string(row.device) + " of " + row.card + ", " + row.banner);
        signals = 0;
        shared_block()->state = row.state;
        auto settings = beside_controller(
            {.arguments = {row.dsd ? dsd : wav}, .capture = {{"FORMATS", row.formats}}});
        settings.device_name = row.device;
        settings.capture["CARD_NAME"] = row.card;
        const auto result = run_player(settings);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, std::string("Open ") + row.banner + " stream\n");
        EXPECT_TRUE(log_has(result, "ftok /tmp/sonivane.key 255"));
        EXPECT_EQ(shared_block()->state, row.told);
        const bool changed = (row.state != 0) != (row.told != 0);
        EXPECT_EQ(signals, changed ? 1 : 0);
        EXPECT_TRUE(!changed || state_at_signal == row.told);
    }
    std::signal(SIGINT, SIG_DFL);
}

// 0 names the group of the player itself.
TEST(play_streams, a_controller_without_a_process_is_not_signalled)
{
    constexpr stream_form i2s = {s32_le, packing::i2s};
    const auto sound = random_dsd(400, 1, slow_rate);
    auto settings = settings_for(i2s, {scratch_file("a.dsf", containers[0].make(sound))});
    shared_block()->pid = 0;
    shared_block()->state = 0;
    EXPECT_EQ(stream_trouble(run_player(settings), i2s, slow_rate, device_bytes(sound, i2s)), "");
    EXPECT_EQ(shared_block()->state, -1);
}

} // namespace
