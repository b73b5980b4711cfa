// PCM files through the whole player: the device gets what the files hold, byte for byte.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "play_model.h"
#include "run_player.h"

namespace
{

struct sample_row {
    size_t bytes;
    bool floats;
};
constexpr std::array<sample_row, 5> samples = {
    {{1, false}, {2, false}, {3, false}, {4, false}, {4, true}}};
constexpr std::array<device_form, 4> devices = {s16_le, s24_3le, s24_le, s32_le};
constexpr std::array<cuts, 4> all_cuts = {
    {{false, false}, {true, false}, {false, true}, {true, true}}};

std::vector<std::string> cut_options(const cuts &cut)
{
    std::vector<std::string> options;
    if (cut.left) options.push_back("--left-cut");
    if (cut.right) options.push_back("--right-cut");
    return options;
}

std::vector<std::string> with(std::vector<std::string> options, const std::string &name)
{
    options.push_back(name);
    return options;
}

TEST(play_pcm, every_sample_reaches_every_device)
{
    size_t turn = 0; // containers and cuts take turns: each meets each sample, device and count
    for (const size_t channels : {1U, 2U, 6U}) {
        for (const sample_row &sample : samples) {
            for (const device_form &device : devices) {
                const cuts cut = all_cuts[turn / 3 % 4];
                const int rate = 8000 + static_cast<int>(turn % 2);
                const auto sound = random_pcm(sample.bytes, sample.floats, channels, rate, 1501,
                                              static_cast<unsigned>(turn));
                const auto file = scratch_file("a.wav", wave_file(sound, wave_kind(turn % 3)));
                SCOPED_TRACE(testing::Message() << channels << " channels of " << sample.bytes
                                                << " bytes to " << device.name);
                const auto result = run_player({.arguments = with(cut_options(cut), file),
                                                .capture = {{"FORMATS", device.name}}});
                expect_pcm_stream(result, device, rate, device_bytes(sound, device, cut));
                ++turn;
            }
        }
    }
}

TEST(play_pcm, floats_reach_a_device_of_floats_unchanged)
{
    const auto sound = random_pcm(4, true, 2, 8000, 1000, 1);
    const auto result = run_player({.arguments = {scratch_file("a.wav", wave_file(sound))},
                                    .capture = {{"FORMATS", "FLOAT_LE"}}});
    expect_pcm_stream(result, float_le, 8000, sound.data);
}

TEST(play_pcm, the_widest_format_is_taken_and_the_lowest_of_equals)
{
    struct row {
        const char *accepted;
        const char *taken;
    };
    const auto sound = random_pcm(2, false, 2, 8000, 100, 1);
    const auto file = scratch_file("a.wav", wave_file(sound));
    for (const auto &[accepted, taken] : std::initializer_list<row>{
             {"U8 S8", "S8"},
             {"S16_LE U16_LE S16_BE MU_LAW", "S16_LE"},
             {"S24_3LE S24_LE S16_LE", "S24_LE"},
             {"S24_3LE S20_3LE S16_LE", "S24_3LE"},
             {"FLOAT_LE S32_LE S24_LE", "S32_LE"},
             {"FLOAT64_LE S32_LE", "FLOAT64_LE"},
         }) {
        const auto result = run_player({.arguments = {file}, .capture = {{"FORMATS", accepted}}});
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(log_has(result, std::string("params ") + taken + " ")) << accepted;
        EXPECT_EQ(result.err, "Open 8000Hzfs PCM stream\n");
    }
}

TEST(play_pcm, short_transfers_lose_nothing)
{
    const auto sound = random_pcm(3, false, 2, 4001, 3001, 3);
    const auto file = scratch_file("a.wav", wave_file(sound));
    for (const char *caps : {"1", "7", "13", "1 7 13 4000", "random 300 1", "random 5000 2"}) {
        for (const device_form &device : {s16_le, s24_3le, s32_le}) {
            SCOPED_TRACE(std::string(caps) + " to " + device.name);
            const auto result = run_player(
                {.arguments = {file}, .capture = {{"FORMATS", device.name}, {"CAPS", caps}}});
            expect_pcm_stream(result, device, 4001, device_bytes(sound, device));
        }
    }
}

// The sound is longer than the smaller rings: it goes round, at every place in a frame.
TEST(play_pcm, rings_of_every_size_give_the_same)
{
    const auto sound = random_pcm(2, false, 2, 8000, 400003, 4);
    const auto file = scratch_file("a.wav", wave_file(sound));
    for (const char *size : {"1", "1536K", "1572869", "1600001", "2M", "64M"}) {
        for (const device_form &device : {s24_3le, s32_le}) {
            SCOPED_TRACE(std::string(size) + " for " + device.name);
            const auto result = run_player(
                {.arguments = {"-B", size, file}, .capture = {{"FORMATS", device.name}}});
            expect_pcm_stream(result, device, 8000, device_bytes(sound, device));
        }
    }
}

// A device that is slower than the feeder, so that the ring stays full while it goes round.
TEST(play_pcm, a_slow_device_gets_the_same)
{
    const auto sound = random_pcm(2, false, 2, 48000, 400003, 5);
    const auto result = run_player(
        {.arguments = {scratch_file("a.wav", wave_file(sound))}, .capture = {{"SPEED", "20"}}});
    expect_pcm_stream(result, s32_le, 48000, device_bytes(sound, s32_le));
    EXPECT_TRUE(log_has(result, "params S32_LE rate 48000 channels 2 buffer 24000"));
    EXPECT_TRUE(log_has(result, "thresholds start 12000 avail_min 24000"));
}

// Later files of other widths and rates go into the stream that the first one set up.
TEST(play_pcm, lists_play_without_a_gap)
{
    for (const unsigned count : {1U, 3U, 500U}) {
        const std::string directory = scratch_directory() + "/list" + std::to_string(count);
        std::filesystem::create_directory(directory);
        bytes told;
        for (unsigned i = 0; i < count; ++i) {
            const sample_row &sample = samples[i % samples.size()];
            const auto sound = random_pcm(sample.bytes, sample.floats, i % 3 + 1,
                                          8000 + static_cast<int>(i), i * 7 % 300, i);
            std::array<char, 32> name;
            std::snprintf(name.data(), name.size(), "list%u/%03u.wav", count, i);
            scratch_file(name.data(), wave_file(sound, wave_kind(i % 3)));
            put_bytes(told, device_bytes(sound, s24_3le));
        }
        const auto result =
            run_player({.arguments = {directory}, .capture = {{"FORMATS", "S24_3LE"}}});
        expect_pcm_stream(result, s24_3le, 8000, told);
    }
}

} // namespace
