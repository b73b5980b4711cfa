// The oversampling filter: its tables, its set-up, and its run against a scalar reference.
#include "common.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numbers>
#include <numeric>
#include <string>
#include <vector>

#include "filter_hooks.h"
#include "scalar_filter.h"
#include "sonivane.h"

// Aligned allocations that succeed before one fails; below 0: none fails.
static int32_t allocations_left = -1;

// The filter's allocations, replaced so that each of them can be made to fail.
void *operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept
{
    if (allocations_left == 0) return nullptr;
    if (allocations_left > 0) allocations_left--;
    const auto unit = static_cast<std::size_t>(alignment);
    return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}
void operator delete(void *memory, std::align_val_t) noexcept
{
    std::free(memory);
}

namespace
{

struct filter_test : testing::Test {
    void TearDown() override
    {
        coeff_filter_free();
        coeff_filter_take_form(nullptr);
        left_cut = right_cut = flag_off;
        allocations_left = -1;
    }
};

// ---- The filter against the reference

// A stretch of every kind of sample after the other: noise, impulses, denormals, full scale,
// silence. Repeatable.
struct signal {
    uint64_t state = 88172645463325252;
    int64_t at = 0;
};

float noise(signal &s)
{
    s.state ^= s.state << 13, s.state ^= s.state >> 7, s.state ^= s.state << 17;
    return static_cast<float>(static_cast<int32_t>(s.state)) * 0x1p-31F;
}

std::array<float, 2> next_frame(signal &s)
{
    const int64_t at = s.at++;
    const float left = noise(s);
    const float right = noise(s);
    const std::array<std::array<float, 2>, 6> kinds{
        {{left, right},
         {at % 97 == 0 ? 1.0F : 0.0F, at % 89 == 0 ? -1.0F : -0.0F},
         {left * 0x1p-130F, right * 0x1p-120F},
         {at % 2 == 0 ? 1.0F : -1.0F, -1.0F},
         {0.0F, right},
         {left * 0x1p-100F, at % 3 == 0 ? right : 1.0F}}};
    return kinds[static_cast<size_t>(at / 1499 % 6)];
}

#if defined(__has_feature)
#define HAS_FEATURE(feature) __has_feature(feature)
#else
#define HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) ||                               \
    HAS_FEATURE(address_sanitizer) || HAS_FEATURE(thread_sanitizer)
constexpr int64_t frames_to_compare = 1600; // a turn and a half of the longest ring
#elif defined(__OPTIMIZE__)
constexpr int64_t frames_to_compare = 72000; // a million over all rates and sets
#else
constexpr int64_t frames_to_compare = 12000;
#endif

void feed_filter(const std::array<float, 2> &input, std::vector<float> &output)
{
    int32_t count = -1;
    const float *floats = coeff_filter_run(input.data(), &count);
    output.insert(output.end(), floats, floats + count);
}

// One stream over source rates, that many frames of each, whose channels are cut left, right and
// both in turn: through the scalar model, or, if it is null, through the filter.
std::vector<float> run_rates(const std::vector<int32_t> &rates, bool use_short, int64_t frames,
                             scalar_filter *model)
{
    signal source;
    std::vector<float> output;
    for (size_t i = 0; i < rates.size(); i++) {
        left_cut = (i & 1) != 0 ? flag_on : flag_off;
        right_cut = (i & 2) != 0 ? flag_on : flag_off;
        if (model == nullptr) coeff_filter_init(rates[i], 352800, 2, use_short ? 1 : 0);
        for (int64_t k = rates[i] < 2 ? frames - 1 : 0; k < frames; k++) // 1 Hz gives a lot
            model == nullptr ? feed_filter(next_frame(source), output)
                             : scalar_filter_run(*model, rates[i], next_frame(source), output);
    }
    return output;
}

// Compares a new filter with the reference, bit for bit, on every form that the machine has.
void compare_forms(const std::vector<int32_t> &rates, bool use_short, int64_t frames)
{
    scalar_filter reference = use_short ? make_scalar_filter(set_44k_short, set_48k_short)
                                        : make_scalar_filter(set_44k_normal, set_48k_normal);
    const auto expected = run_rates(rates, use_short, frames, &reference);
    for (const char *form : filter_form_names) {
        SCOPED_TRACE(testing::Message() << form << " " << rates[0] << " Hz, short " << use_short);
        if (!coeff_filter_take_form(form)) continue;
        const auto output = run_rates(rates, use_short, frames, nullptr);
        coeff_filter_free();
        ASSERT_EQ(output.size(), expected.size());
        EXPECT_EQ(std::memcmp(output.data(), expected.data(), output.size() * sizeof(float)), 0);
    }
}

TEST_F(filter_test, equals_the_scalar_filter_bit_for_bit)
{
    const int64_t frames = std::getenv("SONIVANE_FULL") != nullptr ? 1000000 : frames_to_compare;
    for (const int32_t rate : {44100, 48000, 88200, 96000, 192000, 352800, 384000})
        for (const bool use_short : {false, true}) compare_forms({rate}, use_short, frames);
}

// A second set-up changes the rates of a running stream, and nothing else. Most of these demand
// more room for the output than the one before.
TEST_F(filter_test, keeps_its_stream_over_set_ups_cuts_and_hostile_rates)
{
    compare_forms({384000, 352801, 352799,  48000,       44101,   44100, 44100,
                   44100,  44100,  44099,   22050,       10000,   8000,  1,
                   0,      -1,     INT_MIN, INT_MAX - 1, INT_MAX, 44100, 48000},
                  true, std::min<int64_t>(frames_to_compare, 7000));
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

// ---- Worked figures, with taps that count upward

constexpr std::array<float, 24> counting_taps{1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                              13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
constexpr coeff_set set_24{24, counting_taps.data()};
constexpr coeff_set set_16{16, counting_taps.data()};
constexpr std::array<coeff_row, 3> small_rows{
    {{44100, 352800, &set_24}, {0, 352800, &set_16}, {-1, -1, nullptr}}};

// An impulse of 1.0 left and 2.0 right, at a call of the rings' first turn or a later one.
TEST_F(filter_test, answers_an_impulse_as_reckoned_by_hand)
{
    // The folded taps of a call come out block by block, from the table's end to its start.
    const std::vector<int32_t> folded{147, 129, 110, 90,  69,  47, 24, 0,  108, 116, 124,
                                      132, 140, 148, 156, 164, 44, 52, 60, 68,  76,  84,
                                      92,  100, 1,   3,   6,   10, 15, 21, 28,  36};
    const struct {
        int32_t source_rate, call;    // of the turn
        int32_t first;                // output frame of the turn
        std::vector<int32_t> figures; // in units of the gain, 0.9
    } cases[] = {
        {44100, 0, 8, folded},
        {44100, 1, 16, folded},
        {44100, 3, 32, folded},
        {352800, 0, 1, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0, 0, 0, 0, 1}},
        {352800, 1, 4, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1}},
        {352800, 2, 4, {3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1, 2}},
        {352800, 3, 4, {4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 1, 2, 3}},
    };
    for (const char *form : filter_form_names)
        for (const auto &[source_rate, call, first, figures] : cases)
            for (const int32_t turns : {0, 1, 4, 17}) {
                if (!coeff_filter_take_form(form)) continue;
                coeff_filter_init_rows(small_rows.data(), source_rate, 352800, 2);
                const int32_t at = turns * (source_rate == 44100 ? 4 : 20) + call;
                const int32_t start = turns * (source_rate == 44100 ? 32 : 20) + first;
                std::vector<float> output;
                for (int32_t i = 0; i < at + 60; i++)
                    feed_filter({i == at ? 1.0F : 0.0F, i == at ? 2.0F : 0.0F}, output);
                coeff_filter_free();
                std::vector<double> due(output.size() / 2);
                ASSERT_GE(due.size(), static_cast<size_t>(start) + figures.size());
                std::copy(figures.begin(), figures.end(), due.begin() + start);
                for (size_t i = 0; i < due.size(); i++) {
                    ASSERT_NEAR(output[2 * i], 0.9 * due[i], 2e-5) << form << at << " " << i;
                    ASSERT_NEAR(output[2 * i + 1], 1.8 * due[i], 4e-5) << form << at << " " << i;
                }
            }
}

// ---- Counts and gain

TEST_F(filter_test, gives_as_many_frames_as_the_rates_demand)
{
    coeff_filter_init(48000, 352800, 2, 0);
    for (const int32_t frames : {8, 7, 8, 7, 7, 8}) {
        std::vector<float> output;
        feed_filter({}, output);
        EXPECT_EQ(std::ssize(output), 2 * frames);
    }
}

TEST_F(filter_test, settles_a_constant_at_nine_tenths)
{
    for (const int64_t rate : {44100, 48000, 88200, 96000, 176400, 192000, 352800, 384000})
        for (const int32_t use_short : {0, 1}) {
            coeff_filter_init(static_cast<int32_t>(rate), 352800, 2, use_short);
            std::vector<float> output;
            for (int64_t call = 1; call <= 4000; call++) {
                feed_filter({0.5F, -0.5F}, output);
                ASSERT_EQ(std::ssize(output), 2 * ((call * 352800 + rate - 1) / rate)) << rate;
            }
            coeff_filter_free();
            for (size_t i = output.size() - 1000; i < output.size(); i += 2) {
                ASSERT_NEAR(output[i], 0.45, use_short != 0 ? 0.5e-4 : 0.5e-5) << rate;
                ASSERT_EQ(output[i + 1], -output[i]);
            }
        }
}

float sine(int32_t i)
{
    return static_cast<float>(0.7 * std::sin(0.13 * i));
}

// What a sine must come out as at output frame i of the 44.1 kHz road: y[8t + c] is the sum of
// x[t - k] times the folded taps at (M + c - 8k) modulo M, k = 1 to M / 8.
double weighed_44k(const coeff_set &set, int64_t i)
{
    const int64_t length = set.tap_count + 8;
    double sum = 0;
    for (int64_t k = 1; k <= length / 8; k++) {
        const int64_t m = (length + i % 8 - 8 * k) % length;
        double folded = 0;
        for (int64_t tap = std::max<int64_t>(0, m - 7); tap <= std::min(m, length - 9); tap++)
            folded += static_cast<double>(set.taps[tap]);
        sum += 0.9 * folded * static_cast<double>(sine(static_cast<int32_t>(i / 8 - k)));
    }
    return sum;
}

// At output step i of the other road: the sum over d of the tap at d + shift times the input of
// step i - d, where the steps of odd positions lay their taps two places off.
double weighed_48k(const coeff_set &set, int64_t i, int64_t source_rate)
{
    constexpr std::array<int64_t, 4> shifts{0, -2, 0, 2};
    double sum = 0;
    for (int64_t d = 1; d <= set.tap_count + 2; d++) {
        const int64_t step = i - d;
        const int64_t tap = d + shifts[static_cast<size_t>(step % 4)];
        if (tap < 0 || tap >= set.tap_count) continue;
        const int64_t frame = step * source_rate / 352800;
        sum += 0.9 * static_cast<double>(set.taps[tap]) *
               static_cast<double>(sine(static_cast<int32_t>(frame)));
    }
    return sum;
}

TEST_F(filter_test, weighs_a_sine_with_its_taps)
{
    for (const int32_t rate : {44100, 48000, 96000})
        for (const bool use_short : {false, true}) {
            std::vector<float> output;
            coeff_filter_free();
            coeff_filter_init(rate, 352800, 2, use_short ? 1 : 0);
            for (int32_t i = 0; i < 2000; i++) feed_filter({sine(i), sine(i)}, output);
            const auto frames = static_cast<int64_t>(output.size()) / 2;
            // The first taps of the short set that come out late are larger than the long one's.
            const double near = rate != 44100 && use_short ? 5e-5 : 5e-6;
            for (int64_t i = frames - 100; i < frames; i++) {
                const double expected =
                    rate == 44100
                        ? weighed_44k(use_short ? set_44k_short : set_44k_normal, i)
                        : weighed_48k(use_short ? set_48k_short : set_48k_normal, i, rate);
                ASSERT_NEAR(output[static_cast<size_t>(2 * i)], expected, near)
                    << rate << ", short " << use_short << ", frame " << i;
            }
        }
}

// ---- Reports

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
        int32_t target_rate, channels;
        int32_t first, last, number; // allocations that succeed, and the report then
        const char *text;
    } cases[] = {
        {352800, 1, -1, -1, 153, "this code supports 2ch stereo only, not 1 channels\\.\n"},
        {48000, 2, -1, -1, 171, "44k coeff table not found\\."},
        {-1, 2, -1, -1, 171, "44k coeff table not found\\."},
        {176400, 2, -1, -1, 230, "48k coeff table not found\\."},
        {352800, 2, 0, 2, 193, "allocation failed\\."},
        {352800, 2, 3, 5, 241, "work area could not allocated\\."},
        {352800, 2, 6, 6, 248, "work area could not allocated\\."},
        {352800, 2, 7, 10, 253, "work area could not allocated\\."},
    };
    for (const auto &[target_rate, channels, first, last, number, text] : cases)
        for (int32_t allocations = first; allocations <= last; allocations++)
            EXPECT_EXIT(init_at_exit(target_rate, channels, allocations),
                        testing::ExitedWithCode(number),
                        "\nERROR common " + std::to_string(number) + " " + text + " flags -1 -1$");
    allocations_left = 11; // no more are made
    EXPECT_EQ(coeff_filter_init(48000, 352800, 2, 0), -1);
    // A source of so low a rate needs more room for the output, of which there is none left.
    EXPECT_EXIT(coeff_filter_init(1, 352800, 2, 0), testing::ExitedWithCode(241),
                "ERROR common 241 work area could not allocated\\.");
}

// ---- The coefficient sets

// Taps 0, 1, centre - 3, centre - 1 and centre, and the sum of all.
const struct {
    const coeff_set *set;
    std::array<double, 6> figures;
} published_taps[] = {
    {&set_44k_normal, {2.44176e-8, 2.78901e-8, 0.0770631, 0.0852095, 0.086262122, 1.00000014}},
    {&set_44k_short, {-3.86195e-6, -3.46949e-6, 0.0932233, 0.1114644, 0.113880686, 1.0000057}},
    {&set_48k_normal, {1.42066e-6, 8.95789e-7, 0.0934551, 0.1119144, 0.114360735, 0.9999928}},
    {&set_48k_short, {8.02587e-6, 1.75068e-5, 0.0931641, 0.1118756, 0.114360735, 1.0000458}},
    {&set_44k_to_176k, {1.30825e-7, 1.34069e-7, 0.0889884, 0.2088187, 0.227764294, 1.00000025}},
};

// In Hz: the rate; flat within 0.01 dB up to, -3 dB, -6 dB, and under -60, -80 and -100 dB from.
const struct {
    const coeff_set *set;
    int32_t tap_count, rate;
    std::array<double, 6> edges;
    double highest_above_30k; // dB
} published_responses[] = {
    {&set_44k_normal, 8192, 352800, {14933, 15077, 15152, 16494, 17000, 17506}, -138.2},
    {&set_44k_short, 800, 352800, {19117, 19876, 20086, 21058, 21719, 50605}, -92.1},
    {&set_48k_normal, 1024, 352800, {19341, 19983, 20161, 21361, 21792, 32214}, -98.4},
    {&set_48k_short, 192, 352800, {16190, 19300, 20168, 23888, 28941, 64312}, -81.9},
    {&set_44k_to_176k, 4096, 176400, {19926, 20032, 20068, 20618, 20823, 21059}, -128.0},
};

TEST(coefficient_sets, hold_the_published_taps)
{
    for (const auto &[set, figures] : published_taps) {
        SCOPED_TRACE(set->tap_count);
        const std::vector<double> taps(set->taps, set->taps + set->tap_count);
        const auto centre = taps.begin() + set->tap_count / 2 - 1;
        const double sum = std::accumulate(taps.begin(), taps.end(), 0.0);
        const std::array<double, 6> found{taps[0], taps[1], centre[-3], centre[-1], centre[0], sum};
        for (size_t i = 0; i < found.size(); i++)
            EXPECT_NEAR(found[i], figures[i],
                        std::min(i == 4 ? 6e-10 : 5.1e-8, std::abs(4e-6 * figures[i])));
        EXPECT_TRUE(std::equal(taps.begin(), taps.end() - 1, taps.rbegin() + 1));
        EXPECT_EQ(std::bit_cast<uint64_t>(taps.back()), 0U);
    }
}

// Level in dB on the bins of a DFT of four times the tap count, 0 Hz to half the rate.
std::vector<double> levels(const coeff_set &set)
{
    const int64_t bins = int64_t{4} * set.tap_count;
    const int64_t centre = set.tap_count / 2 - 1;
    const double angle = 2 * std::numbers::pi / static_cast<double>(bins);
    std::vector<double> cosines(static_cast<size_t>(bins)); // doubled
    for (int32_t i = 0; i < bins; i++) cosines.begin()[i] = 2 * std::cos(angle * i);
    std::vector<double> result;
    for (int64_t k = 0; k <= bins / 2; k++) {
        auto sum = static_cast<double>(set.taps[centre]);
        for (int64_t d = 1; d <= centre; d++)
            sum += static_cast<double>(set.taps[centre - d]) * cosines.begin()[d * k % bins];
        result.push_back(20 * std::log10(std::abs(sum) + 1e-30));
    }
    return result;
}

TEST(coefficient_sets, respond_as_published)
{
    for (const auto &[set, tap_count, rate, edges, highest_above_30k] : published_responses) {
        SCOPED_TRACE(tap_count);
        ASSERT_EQ(set->tap_count, tap_count);
        const std::vector<double> level = levels(*set);
        const double bin = rate / (4.0 * tap_count);
        constexpr std::array<double, 6> limits{-0.01, -3, -6, -60, -80, -100};
        for (size_t i = 0; i < limits.size(); i++) {
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
}

TEST(coefficient_sets, are_what_the_tool_computes)
{
    std::FILE *tool = popen(COEFFICIENT_TOOL_PATH " --print", "r"); // NOLINT(cert-env33-c)
    std::array<char, 64> line{};
    for (const auto &[set, figures] : published_taps)
        for (int32_t i = 0; i < set->tap_count; i++) {
            ASSERT_NE(std::fgets(line.data(), line.size(), tool), nullptr) << set->tap_count;
            ASSERT_EQ(std::strtof(line.data(), nullptr), set->taps[i])
                << set->tap_count << " " << i;
        }
    EXPECT_EQ(std::fgets(line.data(), line.size(), tool), nullptr);
    EXPECT_EQ(pclose(tool), 0);
}

} // namespace
