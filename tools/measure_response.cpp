// Measures the filter, for tools/plot_filter and the README's table. Numbers are in Hz and dB.
//
//   measure_response sets
//     Prints the magnitude response of each coefficient set: a title in quotes, then lines of a
//     frequency and a level.
//   measure_response tones RATE long|short|none HZ...
//     Prints the output of -os for full-scale tones of a source of that rate, one line per tone:
//     its frequency and level, frequency and level of the highest image (any other frequency), and
//     those of the highest image from 20 Hz to 20 kHz. A second block lists each frequency at which
//     an image occurs and the highest level there. "none" measures the tones without a filter: the
//     images that it shows are the error of the measurement.
//
// Two empty lines end a block, as gnuplot expects.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <numeric>
#include <span>
#include <string_view>
#include <vector>

#include "coeff_sets.h"
#include "common.h"
#include "sonivane.h"

namespace
{

using complex = std::complex<double>;

constexpr double silence_level = -200; // dB, the lowest that is printed

// exp(2 pi i turns)
complex unit(double turns)
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
    complex sum = 0;
    complex turn = 1;
    const complex step = unit(turns_a_tap);
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
// The input is a complex tone: its real part is the left channel, its imaginary part the right one.
// This separates an image that mirrors the tone from one that shifts it, even if both are at the
// same frequency.
//
// The filter is linear and periodic, with a period of round_frames output frames. So the output is
// a sum of tones whose frequencies differ by multiples of output rate / round_frames. The transform
// covers a whole number of periods of each of them, so that no window is needed and no tone leaks
// into the bin of another.

constexpr int32_t bin_step = 10; // Hz
constexpr int32_t measured_frames = oversampled_rate / bin_step;
constexpr int32_t settling_frames = 12000; // longer than the longest set of coefficients
constexpr int32_t run_frames = settling_frames + measured_frames;
constexpr double amplitude = 0.5;

// The period of the filter in output frames: the shortest time after which input and output are in
// phase again and the taps are aligned as before. Their alignment is the same for all inputs in the
// 44100 Hz family. In the other one it repeats every four output frames.
int32_t round_frames(int32_t source_rate)
{
    return std::lcm(oversampled_rate / std::gcd(oversampled_rate, source_rate), 4);
}

complex tone_frame(int64_t t, int32_t rate, int32_t frequency)
{
    return amplitude * unit(static_cast<double>(t * frequency % rate) / rate);
}

enum class filtered { by_long_sets, by_short_sets, not_at_all };

// The output of the filter after it has settled.
std::vector<complex> run_tone(int32_t source_rate, filtered how, int32_t frequency)
{
    std::vector<complex> frames;
    coeff_filter_init(source_rate, oversampled_rate, stream_channels,
                      how == filtered::by_short_sets ? 1 : 0);
    for (int64_t t = 0; std::ssize(frames) < run_frames; t++) {
        const complex tone = tone_frame(t, source_rate, frequency);
        const std::array<float, 2> input{static_cast<float>(tone.real()),
                                         static_cast<float>(tone.imag())};
        int32_t count = stream_channels;
        const float *output =
            how == filtered::not_at_all ? input.data() : coeff_filter_run(input.data(), &count);
        for (int32_t i = 0; i < count; i += stream_channels)
            frames.emplace_back(static_cast<double>(output[i]), static_cast<double>(output[i + 1]));
    }
    coeff_filter_free();
    return {frames.begin() + settling_frames, frames.begin() + run_frames};
}

// Discrete Fourier transform of count frames, every stride-th one. It recurses by the factors of
// count.
void transform(const complex *frames, int32_t stride, complex *bins, int32_t count)
{
    static const std::vector<complex> turns = [] {
        std::vector<complex> values;
        values.reserve(measured_frames);
        for (int32_t i = 0; i < measured_frames; i++)
            values.push_back(unit(-static_cast<double>(i) / measured_frames));
        return values;
    }();
    if (count == 1) {
        *bins = *frames;
        return;
    }
    int32_t parts = 2;
    while (count % parts != 0) parts++;
    const int32_t length = count / parts;
    for (int32_t i = 0; i < parts; i++)
        transform(frames + i * stride, stride * parts, bins + i * length, length);
    std::vector<complex> part_bins(static_cast<size_t>(parts));
    for (int32_t k = 0; k < length; k++) {
        for (int32_t i = 0; i < parts; i++)
            part_bins[static_cast<size_t>(i)] = bins[k + i * length];
        for (int32_t bin = k; bin < count; bin += length) {
            complex sum = 0;
            for (int64_t i = 0; i < parts; i++)
                sum += part_bins[static_cast<size_t>(i)] *
                       turns[static_cast<size_t>(i * bin % count * stride)];
            bins[bin] = sum;
        }
    }
}

struct level_at {
    int32_t frequency = 0;
    double level = silence_level;
};

// Prints the line of a tone. Raises the elements of highest, one for each bin, to the levels of the
// images of the tone.
void measure_tone(int32_t source_rate, filtered how, int32_t frequency,
                  std::vector<double> &highest)
{
    const std::vector<complex> frames = run_tone(source_rate, how, frequency);
    std::vector<complex> bins(frames.size());
    transform(frames.data(), 1, bins.data(), measured_frames);

    double tone_level = silence_level;
    level_at image;
    level_at audible;
    for (int32_t bin = 0; bin < measured_frames; bin++) {
        const double magnitude = std::abs(bins[static_cast<size_t>(bin)]);
        const double level = decibels(magnitude / measured_frames / amplitude);
        if (bin * bin_step == frequency) {
            tone_level = level;
            continue;
        }
        const int32_t landing =
            std::min(bin, measured_frames - bin); // upper half: negative frequencies
        const int32_t at = landing * bin_step;
        highest[static_cast<size_t>(landing)] =
            std::max(highest[static_cast<size_t>(landing)], level);
        if (level > image.level) image = {at, level};
        if (level > audible.level && at >= 20 && at <= 20000) audible = {at, level};
    }
    std::printf("%" PRId32 " %.2f %" PRId32 " %.2f %" PRId32 " %.2f\n", frequency, tone_level,
                image.frequency, image.level, audible.frequency, audible.level);
}

void print_tones(int32_t source_rate, filtered how, std::span<const int32_t> frequencies)
{
    std::vector<double> highest(measured_frames / 2 + 1, silence_level);
    for (const int32_t frequency : frequencies) measure_tone(source_rate, how, frequency, highest);
    std::printf("\n\n");
    for (size_t i = 0; i < highest.size(); i++)
        if (highest[i] > silence_level) std::printf("%zu %.2f\n", i * bin_step, highest[i]);
}

} // namespace

int main(int argc, char **argv)
{
    const std::span<char *const> words(argv, static_cast<size_t>(argc));
    if (argc == 2 && words[1] == std::string_view("sets")) {
        print_sets();
        return 0;
    }
    constexpr std::array<std::string_view, 3> names{"long", "short", "none"};
    const auto *name = argc > 4 ? std::ranges::find(names, words[3]) : names.end();
    const int32_t rate = argc > 4 ? std::atoi(words[2]) : 0;
    std::vector<int32_t> frequencies;
    for (size_t i = 4; i < words.size(); i++) frequencies.push_back(std::atoi(words[i]));
    const auto exact = [rate](int32_t frequency) {
        return frequency > 0 && frequency < rate - frequency && frequency % bin_step == 0;
    };
    if (name == names.end() || words[1] != std::string_view("tones") ||
        measured_frames % round_frames(rate) != 0 || !std::ranges::all_of(frequencies, exact)) {
        std::fprintf(stderr,
                     "usage: %s sets | tones RATE long|short|none HZ...\n"
                     "RATE and HZ are multiples of %" PRId32 ", HZ is below RATE / 2.\n",
                     words[0], bin_step);
        return 1;
    }
    print_tones(rate, static_cast<filtered>(name - names.begin()), frequencies);
    return 0;
}
