// Lists of files of every kind, gapless into one stream, whatever the device takes at a time and
// wherever the ring goes round; and lists whose files change while they play.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "play_model.h"

namespace
{

struct list_row {
    const char *caps; // frames of successive transfers
    const char *ring;
    const char *speed;  // at 300 times real time the ring stays full
    const char *buffer; // of the device, in bytes; the player looks at it every 40 ms at least
    size_t files;
    size_t most_frames;
};

TEST(play_lists, every_form_gets_every_kind)
{
    for (const list_row &row : std::initializer_list<list_row>{
             {"1", "1536K", "once", "", 5, 2000},
             {"7", "1", "once", "", 5, 5000},
             {"1 13 2000", "64M", "once", "", 40, 1000},
             {"random 300 1", "2M", "once", "", 40, 3000},
             {"", "1572865", "once", "", 5, 300000},
             {"", "1600003", "300", "480000-480000", 5, 300000},
         }) {
        std::vector<stream_form> forms(pcm_forms.begin(), pcm_forms.end());
        forms.insert(forms.end(), dsd_forms.begin(), dsd_forms.end());
        for (const stream_form &form : forms) {
            const auto list = make_mixed_list(form, row.files, row.most_frames, 1);
            auto settings = settings_for(form, {"-B", row.ring, list.directory});
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

TEST(play_lists, a_file_that_is_no_sound_any_more_is_passed_over)
{
    const auto result = play_changing_list([] { scratch_file("2.wav", noise(1, 100)); });
    EXPECT_TRUE(result.err.ends_with("\nfile format of 2.wav unknown. Skip\n")) << result.err;
    bytes told = device_bytes(random_pcm({2, false}, 2, 44100, 400000, 1), s32_le);
    put_bytes(told, device_bytes(random_pcm({2, false}, 2, 44100, 1000, 3), s32_le));
    EXPECT_EQ(stream_trouble(result, {s32_le, packing::pcm}, 44100, told), "");
}

TEST(play_lists, a_file_that_is_gone_ends_the_program)
{
    const auto result =
        play_changing_list([] { std::filesystem::remove(scratch_directory() + "/2.wav"); });
    EXPECT_EQ(result.status, 725 & 255);
    EXPECT_TRUE(result.err.ends_with(report_text("sonivane", 725, "file 2.wav open error.\n")));
}

} // namespace
