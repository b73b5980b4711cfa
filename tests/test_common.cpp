// The oversampling filter: its run against the scalar one, its set-up and its coefficient sets.
#include "common.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numbers>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "scalar_filter.h"

// Aligned allocations that succeed before one fails; below 0: none fails.
static int32_t allocations_left = -1;

// The filter's allocations, replaced so that each of them can be made to fail.
void *operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept
{
    if (allocations_left == 0) return nullptr;
    if (allocations_left > 0) --allocations_left;
    const auto unit = static_cast<std::size_t>(alignment);
    return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}
void operator delete(void *memory, std::align_val_t) noexcept
{
    std::free(memory);
}

namespace
{

// Of vectors, in floats. The processor may lack any but the first.
constexpr std::array<int32_t, 3> widths{4, 8, 16};

struct filter_test : testing::Test {
    void TearDown() override
    {
        coeff_filter_take_form(0);
        left_cut = right_cut = flag_off;
        allocations_left = -1;
    }
};

// Noise, impulses, denormals and full scale in turn. Repeatable.
std::array<float, 2> next_frame(std::minstd_rand &noise, int64_t at)
{
    const float left = static_cast<float>(noise()) * 0x1p-30F - 1;
    const float right = static_cast<float>(noise()) * 0x1p-30F - 1;
    const std::array<float, 2> kinds[]{{left, right},
                                       {at % 97 == 0 ? 1.0F : 0.0F, at % 89 == 0 ? -1.0F : -0.0F},
                                       {left * 0x1p-130F, at % 2 == 0 ? right : -1.0F}};
    return kinds[at / 1499 % std::ssize(kinds)];
}

void feed_filter(const std::array<float, 2> &input, std::vector<float> &output)
{
    int32_t count = -1;
    const float *floats = coeff_filter_run(input.data(), &count);
    output.insert(output.end(), floats, floats + count);
}

// One stream over source rates, that many frames of each, whose channels are cut left, right and
// both in turn: through the scalar filter, or, if it is null, through the shipped one.
std::vector<float> run_rates(const std::vector<int32_t> &rates, int32_t use_short, int64_t frames,
                             scalar_filter *model)
{
    std::minstd_rand noise;
    std::vector<float> output;
    for (size_t i = 0; i < rates.size(); ++i) {
        left_cut = (i & 1) != 0 ? flag_on : flag_off;
        right_cut = (i & 2) != 0 ? flag_on : flag_off;
        if (model == nullptr) coeff_filter_init(rates[i], 352800, 2, use_short);
        for (int64_t k = rates[i] < 2 ? frames - 1 : 0; k < frames; ++k) // 1 Hz gives a lot
            model == nullptr ? feed_filter(next_frame(noise, k), output)
                             : scalar_filter_run(*model, rates[i], next_frame(noise, k), output);
    }
    return output;
}

void compare_forms(const std::vector<int32_t> &rates, int32_t use_short, int64_t frames)
{
    auto model = use_short != 0 ? make_scalar_filter(set_44k_short, set_48k_short)
                                : make_scalar_filter(set_44k_normal, set_48k_normal);
    const auto expected = run_rates(rates, use_short, frames, &model);
    for (const int32_t width : widths) {
        if (!coeff_filter_take_form(width)) continue;
        const auto output = run_rates(rates, use_short, frames, nullptr);
        ASSERT_EQ(output.size(), expected.size()) << width << " " << rates[0];
        ASSERT_EQ(std::memcmp(output.data(), expected.data(), output.size() * sizeof(float)), 0)
            << width << " floats, " << rates[0] << " Hz, short " << use_short;
    }
}

#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr int64_t frames_to_compare = 72000; // a million over all rates and sets
#else
constexpr int64_t frames_to_compare = 3000; // more than the longest table, twice
#endif

TEST_F(filter_test, equals_the_scalar_filter_bit_for_bit)
{
    const int64_t frames = std::getenv("SONIVANE_FULL") != nullptr ? 1000000 : frames_to_compare;
    for (const int32_t rate : {44100, 48000, 88200, 96000, 192000, 352800, 384000})
        for (const int32_t use_short : {0, 1}) compare_forms({rate}, use_short, frames);
}

// A second set-up changes the rates of a running stream, and nothing else. Most of these demand
// more room for the output than the one before.
TEST_F(filter_test, keeps_its_stream_over_set_ups_cuts_and_hostile_rates)
{
    compare_forms({384000, 352801, 352799,  48000,       44101,   44100, 44100,
                   44100,  44100,  44099,   22050,       10000,   8000,  1,
                   0,      -1,     INT_MIN, INT_MAX - 1, INT_MAX, 44100, 48000},
                  1, std::min<int64_t>(frames_to_compare, 7000));
}

TEST_F(filter_test, gives_nothing_without_a_filter_a_rate_or_a_place_for_the_count)
{
    const std::array<float, 2> input{1, 1};
    int32_t count = -1;
    EXPECT_EQ(coeff_filter_run(input.data(), &count), nullptr);
    for (const int32_t rate : {48000, 0, -1, INT_MIN}) {
        coeff_filter_init(rate, 352800, 2, 1);
        EXPECT_EQ(coeff_filter_run(input.data(), rate > 0 ? nullptr : &count), nullptr) << rate;
        EXPECT_EQ(count, 0) << rate;
    }
}

// Taps that count upward answer an impulse of 1.0 left and 2.0 right, in an early call of the first
// turn of the table or of a later one.
TEST_F(filter_test, answers_an_impulse_as_reckoned_by_hand)
{
    std::array<float, 24> taps{};
    std::iota(taps.begin(), taps.end(), 1.0F);
    const coeff_set set_24{24, taps.data()};
    const coeff_set set_16{16, taps.data()};
    const coeff_row rows[]{{44100, 352800, &set_24}, {0, 352800, &set_16}, {-1, -1, nullptr}};
    const struct {
        int32_t rate, turn, call, first; // calls of a turn; the first output frame of the figures
        std::vector<double> figures;     // in units of the gain, 0.9
    } cases[]{
        {44100, 4, 3, 32, {147, 129, 110, 90,  69,  47, 24, 0,  108, 116, 124,
                           132, 140, 148, 156, 164, 44, 52, 60, 68,  76,  84,
                           92,  100, 1,   3,   6,   10, 15, 21, 28,  36}},
        {352800, 20, 0, 1, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0, 0, 0, 0, 1}},
        {352800, 20, 1, 4, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1}},
        {352800, 20, 2, 4, {3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1, 2}},
        {352800, 20, 3, 4, {4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1, 2, 3}},
    };
    for (const auto &[rate, turn, call, first, figures] : cases)
        for (const int32_t width : widths)
            for (const int32_t at : {call, turn + call, 17 * turn + call}) {
                const bool present = coeff_filter_take_form(width);
                ASSERT_TRUE(present || width > 4);
                if (!present) continue;
                coeff_filter_init_rows(rows, rate, 352800, 2);
                std::vector<float> output;
                for (int32_t i = 0; i < at + 60; ++i)
                    feed_filter({i == at ? 1.0F : 0.0F, i == at ? 2.0F : 0.0F}, output);
                std::vector<double> due(output.size() / 2);
                std::copy(figures.begin(), figures.end(),
                          due.begin() + (at - call) * (352800 / rate) + first);
                for (size_t i = 0; i < output.size(); ++i)
                    ASSERT_NEAR(output[i], (i % 2 == 0 ? 0.9 : 1.8) * due[i / 2], 4e-5)
                        << width << " floats, " << rate << " Hz, call " << at << ", float " << i;
            }
}

// Prints the flags when the process leaves, which only a plain exit does.
void init_at_exit(int32_t target_rate, int32_t channels, int32_t allocations)
{
    std::atexit([] { std::fprintf(stderr, " flags %d %d", int{stop_output}, int{interrupted}); });
    allocations_left = allocations;
    coeff_filter_init(48000, target_rate, channels, 0);
}

TEST_F(filter_test, leaves_with_its_report_when_set_up_fails)
{
    const struct {
        int32_t target_rate, channels, allocations, number; // allocations that succeed
        const char *text;
    } cases[]{
        {352800, 1, -1, 153, "this code supports 2ch stereo only, not 1 channels\\.\n"},
        {48000, 2, -1, 171, "44k coeff table not found\\."},
        {-1, 2, -1, 171, "44k coeff table not found\\."},
        {176400, 2, -1, 230, "48k coeff table not found\\."},
        {352800, 2, 0, 193, "allocation failed\\."},
        {352800, 2, 1, 193, "allocation failed\\."},
        {352800, 2, 2, 193, "allocation failed\\."},
        {352800, 2, 3, 241, "work area could not allocated\\."},
        {352800, 2, 4, 241, "work area could not allocated\\."},
        {352800, 2, 5, 248, "work area could not allocated\\."},
        {352800, 2, 6, 253, "work area could not allocated\\."},
    };
    for (const auto &[target_rate, channels, allocations, number, text] : cases)
        EXPECT_EXIT(init_at_exit(target_rate, channels, allocations),
                    testing::ExitedWithCode(number),
                    "\nERROR common " + std::to_string(number) + " " + text + " flags -1 -1$");
    allocations_left = 7; // no more are made
    EXPECT_EQ(coeff_filter_init(48000, 352800, 2, 0), -1);
    // A source of so low a rate needs more room for the output, of which there is none left.
    EXPECT_EXIT(coeff_filter_init(1, 352800, 2, 0), testing::ExitedWithCode(241), "common 241 ");
}

// --- The coefficient sets -----------------------------------------------------------------------

// In Hz: the rate; flat within 0.01 dB up to, -3 dB, -6 dB, and under -60, -80 and -100 dB from.
const struct {
    const coeff_set *set;
    int32_t tap_count, rate;
    std::array<double, 6> edges;
    double highest_above_30k; // dB
} published[] = {
    {&set_44k_normal, 8192, 352800, {14933, 15077, 15152, 16494, 17000, 17506}, -138.2},
    {&set_44k_short, 800, 352800, {19117, 19876, 20086, 21058, 21719, 50605}, -92.1},
    {&set_48k_normal, 1024, 352800, {19341, 19983, 20161, 21361, 21792, 32214}, -98.4},
    {&set_48k_short, 192, 352800, {16190, 19300, 20168, 23888, 28941, 64312}, -81.9},
    {&set_44k_to_176k, 4096, 176400, {19926, 20032, 20068, 20618, 20823, 21059}, -128.0},
};

// Level in dB on the bins of a DFT of four times the tap count, 0 Hz to half the rate.
std::vector<double> levels(const coeff_set &set)
{
    const int64_t bins = int64_t{4} * set.tap_count;
    const int64_t centre = set.tap_count / 2 - 1;
    std::vector<double> cosines; // doubled
    for (int64_t i = 0; i < bins; ++i)
        cosines.push_back(2 * std::cos(2 * std::numbers::pi * double(i) / double(bins)));
    std::vector<double> result;
    for (int64_t k = 0; k <= bins / 2; ++k) {
        auto sum = static_cast<double>(set.taps[centre]);
        for (int64_t d = 1; d <= centre; ++d)
            sum += static_cast<double>(set.taps[centre - d]) * cosines.begin()[d * k % bins];
        result.push_back(20 * std::log10(std::abs(sum) + 1e-30));
    }
    return result;
}

TEST(coefficient_sets, respond_as_published_and_are_what_the_tool_computes)
{
    std::FILE *tool = popen(COEFFICIENT_TOOL_PATH " --print", "r"); // NOLINT(cert-env33-c)
    std::array<char, 64> line{};
    for (const auto &[set, tap_count, rate, edges, highest_above_30k] : published) {
        SCOPED_TRACE(tap_count);
        ASSERT_EQ(set->tap_count, tap_count);
        for (int32_t i = 0; i < tap_count; ++i) { // symmetric, but for a last tap of 0
            ASSERT_NE(std::fgets(line.data(), line.size(), tool), nullptr);
            ASSERT_EQ(set->taps[i], std::strtof(line.data(), nullptr)) << i;
            ASSERT_EQ(set->taps[i], i + 1 < tap_count ? set->taps[tap_count - 2 - i] : 0) << i;
        }
        const std::vector<double> level = levels(*set);
        const double bin = rate / (4.0 * tap_count);
        constexpr std::array<double, 6> limits{-0.01, -3, -6, -60, -80, -100};
        for (size_t i = 0; i < limits.size(); ++i) {
            const auto under = [&](double dB) { return dB < limits[i]; };
            // The first bin under the limit, or the last that is not.
            auto at = std::find_if(level.begin(), level.end(), under);
            if (i >= 3) at = std::find_if_not(level.rbegin(), level.rend(), under).base() - 1;
            EXPECT_NEAR(static_cast<double>(at - level.begin()) * bin, edges[i], bin) << i;
        }
        const auto from_30k = level.begin() + static_cast<int64_t>(30000 / bin) + 1;
        EXPECT_NEAR(*std::max_element(from_30k, level.end()), highest_above_30k, 0.1);
        EXPECT_LE(*std::max_element(level.begin(), level.end()), 0.0021);
    }
    EXPECT_EQ(std::fgets(line.data(), line.size(), tool), nullptr);
    EXPECT_EQ(pclose(tool), 0);
}

} // namespace
