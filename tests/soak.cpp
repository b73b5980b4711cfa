// Plays for long, and breaks off often:
//   soak list FILES FRAMES SPEED      a list of so many files of every kind, of up to so many
//   frames
//                                     each, into each form of stream, at SPEED times real time with
//                                     short transfers; the capture is compared byte for byte
//   soak interrupts RUNS [SEED]       SIGINT once and twice in every stage of a run, RUNS times
//   each
//                                     at random moments
//   soak reaction RUNS                the longest time from the key that ends a run, and from
//   SIGTERM,
//                                     to the end of the player, in real time
// Exits with 1 and says why where something went wrong.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "play_model.h"
#include "run_player.h"

namespace
{

bool tell(const std::string &what, const std::string &trouble)
{
    std::printf("%-40s %s\n", what.c_str(), trouble.empty() ? "as it should be" : trouble.c_str());
    std::fflush(stdout);
    return trouble.empty();
}

// --- Lists --------------------------------------------------------------------------------------

bool play_list(const stream_form &form, size_t files, size_t frames, const std::string &speed)
{
    static uint32_t seed;
    const mixed_list list = make_mixed_list(form, files, frames, ++seed);
    auto settings = settings_for(form, {"-B", "1536K", list.directory});
    settings.capture["SPEED"] = speed;
    settings.capture["CAPS"] = "random 1000 " + std::to_string(seed);
    settings.capture["BUFFER_BYTES"] = "480000-480000"; // the player looks every 40 ms
    settings.timeout_seconds = 3600;
    const auto result = run_player(settings);
    std::filesystem::remove_all(list.directory);
    const char *names[] = {"PCM", "native", "DoP", "I2S"};
    return tell(std::string(names[static_cast<int>(form.kind)]) + " on " + form.device.name + ", " +
                    std::to_string(result.capture.size()) + " bytes",
                stream_trouble(result, form, list.rate, list.sound));
}

int play_lists(size_t files, size_t frames, const std::string &speed)
{
    bool good = true;
    for (const stream_form &form : pcm_forms) good &= play_list(form, files, frames, speed);
    for (const stream_form &form : dsd_forms) good &= play_list(form, files, frames, speed);
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

// --- Interrupts ---------------------------------------------------------------------------------

constexpr int rate = 8000;
constexpr int interrupted_early = 1045 & 255; // exit statuses
constexpr int interrupted_twice = 799 & 255;

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

std::string trouble_of_interrupted(const play_result &result, const stage_row &stage, bool twice,
                                   const bytes &sound)
{
    constexpr stream_form form = {s32_le, packing::pcm};
    const bool early = result.status == interrupted_early && stage.before_play;
    const bool hard = result.status == interrupted_twice && twice;
    std::string trouble = stream_trouble(result, form, rate, sound, extent::broken_off);
    if (result.status != 0 && !early && !hard)
        trouble += "status " + std::to_string(result.status) + "\n" + result.err;
    if (early && result.err.find("exit by interrupt\n") == std::string::npos)
        trouble += "nothing told of the interrupt\n";
    if (hard && result.err.find("Interrupt stack. Abort\n") == std::string::npos)
        trouble += "nothing told of the abort\n";
    if (!same_mode(result.before, result.after)) trouble += "the terminal is not as it was\n";
    return trouble;
}

bool interrupt(const stage_row &stage, bool twice, int runs, std::mt19937 &random)
{
    constexpr sample_row sample = {2, false};
    const auto sound = random_pcm(sample, 2, rate, stage.frames, 1);
    const std::vector<std::string> files = {"-B", stage.ring, "list"};
    std::filesystem::create_directory(scratch_directory() + "/list");
    scratch_file("list/a.wav", wave_file(sound));
    for (int i = 0; i < 100; ++i) scratch_file("list/" + std::to_string(i) + ".txt", noise(1, 100));
    const bytes told = device_bytes(sound, s32_le);

    std::string trouble;
    int aborted = 0;
    int reached = 0; // runs that got an interrupt
    for (int run = 0; run < runs && trouble.empty(); ++run) {
        const auto after = [&] { return static_cast<int>(random() % (stage.latest_ms + 1)); };
        std::vector<play_event> events = {stage.begin};
        events.front().may_miss = true; // a busy machine may let the device run dry before
        events.push_back({.after_ms = after(), .signal = SIGINT, .may_miss = true});
        if (twice) events.push_back({.after_ms = after(), .signal = SIGINT, .may_miss = true});
        const auto result = run_player({.arguments = files,
                                        .capture = {{"SPEED", stage.speed}, {"DRY_MS", "300"}},
                                        .events = events,
                                        .input = wire::terminal,
                                        .output = wire::terminal});
        trouble = trouble_of_interrupted(result, stage, twice, told);
        aborted += result.status == interrupted_twice;
        reached += result.at_events.size() >= 2;
    }
    if (trouble.empty() && reached * 2 < runs)
        trouble = "most runs ended before their interrupts\n";
    return tell(std::string(stage.name) + (twice ? ", twice: " : ", once: ") +
                    std::to_string(aborted) + " of " + std::to_string(runs) + " aborted, " +
                    std::to_string(reached) + " in time",
                trouble);
}

int interrupt_all(int runs, uint32_t seed)
{
    bool good = true;
    std::mt19937 random(seed);
    for (const stage_row &stage : stages)
        for (const bool twice : {false, true}) good &= interrupt(stage, twice, runs, random);
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

// --- Reaction -----------------------------------------------------------------------------------

int time_reaction(int runs)
{
    const auto sound = random_pcm({2, false}, 2, 44100, 44100 * 20, 1);
    const std::string file = scratch_file("a.wav", wave_file(sound));
    std::mt19937 random(1);
    for (const bool key : {true, false}) {
        int64_t longest = 0;
        std::string trouble;
        for (int run = 0; run < runs; ++run) {
            play_event end = {.after_ms = static_cast<int>(random() % 500)};
            if (key)
                end.type = "\x03";
            else
                end.signal = SIGTERM;
            const auto result = run_player({.arguments = {file},
                                            .capture = {{"SPEED", "1"}},
                                            .events = {{.out_has = "position 00:00"}, end},
                                            .input = wire::pipe});
            longest = std::max(longest, result.ms_to_end);
            trouble += result.trouble;
        }
        tell((key ? "key: " : "SIGTERM: ") + std::to_string(longest) + " ms at most", trouble);
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 4 && words[0] == "list")
        return play_lists(std::stoul(words[1]), std::stoul(words[2]), words[3]);
    if ((words.size() == 2 || words.size() == 3) && words[0] == "interrupts")
        return interrupt_all(std::stoi(words[1]),
                             words.size() == 3 ? static_cast<uint32_t>(std::stoul(words[2])) : 1);
    if (words.size() == 2 && words[0] == "reaction") return time_reaction(std::stoi(words[1]));
    std::fputs("usage: soak list FILES FRAMES SPEED\n"
               "       soak interrupts RUNS [SEED]\n"
               "       soak reaction RUNS\n",
               stderr);
    return 2;
}
