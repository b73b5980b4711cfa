// The oversampling filter: comparison with the scalar reference, set-up, coefficient sets.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <new>
#include <numeric>
#include <random>

#include "common.h"
#include "scalar_filter.h"

// The number of aligned allocations that succeed before one fails. Below 0: none fails.
static int32_t allocations_left = -1;

// Replaces the operator that the filter allocates with, so that a test can make each call fail.
void *operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept
{
    const bool fails = allocations_left == 0;
    if (allocations_left >= 0) --allocations_left;
    if (fails) return nullptr;
    return memalign(static_cast<std::size_t>(alignment), size);
}
void operator delete(void *memory, std::align_val_t) noexcept
{
    std::free(memory);
}

namespace
{

// Noise, impulses, and denormals beside full scale: the kind changes every 999 frames. Repeatable.
std::array<float, 2> next_frame(std::minstd_rand &noise, int32_t at)
{
    const float left = static_cast<float>(noise()) * 0x1p-30F - 1;
    const float right = static_cast<float>(noise()) * 0x1p-30F - 1;
    const std::array<float, 2> kinds[]{{left, right},
                                       {at % 97 == 0 ? 1.0F : 0.0F, at % 89 == 0 ? -1.0F : -0.0F},
                                       {left * 0x1p-130F, at % 2 == 0 ? right : -1.0F}};
    return kinds[at / 999 % std::ssize(kinds)];
}

// Sets for 44100 Hz and for the other rates. The last ones have fewer taps than a tile has entries.
const std::array<coeff_set, 2> pairs[]{
    {set_44k_normal, set_48k_normal},
    {set_44k_short, set_48k_short},
    {coeff_set{24, set_44k_short.taps + 388}, coeff_set{16, set_48k_short.taps + 88}}};

// One filter is fed at all source rates, with neither, one or both channels silent. Most rates need
// more room for the output than the rate before. Rates below 1 give no output.
TEST(filter, equals_the_scalar_filter_bit_for_bit)
{
    // It is four times in a row in rates, once for each combination of silent channels.
    constexpr int32_t cd = 44100;
    const int32_t rates[]{352799,  352801,      352801,  352800, 384000, 192000, 96000,
                          88200,   48000,       44101,   cd,     cd,     cd,     cd,
                          44099,   22050,       10000,   8000,   1,      0,      -1,
                          INT_MIN, INT_MAX - 1, INT_MAX, cd,     48000};
    const int32_t rounds = std::getenv("SONIVANE_FULL") != nullptr ? 20 : 1;
    for (const auto &[set44, set48] : pairs)
        for (const int32_t width : {4, 8}) { // of vectors, in floats
            const bool present = coeff_filter_take_width(width);
            ASSERT_TRUE(present || width > 4);
            if (!present) continue;
            const coeff_row rows[]{{44100, 352800, &set44}, {0, 352800, &set48}, {-1, -1, nullptr}};
            scalar_filter model = make_scalar_filter(set44, set48);
            std::minstd_rand noise;
            for (int32_t i = 0; i < rounds * std::ssize(rates); ++i) {
                const int32_t rate = rates[i % std::ssize(rates)];
                left_cut = -(i & 1);
                right_cut = -(i >> 1 & 1);
                coeff_filter_init_rows(rows, rate, 352800, 2);
                std::vector<float> expected, actual;
                for (int32_t at = std::clamp(rate / 16, 1, 3000); at > 0; --at) {
                    const auto input = next_frame(noise, at);
                    scalar_filter_run(model, rate, input, expected);
                    int32_t count = -1;
                    const float *floats = coeff_filter_run(input.data(), &count);
                    actual.insert(actual.end(), floats, floats + count);
                }
                const auto bits = [](float value) { return std::bit_cast<uint32_t>(value); };
                const auto at =
                    std::ranges::mismatch(actual, expected, {}, bits, bits).in1 - actual.begin();
                ASSERT_TRUE(actual.size() == expected.size() && at == std::ssize(actual))
                    << width << " floats, " << set44.tap_count << " and " << set48.tap_count
                    << " taps, stretch " << i << " at " << rate << " Hz, frame " << at / 2
                    << (at % 2 == 0 ? " left, cut " : " right, cut ") << left_cut << right_cut;
            }
        }
    left_cut = right_cut = flag_off;
    coeff_filter_take_width(0);
}

// Checks the scalar reference with taps 1, 2, 3 and so on and an impulse of 1.0 left and 2.0 right.
TEST(filter, scalar_reference_gives_the_impulse_response_computed_by_hand)
{
    std::array<float, 24> taps;
    std::iota(taps.begin(), taps.end(), 1.0F);
    const struct {
        int32_t rate, at, first;      // input frame of the impulse, first output frame of response
        std::vector<double> response; // from output frame `first` on, divided by the gain, 0.9
    } cases[]{
        {44100, 71, 576, {147, 129, 110, 90,  69,  47, 24, 0,  108, 116, 124,
                          132, 140, 148, 156, 164, 44, 52, 60, 68,  76,  84,
                          92,  100, 1,   3,   6,   10, 15, 21, 28,  36}},
        {352800, 340, 341, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0, 0, 0, 0, 1}},
        {352800, 341, 344, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1}},
        {352800, 342, 344, {3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1, 2}},
        {352800, 343, 344, {4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1, 2, 3}},
    };
    for (const auto &[rate, at, first, response] : cases) {
        scalar_filter filter = make_scalar_filter({24, taps.data()}, {16, taps.data()});
        std::vector<float> output;
        for (int32_t i = 0; i < at + 60; ++i)
            scalar_filter_run(filter, rate, {i == at ? 1.0F : 0.0F, i == at ? 2.0F : 0.0F}, output);
        std::vector<double> expected(output.size() / 2);
        std::copy(response.begin(), response.end(), expected.begin() + first);
        for (size_t i = 0; i < output.size(); ++i)
            ASSERT_NEAR(output[i], (i % 2 == 0 ? 0.9 : 1.8) * expected[i / 2], 4e-5)
                << rate << " " << i;
    }
}

TEST(filter, set_up_failure_ends_the_process_with_a_report)
{
    const auto set_up = [](int32_t allocations, int32_t source, int32_t target, int32_t channels) {
        allocations_left = allocations;
        const int32_t result = coeff_filter_init(source, target, channels, 0);
        allocations_left = -1;
        return result;
    };
    const char *texts[]{"this code supports 2ch stereo only, not 1 channels.\n",
                        "44k coeff table not found.", "48k coeff table not found.",
                        "allocation failed.", "work area could not allocated."};
    const struct {
        int32_t number, text, target_rate, channels, allocations; // allocations that succeed
    } cases[]{{153, 0, 352800, 1, 9}, {171, 1, -1, 2, 9},     {230, 2, 176400, 2, 9},
              {193, 3, 352800, 2, 0}, {193, 3, 352800, 2, 1}, {193, 3, 352800, 2, 2},
              {241, 4, 352800, 2, 3}, {241, 4, 352800, 2, 4}, {248, 4, 352800, 2, 5},
              {253, 4, 352800, 2, 6}};
    for (const auto &[number, text, target_rate, channels, allocations] : cases)
        EXPECT_EXIT(set_up(allocations, 48000, target_rate, channels),
                    testing::ExitedWithCode(number),
                    "\nERROR common " + std::to_string(number) + " " + texts[text] + "$");
    EXPECT_EQ(set_up(7, 48000, 352800, 2), -1); // all seven succeed, and that is enough
    // A source rate of 1 Hz needs more room for the output, so the buffer is allocated again.
    EXPECT_EXIT(set_up(0, 1, 352800, 2), testing::ExitedWithCode(241), "common 241 ");
    coeff_filter_free();
}

TEST(coefficient_sets, equal_the_output_of_the_tool)
{
    std::FILE *tool = popen(COEFFICIENT_TOOL_PATH " --print", "r"); // NOLINT(cert-env33-c)
    std::array<char, 64> line{};
    for (const coeff_set &set :
         {set_44k_normal, set_44k_short, set_48k_normal, set_48k_short, set_44k_to_176k})
        for (int32_t i = 0; i < set.tap_count; ++i) {
            ASSERT_NE(std::fgets(line.data(), line.size(), tool), nullptr);
            ASSERT_EQ(set.taps[i], std::strtof(line.data(), nullptr))
                << i << " of " << set.tap_count;
        }
    EXPECT_EQ(std::fgets(line.data(), line.size(), tool), nullptr);
    EXPECT_EQ(pclose(tool), 0);
}

// The images of a tone are at n * images + tone and n * images - tone Hz for all integers n. A
// plain Fourier transform over a whole number of periods of all of them gives the expected levels.
// Levels below -140 dB are rounding errors.
TEST(measure_response, prints_the_levels_of_a_plain_transform)
{
    const char *const sets[]{"long ", "short ", "none "};
    const std::array<int32_t, 4> cases[]{{44100, 0, 15000, 44100},  {44100, 0, 20000, 44100},
                                         {44100, 1, 20000, 44100},  {48000, 0, 10000, 600},
                                         {176400, 1, 70000, 88200}, {352800, 2, 12340, 352800}};
    for (const auto &[rate, use, tone, images] : cases) {
        std::vector<double> frames;
        coeff_filter_init(rate, 352800, 2, use);
        for (int32_t t = 0, count = 2; std::ssize(frames) < 40000; ++t) {
            const double angle = 2 * M_PI * std::fmod(1.0 * t * tone / rate, 1);
            const float input[]{static_cast<float>(std::sin(angle)), 0};
            const float *output = use == 2 ? input : coeff_filter_run(input, &count);
            for (int32_t i = 0; i < count; i += 2) frames.push_back(output[i]);
        }
        coeff_filter_free();
        std::pair<double, int32_t> found[]{{-140, 0}, {-140, 0}, {-140, 0}}; // in printed order
        for (int32_t f = 20; f < 176400; f += 20) {
            if ((f - tone) % images != 0 && (f + tone) % images != 0) continue;
            std::complex<double> sum;
            for (int32_t i = 0; i < 17640; ++i)
                sum += frames.data()[20000 + i] * std::polar(1.0, 2 * M_PI * f / 352800 * i);
            const std::pair here{20 * std::log10(std::abs(sum) / 8820), f};
            found[f != tone] = std::max(found[f != tone], here);
            if (f != tone && f <= 20000) found[2] = std::max(found[2], here);
        }
        const std::string words = std::to_string(rate) + " " + sets[use] + std::to_string(tone);
        std::FILE *tool = popen((MEASURE_TOOL_PATH " tones " + words).c_str(), "r"); // NOLINT
        for (const auto &[level, frequency] : found) {
            std::pair<double, int32_t> printed;
            ASSERT_EQ(std::fscanf(tool, "%d %lf", &printed.second, &printed.first), 2) << words;
            EXPECT_NEAR(std::max(printed.first, -140.0), level, 0.1) << words;
            EXPECT_TRUE(level == -140 || printed.second == frequency)
                << words << " " << printed.second;
        }
        pclose(tool);
    }
}

} // namespace
