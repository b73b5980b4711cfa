// DSD files through the whole player: no bit is changed, no DoP marker is ever out of step, and
// each device is asked for the best form that it may take.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "play_model.h"

namespace
{

// A low rate has a short second of silence.
constexpr uint32_t slow_rate = 256000;

std::string file_of(const container_row &container, const dsd_sound &sound)
{
    return scratch_file(container.name, container.make(sound));
}

std::string short_dsdiff(uint32_t rate)
{
    return file_of(containers[1], random_dsd(400, 1, rate));
}

// A file ends inside a byte, a group of eight and a block.
TEST(play_dsd, every_container_in_every_form)
{
    const auto sound = random_dsd(9001, 1, slow_rate);
    for (const container_row &container : containers) {
        for (const stream_form &form : dsd_forms) {
            for (const cuts &cut : all_cuts) {
                auto settings = settings_for(form, cut_options(cut));
                settings.arguments.push_back(file_of(container, sound));
                EXPECT_EQ(stream_trouble(run_player(settings), form, sound.rate,
                                         device_bytes(sound, form, 0, cut)),
                          "")
                    << container.name << " on " << form.device.name;
            }
        }
    }
}

// --- Negotiation --------------------------------------------------------------------------------

TEST(play_dsd, the_best_form_that_the_device_takes)
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
TEST(play_dsd, i2s_is_not_tried_in_24_bits)
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

TEST(play_dsd, a_controller_is_told_of_changes_only)
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
TEST(play_dsd, a_controller_without_a_process_is_not_signalled)
{
    constexpr stream_form i2s = {s32_le, packing::i2s};
    const auto sound = random_dsd(400, 1, slow_rate);
    auto settings = settings_for(i2s, {file_of(containers[0], sound)});
    shared_block()->pid = 0;
    shared_block()->state = 0;
    EXPECT_EQ(stream_trouble(run_player(settings), i2s, slow_rate, device_bytes(sound, i2s)), "");
    EXPECT_EQ(shared_block()->state, -1);
}

} // namespace
