// Prints, for tools/plot_filter, what the filter does to a tone of every frequency.
//
//   measure_response sets      the magnitude of each coefficient set by itself
//   measure_response filter    the whole of -os: the gain of a tone, and all that comes with it
//
// Output: blocks for gnuplot, each a title in quotes, then lines of a frequency in Hz and a level
// in dB; two empty lines end a block.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <vector>

#include "coeff_sets.h"
#include "common.h"
#include "sonivane.h"

namespace
{

constexpr double silence_level = -200; // dB, the lowest that is printed
constexpr double amplitude = 0.5;

// exp(2 pi i turns)
std::complex<double> unit(double turns)
{
    return std::polar(1.0, 2 * std::numbers::pi * (turns - std::floor(turns)));
}

double decibels(double magnitude)
{
    return std::max(silence_level, 20 * std::log10(magnitude + 1e-30));
}

// ---- The sets

struct named_set {
    const char *title;
    const coeff_set *set;
    int32_t rate; // Hz
};
constexpr std::array<named_set, 5> named_sets{{
    {"44.1 kHz family, 8192 taps", &set_44k_normal, 352800},
    {"44.1 kHz family, short, 800 taps", &set_44k_short, 352800},
    {"48 kHz family, 1024 taps", &set_48k_normal, 352800},
    {"48 kHz family, short, 192 taps", &set_48k_short, 352800},
    {"44.1 kHz family to 176400 Hz, 4096 taps", &set_44k_to_176k, 176400},
}};

double set_magnitude(const coeff_set &set, double turns_a_tap)
{
    std::complex<double> sum = 0;
    std::complex<double> turn = 1;
    const std::complex<double> step = unit(turns_a_tap);
    for (int32_t i = 0; i < set.tap_count; i++, turn *= step)
        sum += static_cast<double>(set.taps[i]) * turn;
    return std::abs(sum);
}

void print_sets()
{
    constexpr int32_t step = 25; // Hz
    for (const auto &[title, set, rate] : named_sets) {
        std::printf("\"%s\"\n", title);
        for (int32_t f = 0; f <= rate / 2; f += step) {
            const double turns_a_tap = static_cast<double>(f) / rate;
            std::printf("%" PRId32 " %.3f\n", f, decibels(set_magnitude(*set, turns_a_tap)));
        }
        std::printf("\n\n");
    }
}

// ---- The filter
//
// A complex tone goes in, its real part left, its imaginary part right. The filter is linear, and
// does the same again after a number of output frames (8 in the family of 44100 Hz; in the other,
// where the rates fall in step and four table copies take turns, 588 or a part of it). So what
// comes out is tones too, at distances of the output rate / that number, and over a whole number
// of such rounds they can be told apart without a window.

constexpr int32_t round_frames = 588;
constexpr int32_t measured_frames = 5 * round_frames;
constexpr int32_t settling_frames = 12000;                        // more than the longest set
constexpr int32_t tone_step = oversampled_rate / measured_frames; // Hz; whole turns in the measure

std::vector<std::complex<double>> run_tone(int32_t source_rate, int32_t use_short,
                                           int32_t frequency)
{
    coeff_filter_init(source_rate, oversampled_rate, stream_channels, use_short);
    std::vector<std::complex<double>> frames;
    for (int64_t t = 0; frames.size() < settling_frames + measured_frames; t++) {
        const auto turns = static_cast<double>(t * frequency % source_rate) / source_rate;
        const std::complex<double> tone = amplitude * unit(turns);
        const std::array<float, 2> input{static_cast<float>(tone.real()),
                                         static_cast<float>(tone.imag())};
        int32_t count = 0;
        const float *output = coeff_filter_run(input.data(), &count);
        for (int32_t i = 0; i < count; i += stream_channels)
            frames.emplace_back(static_cast<double>(output[i]), static_cast<double>(output[i + 1]));
    }
    coeff_filter_free();
    // cppcheck-suppress containerOutOfBounds ; the loop above has filled it
    frames.erase(frames.begin(), frames.begin() + settling_frames);
    frames.resize(measured_frames);
    return frames;
}

// The level of each tone in frames, by its frequency / tone_step, for those at whole rounds from
// first: every fifth.
std::vector<double> tone_levels(const std::vector<std::complex<double>> &frames, int32_t first)
{
    std::vector<double> levels(measured_frames, silence_level);
    for (int32_t k = first; k < measured_frames; k += measured_frames / round_frames) {
        std::complex<double> sum = 0;
        std::complex<double> turn = 1;
        const std::complex<double> step = unit(-static_cast<double>(k) / measured_frames);
        for (const std::complex<double> &frame : frames) {
            sum += frame * turn;
            turn *= step;
        }
        levels[static_cast<size_t>(k)] = decibels(std::abs(sum) / measured_frames / amplitude);
    }
    return levels;
}

struct response {
    std::vector<double> gains;  // of a tone, by its frequency / tone_step
    std::vector<double> images; // the highest of any tone that came with one, by its own frequency
};

response measure(int32_t source_rate, int32_t use_short)
{
    response result;
    result.images.assign(measured_frames / 2 + 1, silence_level);
    const int32_t tones = source_rate / 2 / tone_step;
    for (int32_t tone = 0; tone <= tones; tone++) {
        const auto frames = run_tone(source_rate, use_short, tone * tone_step);
        const auto levels = tone_levels(frames, tone % (measured_frames / round_frames));
        result.gains.push_back(levels[static_cast<size_t>(tone)]);
        for (int32_t k = 0; k < measured_frames; k++) {
            if (k == tone) continue;
            double &image = result.images[static_cast<size_t>(std::min(k, measured_frames - k))];
            image = std::max(image, levels[static_cast<size_t>(k)]);
        }
    }
    return result;
}

void print_levels(const char *what, int32_t source_rate, int32_t use_short,
                  const std::vector<double> &levels)
{
    std::printf("\"%s%" PRId32 " Hz, %s sets\"\n", what, source_rate,
                use_short != 0 ? "short" : "long");
    for (size_t i = 0; i < levels.size(); i++) std::printf("%zu %.3f\n", i * tone_step, levels[i]);
    std::printf("\n\n");
}

void print_filter()
{
    for (const int32_t source_rate : {44100, 48000})
        for (const int32_t use_short : {0, 1}) {
            const response measured = measure(source_rate, use_short);
            print_levels("", source_rate, use_short, measured.gains);
            print_levels("", source_rate, use_short, measured.images);
        }
}

} // namespace

int main(int argc, char **argv)
{
    const bool sets = argc == 2 && std::strcmp(argv[1], "sets") == 0;
    const bool filter = argc == 2 && std::strcmp(argv[1], "filter") == 0;
    if (!sets && !filter) {
        std::fprintf(stderr, "usage: %s sets | filter\n", argv[0]);
        return 1;
    }
    if (sets) print_sets();
    if (filter) print_filter();
    return 0;
}
