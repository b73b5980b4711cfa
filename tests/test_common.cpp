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
#include <string>
#include <vector>

#include "filter_hooks.h"
#include "scalar_filter.h"
#include "sonivane.h"

namespace
{

// Aligned allocations that succeed before one fails; below 0: none fails.
int32_t allocations_left = -1;

} // namespace

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
void operator delete(void *memory, std::align_val_t, const std::nothrow_t &) noexcept
{
    std::free(memory);
}

namespace
{

struct set_pair {
    const coeff_set *family44;
    const coeff_set *family48;
};
constexpr std::array<set_pair, 2> set_pairs{
    {{&set_44k_normal, &set_48k_normal}, {&set_44k_short, &set_48k_short}}};

class filter_test : public testing::Test
{
  protected:
    void TearDown() override
    {
        coeff_filter_free();
        coeff_filter_take_form(nullptr);
        left_cut = right_cut = flag_off;
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
    constexpr int64_t stretch = 1499;
    const int64_t at = s.at++;
    switch (at / stretch % 6) {
    case 0:
        return {noise(s), noise(s)};
    case 1:
        return {at % 97 == 0 ? 1.0F : 0.0F, at % 89 == 0 ? -1.0F : -0.0F};
    case 2:
        return {noise(s) * 0x1p-130F, noise(s) * 0x1p-120F};
    case 3:
        return {at % 2 == 0 ? 1.0F : -1.0F, -1.0F};
    case 4:
        return {0.0F, noise(s)};
    default:
        return {noise(s) * 0x1p-100F, at % 3 == 0 ? noise(s) : 1.0F};
    }
}

// Input frames of one rate and set: a million where the whole check was asked for.
int64_t frames_to_compare()
{
    if (std::getenv("SONIVANE_FULL") != nullptr) return 1000000;
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    return 72000; // a million over all rates and sets
#else
    return 12000;
#endif
}

// Runs the shipped filter over what the reference was given. The first call that differs, or -1.
int64_t first_difference(const std::vector<float> &expected, signal &source, int64_t frames)
{
    size_t done = 0;
    for (int64_t i = 0; i < frames; i++) {
        const auto input = next_frame(source);
        int32_t count = -1;
        const float *output = coeff_filter_run(input.data(), &count);
        if (output == nullptr || count < 0) return i;
        const auto floats = static_cast<size_t>(count);
        if (done + floats > expected.size()) return i;
        if (std::memcmp(output, expected.data() + done, floats * sizeof(float)) != 0) return i;
        done += floats;
    }
    return done == expected.size() ? -1 : frames;
}

std::vector<float> run_reference(scalar_filter &reference, signal &source, int64_t frames)
{
    std::vector<float> output;
    for (int64_t i = 0; i < frames; i++) {
        const auto [left, right] = next_frame(source);
        scalar_filter_run(reference, left, right, output);
    }
    return output;
}

// Compares a new filter with the reference on every form that the machine has.
void compare_forms(int32_t source_rate, int32_t use_short, int64_t frames)
{
    const auto [family44, family48] = set_pairs[static_cast<size_t>(use_short)];
    scalar_filter reference = make_scalar_filter(*family44, *family48, source_rate);
    signal fed;
    const std::vector<float> expected = run_reference(reference, fed, frames);
    for (const char *form : filter_form_names) {
        if (!coeff_filter_take_form(form)) continue;
        ASSERT_EQ(coeff_filter_init(source_rate, 352800, 2, use_short), -1);
        signal source;
        EXPECT_EQ(first_difference(expected, source, frames), -1)
            << form << ", " << source_rate << " Hz, short " << use_short;
        coeff_filter_free();
    }
}

class every_rate : public filter_test, public testing::WithParamInterface<int32_t>
{
};

TEST_P(every_rate, equals_the_scalar_filter_bit_for_bit)
{
    for (const int32_t use_short : {0, 1})
        compare_forms(GetParam(), use_short, frames_to_compare());
}

INSTANTIATE_TEST_SUITE_P(rates, every_rate,
                         testing::Values(44100, 48000, 88200, 96000, 192000, 352800, 384000),
                         testing::PrintToStringParamName());

TEST_F(filter_test, serves_rates_that_nobody_expects)
{
    struct {
        int32_t source_rate;
        int64_t frames;
    } const cases[] = {{1, 1},         {8000, 300},          {22050, 600},
                       {44099, 600},   {44101, 600},         {352799, 3000},
                       {352801, 3000}, {INT_MAX - 1, 30000}, {INT_MAX, 30000}};
    for (const auto &[source_rate, frames] : cases) compare_forms(source_rate, 1, frames);
}

TEST_F(filter_test, gives_no_frames_below_1_hz)
{
    for (const int32_t rate : {0, -1, INT_MIN}) {
        ASSERT_EQ(coeff_filter_init(rate, 352800, 2, 1), -1);
        int32_t count = -1;
        const std::array<float, 2> input{1, 1};
        EXPECT_EQ(coeff_filter_run(input.data(), &count), nullptr) << rate;
        EXPECT_EQ(count, 0) << rate;
    }
    ASSERT_EQ(coeff_filter_init(48000, 352800, 2, 1), -1);
    EXPECT_EQ(coeff_filter_run(std::array<float, 2>{}.data(), nullptr), nullptr);
}

TEST_F(filter_test, is_nothing_before_set_up_and_after_its_end)
{
    int32_t count = -1;
    const std::array<float, 2> input{1, 1};
    coeff_filter_free();
    EXPECT_EQ(coeff_filter_run(input.data(), &count), nullptr);
    for (const int32_t use_short : {1, 0, 1}) { // no trace of the one before
        compare_forms(48000, use_short, 3000);
        compare_forms(44100, use_short, 3000);
    }
    coeff_filter_free();
    EXPECT_EQ(coeff_filter_run(input.data(), &count), nullptr);
}

// A second set-up changes the rates of a running stream, and nothing else.
TEST_F(filter_test, keeps_its_stream_over_a_second_set_up)
{
    for (const char *form : filter_form_names) {
        if (!coeff_filter_take_form(form)) continue;
        scalar_filter reference = make_scalar_filter(set_44k_short, set_48k_short, 0);
        signal fed;
        signal source;
        for (const int32_t rate : {48000, 96000, 44100, 10000, 44100, 384000, 48000}) {
            ASSERT_EQ(coeff_filter_init(rate, 352800, 2, 1), -1);
            reference.source_rate = rate;
            const std::vector<float> expected = run_reference(reference, fed, 333);
            EXPECT_EQ(first_difference(expected, source, 333), -1) << form << ", " << rate;
        }
        coeff_filter_free();
    }
}

TEST_F(filter_test, cuts_channels_on_the_44k_road_alone)
{
    for (const int32_t rate : {44100, 48000})
        for (const int32_t cuts : {1, 2, 3}) {
            left_cut = (cuts & 1) != 0 ? flag_on : flag_off;
            right_cut = (cuts & 2) != 0 ? flag_on : flag_off;
            scalar_filter reference = make_scalar_filter(set_44k_short, set_48k_short, rate);
            reference.cut_left = left_cut != 0;
            reference.cut_right = right_cut != 0;
            signal fed;
            signal source;
            const std::vector<float> expected = run_reference(reference, fed, 2000);
            ASSERT_EQ(coeff_filter_init(rate, 352800, 2, 1), -1);
            EXPECT_EQ(first_difference(expected, source, 2000), -1) << rate << " " << cuts;
            coeff_filter_free();
        }
}

// ---- Worked figures, with taps that count upward

template <size_t size> constexpr std::array<float, size> counting_taps()
{
    std::array<float, size> taps{};
    for (size_t i = 0; i < size; i++) taps[i] = static_cast<float>(i + 1);
    return taps;
}
constexpr auto taps_24 = counting_taps<24>();
constexpr auto taps_16 = counting_taps<16>();
constexpr coeff_set set_24 = coeff_set_of(taps_24);
constexpr coeff_set set_16 = coeff_set_of(taps_16);
constexpr std::array<coeff_row, 3> small_rows{
    {{44100, 352800, &set_24}, {0, 352800, &set_16}, {-1, -1, nullptr}}};

// Feeds zeros and, at the given call, an impulse of 1.0 left and 2.0 right. Result: the floats of
// all calls.
std::vector<float> impulse_response(const char *form, int32_t source_rate, int32_t at,
                                    int32_t calls)
{
    std::vector<float> output;
    if (!coeff_filter_take_form(form)) return output;
    coeff_filter_init_rows(small_rows.data(), source_rate, 352800, 2);
    for (int32_t i = 0; i < calls; i++) {
        const std::array<float, 2> input{i == at ? 1.0F : 0.0F, i == at ? 2.0F : 0.0F};
        int32_t count = 0;
        const float *floats = coeff_filter_run(input.data(), &count);
        output.insert(output.end(), floats, floats + count);
    }
    coeff_filter_free();
    return output;
}

void expect_channels(const std::vector<float> &output, const std::vector<double> &left,
                     const std::string &what)
{
    ASSERT_EQ(output.size(), 2 * left.size()) << what;
    for (size_t i = 0; i < left.size(); i++) {
        EXPECT_NEAR(output[2 * i], left[i], 2e-5) << what << ", left " << i;
        EXPECT_NEAR(output[2 * i + 1], 2 * left[i], 4e-5) << what << ", right " << i;
    }
}

// The folded taps of a call come out block by block, from the table's end to its start.
TEST_F(filter_test, folds_an_input_over_eight_frames)
{
    const std::vector<double> merged{0.9,   2.7,   5.4,   9.0,   13.5,  18.9,  25.2,  32.4,
                                     39.6,  46.8,  54.0,  61.2,  68.4,  75.6,  82.8,  90.0,
                                     97.2,  104.4, 111.6, 118.8, 126.0, 133.2, 140.4, 147.6,
                                     132.3, 116.1, 99.0,  81.0,  62.1,  42.3,  21.6,  0.0};
    for (const char *form : filter_form_names)
        for (const int32_t at : {0, 1, 3, 70}) { // over the ring's turns and the batches' ends
            const int32_t frames_before = 8 * (at + 1);
            std::vector<double> expected(static_cast<size_t>(frames_before));
            for (ptrdiff_t block = 3; block >= 0; block--)
                expected.insert(expected.end(), merged.begin() + 8 * block,
                                merged.begin() + 8 * block + 8);
            expected.resize(expected.size() + 64);
            const auto output = impulse_response(form, 44100, at, at + 13);
            if (!output.empty()) expect_channels(output, expected, form);
        }
}

TEST_F(filter_test, lays_taps_by_the_positions_copy)
{
    struct {
        int32_t position;
        int32_t first_step;
        std::vector<double> output;
    } const cases[] = {
        {0, 1, {1.8,  2.7,  3.6,  4.5,  5.4,  6.3, 7.2, 8.1, 9.0, 9.9,
                10.8, 11.7, 12.6, 13.5, 14.4, 0,   0,   0,   0,   0.9}},
        {1,
         4,
         {1.8, 2.7, 3.6, 4.5, 5.4, 6.3, 7.2, 8.1, 9.0, 9.9, 10.8, 11.7, 12.6, 13.5, 14.4, 0.9}},
        {2,
         4,
         {2.7, 3.6, 4.5, 5.4, 6.3, 7.2, 8.1, 9.0, 9.9, 10.8, 11.7, 12.6, 13.5, 14.4, 0.9, 1.8}},
        {3,
         4,
         {3.6, 4.5, 5.4, 6.3, 7.2, 8.1, 9.0, 9.9, 10.8, 11.7, 12.6, 13.5, 14.4, 0.9, 1.8, 2.7}},
    };
    constexpr int32_t ring = 20;
    for (const char *form : filter_form_names)
        for (const auto &[position, first_step, figures] : cases)
            for (const int32_t turns : {0, 1, 4}) {
                const int32_t start = turns * ring;
                std::vector<double> expected(static_cast<size_t>(start + first_step));
                expected.insert(expected.end(), figures.begin(), figures.end());
                const int32_t calls = start + 3 * ring;
                expected.resize(static_cast<size_t>(calls));
                const auto output = impulse_response(form, 352800, start + position, calls);
                if (!output.empty()) expect_channels(output, expected, form);
            }
}

// ---- Counts

TEST_F(filter_test, gives_as_many_frames_as_the_rates_demand)
{
    for (const int32_t rate : {44100, 48000, 88200, 96000, 176400, 192000, 352800, 384000}) {
        ASSERT_EQ(coeff_filter_init(rate, 352800, 2, 1), -1);
        const std::array<float, 2> input{};
        for (int64_t call = 0, total = 0; call < 2000; call++) {
            int32_t count = -1;
            coeff_filter_run(input.data(), &count);
            const int64_t due = ((call + 1) * 352800 + rate - 1) / rate; // rounded up
            ASSERT_EQ(count, 2 * (due - total)) << rate << " Hz, call " << call;
            total = due;
        }
        coeff_filter_free();
    }
    ASSERT_EQ(coeff_filter_init(48000, 352800, 2, 0), -1);
    int32_t frames = 0;
    for (int32_t call = 0; call < 20; call++) {
        constexpr std::array<int32_t, 6> first_counts{8, 7, 8, 7, 7, 8};
        int32_t count = -1;
        coeff_filter_run(std::array<float, 2>{}.data(), &count);
        if (call < 6) {
            EXPECT_EQ(count / 2, first_counts[static_cast<size_t>(call)]) << call;
        }
        frames += count / 2;
    }
    EXPECT_EQ(frames, 147);
}

// ---- Gain

std::vector<float> run_wave(int32_t rate, int32_t use_short, int32_t frames, float (*wave)(int32_t))
{
    std::vector<float> output;
    coeff_filter_init(rate, 352800, 2, use_short);
    for (int32_t i = 0; i < frames; i++) {
        const std::array<float, 2> input{wave(i), -wave(i)};
        int32_t count = 0;
        const float *floats = coeff_filter_run(input.data(), &count);
        output.insert(output.end(), floats, floats + count);
    }
    coeff_filter_free();
    return output;
}

TEST_F(filter_test, settles_a_constant_at_nine_tenths)
{
    for (const int32_t rate : {44100, 48000, 96000, 352800})
        for (const int32_t use_short : {0, 1}) {
            const auto output = run_wave(rate, use_short, 4000, [](int32_t) { return 0.5F; });
            const double near = use_short != 0 ? 0.5e-4 : 0.5e-5;
            for (size_t i = output.size() - 1000; i < output.size(); i += 2) {
                ASSERT_NEAR(output[i], 0.45, near) << rate << ", short " << use_short;
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
        for (const int32_t use_short : {0, 1}) {
            const auto output = run_wave(rate, use_short, 2000, sine);
            const auto [family44, family48] = set_pairs[static_cast<size_t>(use_short)];
            const auto frames = static_cast<int64_t>(output.size()) / 2;
            // The first taps of the short set that come out late are larger than the long one's.
            const double near = rate != 44100 && use_short != 0 ? 5e-5 : 5e-6;
            for (int64_t i = frames - 100; i < frames; i++) {
                const double expected =
                    rate == 44100 ? weighed_44k(*family44, i) : weighed_48k(*family48, i, rate);
                ASSERT_NEAR(output[static_cast<size_t>(2 * i)], expected, near)
                    << rate << ", short " << use_short << ", frame " << i;
            }
        }
}

// ---- Reports

using filter_death_test = filter_test;

// Prints the flags when the process leaves, which only a plain exit does.
void show_flags_at_exit()
{
    std::atexit([] {
        std::fprintf(stderr, " stop_output %d interrupted %d", stop_output.load(),
                     interrupted.load());
    });
}

void init_at_exit(int32_t target_rate, int32_t channels, int32_t allocations)
{
    show_flags_at_exit();
    allocations_left = allocations;
    coeff_filter_init(48000, target_rate, channels, 0);
}

TEST_F(filter_death_test, leaves_with_its_report_when_set_up_fails)
{
    const std::string flags = " stop_output -1 interrupted -1$";
    struct {
        int32_t target_rate;
        int32_t channels;
        int32_t allocations; // that succeed
        int32_t number;
        std::string text;
    } const cases[] = {
        {352800, 1, -1, 153, "this code supports 2ch stereo only, not 1 channels\\.\n"},
        {352800, 6, -1, 153, "this code supports 2ch stereo only, not 6 channels\\.\n"},
        {48000, 2, -1, 171, "44k coeff table not found\\."},
        {-1, 2, -1, 171, "44k coeff table not found\\."},
        {352800, 2, 0, 193, "allocation failed\\."},
        {352800, 2, 1, 193, "allocation failed\\."},
        {352800, 2, 2, 193, "allocation failed\\."},
        {176400, 2, -1, 230, "48k coeff table not found\\."},
        {352800, 2, 3, 241, "work area could not allocated\\."},
        {352800, 2, 4, 241, "work area could not allocated\\."},
        {352800, 2, 5, 241, "work area could not allocated\\."},
        {352800, 2, 6, 248, "work area could not allocated\\."},
        {352800, 2, 7, 253, "work area could not allocated\\."},
        {352800, 2, 8, 253, "work area could not allocated\\."},
        {352800, 2, 9, 253, "work area could not allocated\\."},
        {352800, 2, 10, 253, "work area could not allocated\\."},
    };
    for (const auto &c : cases)
        EXPECT_EXIT(init_at_exit(c.target_rate, c.channels, c.allocations),
                    testing::ExitedWithCode(c.number),
                    "\nERROR common " + std::to_string(c.number) + " " + c.text + flags);
    allocations_left = 11; // no more are made
    EXPECT_EQ(coeff_filter_init(48000, 352800, 2, 0), -1);
    allocations_left = -1;
}

// A source of so low a rate that the output needs more room than it has.
TEST_F(filter_death_test, leaves_when_a_second_set_up_finds_no_room)
{
    const auto set_up_again = [] {
        coeff_filter_init(48000, 352800, 2, 1);
        allocations_left = 0;
        coeff_filter_init(1, 352800, 2, 1);
    };
    EXPECT_EXIT(set_up_again(), testing::ExitedWithCode(241),
                "ERROR common 241 work area could not allocated\\.");
}

// ---- The coefficient sets

struct set_figures {
    const coeff_set *set;
    int32_t tap_count;
    int32_t rate; // Hz
    const char *sum;
    std::array<const char *, 5> taps; // 0, 1, centre - 3, centre - 1, centre
    // Hz: flat within 0.01 dB up to, -3 dB, -6 dB, and under -60, -80 and -100 dB from.
    std::array<double, 6> edges;
    double highest_above_30k; // dB
};

const std::array<set_figures, 5> all_figures{{
    {&set_44k_normal,
     8192,
     352800,
     "1.00000014",
     {"2.44176e-8", "2.78901e-8", "0.0770631", "0.0852095", "0.086262122"},
     {14933, 15077, 15152, 16494, 17000, 17506},
     -138.2},
    {&set_44k_short,
     800,
     352800,
     "1.0000057",
     {"-3.86195e-6", "-3.46949e-6", "0.0932233", "0.1114644", "0.113880686"},
     {19117, 19876, 20086, 21058, 21719, 50605},
     -92.1},
    {&set_48k_normal,
     1024,
     352800,
     "0.9999928",
     {"1.42066e-6", "8.95789e-7", "0.0934551", "0.1119144", "0.114360735"},
     {19341, 19983, 20161, 21361, 21792, 32214},
     -98.4},
    {&set_48k_short,
     192,
     352800,
     "1.0000458",
     {"8.02587e-6", "1.75068e-5", "0.0931641", "0.1118756", "0.114360735"},
     {16190, 19300, 20168, 23888, 28941, 64312},
     -81.9},
    {&set_44k_to_176k,
     4096,
     176400,
     "1.00000025",
     {"1.30825e-7", "1.34069e-7", "0.0889884", "0.2088187", "0.227764294"},
     {19926, 20032, 20068, 20618, 20823, 21059},
     -128.0},
}};

// Half a unit of the last digit of a printed number; a little more for single precision.
double half_last_digit(const std::string &printed)
{
    const size_t e = printed.find('e');
    const std::string digits = printed.substr(0, e);
    const int exponent = e == std::string::npos ? 0 : std::stoi(printed.substr(e + 1));
    const auto decimals = static_cast<int>(digits.size() - 1 - digits.find('.'));
    return 0.5 * std::pow(10.0, exponent - decimals) + 1e-10 * std::abs(std::stod(printed));
}

void expect_printed(double value, const std::string &printed)
{
    EXPECT_NEAR(value, std::stod(printed), half_last_digit(printed));
}

TEST(coefficient_sets, hold_the_published_taps)
{
    for (const set_figures &f : all_figures) {
        SCOPED_TRACE(f.tap_count);
        ASSERT_EQ(f.set->tap_count, f.tap_count);
        const int32_t centre = f.tap_count / 2 - 1;
        const float *taps = f.set->taps;
        const std::array<int32_t, 5> places{0, 1, centre - 3, centre - 1, centre};
        for (size_t i = 0; i < places.size(); i++)
            expect_printed(static_cast<double>(taps[places[i]]), f.taps[i]);
        double sum = 0;
        for (int32_t i = 0; i < f.tap_count; i++) sum += static_cast<double>(taps[i]);
        expect_printed(sum, f.sum);
        for (int32_t i = 0; i <= f.tap_count - 2; i++)
            ASSERT_EQ(taps[i], taps[f.tap_count - 2 - i]) << i;
        EXPECT_EQ(std::bit_cast<uint32_t>(taps[f.tap_count - 1]), 0U);
    }
}

// Level in dB on the bins of a DFT of four times the tap count, 0 Hz to half the rate.
std::vector<double> levels(const coeff_set &set)
{
    const int64_t bins = int64_t{4} * set.tap_count;
    const int64_t centre = set.tap_count / 2 - 1;
    std::vector<double> cosines(static_cast<size_t>(bins));
    for (int64_t i = 0; i < bins; i++)
        cosines[static_cast<size_t>(i)] =
            std::cos(2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(bins));
    std::vector<double> result;
    for (int64_t k = 0; k <= bins / 2; k++) {
        double sum = static_cast<double>(set.taps[centre]);
        for (int64_t d = 1, turn = k; d <= centre; d++, turn = (turn + k) % bins)
            sum +=
                2 * static_cast<double>(set.taps[centre - d]) * cosines[static_cast<size_t>(turn)];
        result.push_back(20 * std::log10(std::abs(sum) + 1e-30));
    }
    return result;
}

TEST(coefficient_sets, respond_as_published)
{
    for (const set_figures &f : all_figures) {
        SCOPED_TRACE(f.tap_count);
        const std::vector<double> level = levels(*f.set);
        const double bin = f.rate / (4.0 * f.tap_count);
        // Where the response first falls to the limit, on a straight line between two bins.
        const auto falls_to = [&](double limit) {
            const auto at =
                std::find_if(level.begin(), level.end(), [=](double dB) { return dB < limit; });
            const double part = (at[-1] - limit) / (at[-1] - at[0]);
            return (static_cast<double>(at - level.begin()) - 1 + part) * bin;
        };
        // The last bin that is not under the limit.
        const auto under_from = [&](double limit) {
            const auto last =
                std::find_if(level.rbegin(), level.rend(), [=](double dB) { return dB >= limit; });
            return static_cast<double>(last.base() - level.begin() - 1) * bin;
        };
        const std::array<double, 6> edges{falls_to(-0.01), falls_to(-3),    falls_to(-6),
                                          under_from(-60), under_from(-80), under_from(-100)};
        // The first three were read on a finer grid, the others on this one.
        for (size_t i = 0; i < edges.size(); i++)
            EXPECT_NEAR(edges[i], f.edges[i], i < 3 ? bin / 4 : 0.51) << i;
        const auto from_30k = static_cast<int64_t>(30000 / bin) + 1;
        EXPECT_NEAR(*std::max_element(level.begin() + from_30k, level.end()), f.highest_above_30k,
                    0.1);
        EXPECT_LE(*std::max_element(level.begin(), level.end()), 0.0021);
    }
}

TEST(coefficient_sets, are_what_the_tool_computes)
{
    std::FILE *tool = popen(COEFFICIENT_TOOL_PATH " --print", "r"); // NOLINT(cert-env33-c)
    ASSERT_NE(tool, nullptr);
    std::array<char, 64> line{};
    for (const set_figures &f : all_figures)
        for (int32_t i = 0; i < f.tap_count; i++) {
            ASSERT_NE(std::fgets(line.data(), line.size(), tool), nullptr) << f.tap_count;
            ASSERT_EQ(std::strtof(line.data(), nullptr), f.set->taps[i])
                << f.tap_count << ", tap " << i;
        }
    EXPECT_EQ(std::fgets(line.data(), line.size(), tool), nullptr);
    EXPECT_EQ(pclose(tool), 0);
}

} // namespace
