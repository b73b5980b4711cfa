// PCM files through the whole player: the device gets what the files hold, byte for byte.
#include <gtest/gtest.h>

#include "play_model.h"

namespace
{

std::string wave_of(const pcm_sound &sound, wave_kind kind = wave_kind::riff)
{
    return scratch_file("a.wav", wave_file(sound, kind));
}

TEST(play_pcm, every_sample_reaches_every_device)
{
    size_t turn = 0; // containers and cuts take turns: each meets each sample, device and count
    for (const size_t channels : {1U, 2U, 6U}) {
        for (const sample_row &sample : samples) {
            for (const stream_form &form : pcm_forms) {
                const cuts cut = all_cuts[turn / 3 % 4];
                const int rate = 8000 + static_cast<int>(turn % 2);
                const auto sound =
                    random_pcm(sample, channels, rate, 1501, static_cast<uint32_t>(turn));
                auto settings = settings_for(form, cut_options(cut));
                settings.arguments.push_back(wave_of(sound, wave_kind(turn++ % 3)));
                EXPECT_EQ(stream_trouble(run_player(settings), form, rate,
                                         device_bytes(sound, form.device, cut)),
                          "")
                    << channels << " channels of " << sample.bytes << " bytes";
            }
        }
    }
}

TEST(play_pcm, the_widest_format_is_taken_and_the_lowest_of_equals)
{
    struct row {
        const char *accepted;
        const char *taken;
        int not_filled; // number of a format that the player makes no samples for
    };
    const auto file = wave_of(random_pcm({2, false}, 2, 48000, 100, 1));
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

} // namespace
