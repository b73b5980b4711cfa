// The oversampling filter: its run against the scalar one, its set-up and its coefficient sets.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numbers>
#include <numeric>
#include <random>

#include "common.h"
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

// The sets of both families. The last ones are shorter than what is worked out at a time.
struct set_pair {
    coeff_set family44;
    coeff_set family48;
} const pairs[]{{set_44k_normal, set_48k_normal},
                {set_44k_short, set_48k_short},
                {{24, set_44k_short.taps + 388}, {16, set_48k_short.taps + 88}}};

// One stream over source rates, that many frames of each, whose channels are cut left, right and
// both in turn: through the scalar filter, or, if it is null, through the shipped one.
std::vector<float> run_rates(const std::vector<int32_t> &rates, const set_pair &sets,
                             int64_t frames, scalar_filter *model)
{
    const coeff_row rows[]{
        {44100, 352800, &sets.family44}, {0, 352800, &sets.family48}, {-1, -1, nullptr}};
    std::minstd_rand noise;
    std::vector<float> output;
    const auto run_shipped = [&output](const std::array<float, 2> &input) {
        int32_t count = -1;
        const float *floats = coeff_filter_run(input.data(), &count);
        output.insert(output.end(), floats, floats + count);
    };
    for (size_t i = 0; i < rates.size(); ++i) {
        left_cut = (i & 1) != 0 ? flag_on : flag_off;
        right_cut = (i & 2) != 0 ? flag_on : flag_off;
        if (model == nullptr) coeff_filter_init_rows(rows, rates[i], 352800, 2);
        for (int64_t k = rates[i] < 2 ? frames - 1 : 0; k < frames; ++k) // 1 Hz gives a lot
            model == nullptr ? run_shipped(next_frame(noise, k))
                             : scalar_filter_run(*model, rates[i], next_frame(noise, k), output);
    }
    coeff_filter_free(); // it knows the rows
    left_cut = right_cut = flag_off;
    return output;
}

void compare_widths(const std::vector<int32_t> &rates, const set_pair &sets, int64_t frames)
{
    scalar_filter model = make_scalar_filter(sets.family44, sets.family48);
    const auto expected = run_rates(rates, sets, frames, &model);
    for (const int32_t width : {4, 8, 16}) { // of vectors, in floats
        const bool present = coeff_filter_take_width(width);
        ASSERT_TRUE(present || width > 4);
        if (!present) continue;
        const auto output = run_rates(rates, sets, frames, nullptr);
        ASSERT_EQ(output.size(), expected.size()) << width << " " << rates[0];
        ASSERT_EQ(std::memcmp(output.data(), expected.data(), output.size() * sizeof(float)), 0)
            << width << " floats, " << rates[0] << " Hz, " << sets.family44.tap_count << " taps";
    }
    coeff_filter_take_width(0);
}

#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr int64_t frames_to_compare = 72000; // over a million over all rates and sets
#else
constexpr int64_t frames_to_compare = 3000; // more than the longest table, twice
#endif

TEST(filter, equals_the_scalar_filter_bit_for_bit)
{
    const int64_t frames = std::getenv("SONIVANE_FULL") != nullptr ? 1000000 : frames_to_compare;
    for (const int32_t rate : {44100, 48000, 88200, 96000, 192000, 352800, 384000})
        for (const set_pair &sets : pairs) compare_widths({rate}, sets, frames);
}

// The judge of the scalar filter: taps that count upward, and an impulse of 1.0 left and 2.0 right.
TEST(filter, the_scalar_one_answers_an_impulse_as_reckoned_by_hand)
{
    std::array<float, 24> taps;
    std::iota(taps.begin(), taps.end(), 1.0F);
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
    for (const auto &[rate, turn, call, first, figures] : cases) {
        const int32_t at = 17 * turn + call;
        scalar_filter filter = make_scalar_filter({24, taps.data()}, {16, taps.data()});
        std::vector<float> output;
        for (int32_t i = 0; i < at + 60; ++i)
            scalar_filter_run(filter, rate, {i == at ? 1.0F : 0.0F, i == at ? 2.0F : 0.0F}, output);
        std::vector<double> due(output.size() / 2);
        std::copy(figures.begin(), figures.end(),
                  due.begin() + (at - call) * (352800 / rate) + first);
        for (size_t i = 0; i < output.size(); ++i)
            ASSERT_NEAR(output[i], (i % 2 == 0 ? 0.9 : 1.8) * due[i / 2], 4e-5) << rate << " " << i;
    }
}

// A second set-up changes the rates of a running stream, and nothing else. Most of these demand
// more room for the output than the one before; from those below 1 nothing comes.
TEST(filter, keeps_its_stream_over_set_ups_cuts_and_hostile_rates)
{
    compare_widths({384000, 352801, 352799,  48000,       44101,   44100, 44100,
                    44100,  44100,  44099,   22050,       10000,   8000,  1,
                    0,      -1,     INT_MIN, INT_MAX - 1, INT_MAX, 44100, 48000},
                   pairs[1], std::min<int64_t>(frames_to_compare, 7000));
}

int32_t set_up(int32_t allocations, int32_t source_rate, int32_t target_rate, int32_t channels)
{
    allocations_left = allocations;
    const int32_t result = coeff_filter_init(source_rate, target_rate, channels, 0);
    allocations_left = -1;
    return result;
}

TEST(filter, leaves_with_its_report_when_set_up_fails)
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
        EXPECT_EXIT(set_up(allocations, 48000, target_rate, channels),
                    testing::ExitedWithCode(number),
                    "\nERROR common " + std::to_string(number) + " " + text + "$");
    EXPECT_EQ(set_up(7, 48000, 352800, 2), -1); // no more are made
    // A source of so low a rate needs more room for the output.
    EXPECT_EXIT(set_up(0, 1, 352800, 2), testing::ExitedWithCode(241), "common 241 ");
    coeff_filter_free();
}

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
        for (size_t i = 0; i < limits.size(); ++i) { // the last bin that is not under the limit
            const auto under = [&](double dB) { return dB < limits[i]; };
            const auto from = std::find_if_not(level.rbegin(), level.rend(), under).base();
            EXPECT_NEAR(double(from - level.begin() - 1) * bin, edges[i], bin) << i;
        }
        const auto from_30k = level.begin() + static_cast<int64_t>(30000 / bin) + 1;
        EXPECT_NEAR(*std::max_element(from_30k, level.end()), highest_above_30k, 0.1);
        EXPECT_LE(*std::max_element(level.begin(), level.end()), 0.0021);
    }
    EXPECT_EQ(std::fgets(line.data(), line.size(), tool), nullptr);
    EXPECT_EQ(pclose(tool), 0);
}

} // namespace
