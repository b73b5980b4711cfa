// The oversampling filter: its tables, its set-up, and its run against a scalar reference.
#include "common.h"

#include <gtest/gtest.h>
#include <unistd.h>

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

// The filter's allocations, replaced so that each of them can be made to fail. The sizes are those
// of tables that are whole multiples of nothing, so they are rounded up for aligned_alloc.
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
#ifdef NDEBUG
    return 60000;
#else
    return 12000;
#endif
}

// Runs the shipped filter over what the reference was given. The first call that differs, or -1.
int64_t first_difference(const std::vector<float> &expected, int64_t frames)
{
    signal source;
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

class every_rate : public filter_test, public testing::WithParamInterface<int32_t>
{
};

TEST_P(every_rate, equals_the_scalar_filter_bit_for_bit)
{
    for (int32_t use_short = 0; use_short < 2; use_short++) {
        const auto [family44, family48] = set_pairs[static_cast<size_t>(use_short)];
        const int64_t frames = frames_to_compare();
        scalar_filter reference = make_scalar_filter(*family44, *family48, GetParam());
        std::vector<float> expected;
        signal source;
        for (int64_t i = 0; i < frames; i++) {
            const auto [left, right] = next_frame(source);
            scalar_filter_run(reference, left, right, expected);
        }
        for (const char *form : filter_form_names) {
            if (!coeff_filter_take_form(form)) continue;
            ASSERT_EQ(coeff_filter_init(GetParam(), 352800, 2, use_short), -1);
            EXPECT_EQ(first_difference(expected, frames), -1) << form << ", short " << use_short;
            coeff_filter_free();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(rates, every_rate,
                         testing::Values(44100, 48000, 88200, 96000, 192000, 352800, 384000),
                         testing::PrintToStringParamName());

} // namespace
