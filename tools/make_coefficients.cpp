// Computes the five coefficient sets of the oversampling filter and writes them as C++ data.
//
//   make_coefficients DIRECTORY     writes DIRECTORY/taps_COUNT.inc for each set
//   make_coefficients --print       prints all sets on standard output, one tap per line
//
// Each set is a frequency-sampled linear-phase low-pass with a Kaiser window. Its response is 0 dB
// up to pass_end, falls linearly in dB to -200 dB at stop_begin, and is constant above.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

namespace
{

// The design of a set. Rates and frequencies are in Hz.
struct design {
    int32_t tap_count;  // stored taps, including the zero at the end
    int32_t rate;       // taps per second
    int32_t pass_end;   // 0 dB up to this frequency
    int32_t stop_begin; // stop_level from this frequency on
};

constexpr std::array<design, 5> designs{{
    {8192, 352800, 15000, 20000},
    {800, 352800, 20000, 22050},
    {1024, 352800, 20000, 24000},
    {192, 352800, 20000, 24000},
    {4096, 176400, 20000, 22050},
}};

// The response is sampled at this many frequencies from 0 to the rate.
constexpr int64_t grid_bins = 655360;
constexpr double stop_level = 1e-10; // -200 dB
constexpr double kaiser_beta = 7;

int64_t bin_below(int64_t frequency, int64_t rate)
{
    return frequency * grid_bins / rate;
}

// exp(2 pi i k d / grid_bins). k d is reduced modulo grid_bins in integers, so that no digit is
// lost.
std::complex<double> grid_turn(int64_t k, int64_t d)
{
    const auto turn = static_cast<double>(k * d % grid_bins) / static_cast<double>(grid_bins);
    return std::polar(1.0, 2 * std::numbers::pi * turn);
}

// The sum of cos(2 pi k d / grid_bins) over k = -last to last.
double cosine_sum(int64_t last, int64_t d)
{
    if (d == 0) return static_cast<double>(2 * last + 1);
    const auto half_turn = std::numbers::pi / static_cast<double>(grid_bins);
    const auto angle = static_cast<double>((2 * last + 1) * d % (2 * grid_bins)) * half_turn;
    return std::sin(angle) / std::sin(static_cast<double>(d) * half_turn);
}

// The inverse DFT of the response at distance d from the centre. The response is split into terms
// whose sums have a closed form: the constant stop_level, a step down at k1, a step at k0, and a
// geometric series between both.
double impulse_response(const design &wanted, int64_t d)
{
    const int64_t k0 = bin_below(wanted.pass_end, wanted.rate);
    const int64_t k1 = bin_below(wanted.stop_begin, wanted.rate);
    const double ratio = std::pow(stop_level, 1 / static_cast<double>(k1 - k0));
    const auto factor = ratio * grid_turn(1, d);
    const auto past_last = std::pow(ratio, static_cast<double>(k1 - k0)) * grid_turn(k1 - k0, d);
    const auto slope = grid_turn(k0, d) * (factor - past_last) / (1.0 - factor);
    const double sum = cosine_sum(k0, d) - stop_level * cosine_sum(k1 - 1, d) + 2 * slope.real();
    return sum / static_cast<double>(grid_bins) + (d == 0 ? stop_level : 0);
}

// The modified Bessel function of the first kind and order 0, by its power series.
double bessel_i0(double x)
{
    double sum = 1;
    double term = 1;
    for (int32_t k = 1; term > sum * 1e-18; k++) {
        term *= x / (2.0 * k) * (x / (2.0 * k));
        sum += term;
    }
    return sum;
}

double kaiser_window(int32_t points, int32_t i)
{
    const double x = 2.0 * i / (points - 1) - 1;
    return bessel_i0(kaiser_beta * std::sqrt(1 - x * x)) / bessel_i0(kaiser_beta);
}

std::vector<float> design_taps(const design &wanted)
{
    const int32_t points = wanted.tap_count - 1;
    const int32_t centre = points / 2;
    std::vector<float> taps(static_cast<size_t>(wanted.tap_count), 0.0F);
    for (int32_t i = 0; i <= centre; i++) {
        const double tap = impulse_response(wanted, centre - i) * kaiser_window(points, i);
        taps[static_cast<size_t>(i)] = static_cast<float>(tap);
        taps[static_cast<size_t>(points - 1 - i)] = static_cast<float>(tap);
    }
    return taps;
}

// Nine digits are enough to read a single-precision number back exactly.
std::string as_literal(float tap)
{
    if (tap == 0) return "0.0F";
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.9gF", static_cast<double>(tap));
    return text.data();
}

bool write_set(const std::string &directory, const design &wanted)
{
    constexpr size_t taps_a_line = 5;
    const std::string path = directory + "/taps_" + std::to_string(wanted.tap_count) + ".inc";
    std::FILE *out = std::fopen(path.c_str(), "w");
    if (out == nullptr) {
        std::perror(path.c_str());
        return false;
    }
    std::fprintf(out, "// Written by tools/make_coefficients: %" PRId32 " taps at %" PRId32 " Hz, ",
                 wanted.tap_count, wanted.rate);
    std::fprintf(out, "0 dB to %" PRId32 " Hz, -200 dB from %" PRId32 " Hz.\n", wanted.pass_end,
                 wanted.stop_begin);
    const std::vector<float> taps = design_taps(wanted);
    for (size_t i = 0; i < taps.size(); i++) {
        const bool line_ends = (i + 1) % taps_a_line == 0 || i + 1 == taps.size();
        std::fprintf(out, "%s,%c", as_literal(taps[i]).c_str(), line_ends ? '\n' : ' ');
    }
    const bool written = std::ferror(out) == 0;
    return std::fclose(out) == 0 && written;
}

void print_set(const design &wanted)
{
    for (const float tap : design_taps(wanted)) std::printf("%.9g\n", static_cast<double>(tap));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY | --print\n", argv[0]);
        return 1;
    }
    if (std::strcmp(argv[1], "--print") == 0) {
        for (const design &wanted : designs) print_set(wanted);
        return 0;
    }
    return std::all_of(designs.begin(), designs.end(),
                       [&](const design &wanted) { return write_set(argv[1], wanted); })
               ? 0
               : 1;
}
