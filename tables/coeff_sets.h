// The coefficient sets of the oversampling filter, as tools/make_coefficients computes them, and
// the type of the tables that select among them.
//
// Every set is a linear-phase low-pass. Taps 0 to tap_count - 2 are symmetric about tap
// tap_count / 2 - 1 and their sum is 1. The last stored tap is 0.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

struct coeff_set {
    int32_t tap_count;
    const float *taps;
};

// One row of a rate table, rates in Hz. A target_rate below 0 ends the table.
struct coeff_row {
    int32_t source_rate; // 44100, or 0 for the row of the 48 kHz family
    int32_t target_rate;
    const coeff_set *coeffs;
};

inline constexpr std::array<float, 8192> taps_8192{
#include "taps_8192.inc"
};
inline constexpr std::array<float, 800> taps_800{
#include "taps_800.inc"
};
inline constexpr std::array<float, 1024> taps_1024{
#include "taps_1024.inc"
};
inline constexpr std::array<float, 192> taps_192{
#include "taps_192.inc"
};
inline constexpr std::array<float, 4096> taps_4096{
#include "taps_4096.inc"
};

template <size_t size> constexpr coeff_set coeff_set_of(const std::array<float, size> &taps)
{
    return {static_cast<int32_t>(size), taps.data()};
}

inline constexpr coeff_set set_44k_normal = coeff_set_of(taps_8192);
inline constexpr coeff_set set_44k_short = coeff_set_of(taps_800);
inline constexpr coeff_set set_48k_normal = coeff_set_of(taps_1024);
inline constexpr coeff_set set_48k_short = coeff_set_of(taps_192);
inline constexpr coeff_set set_44k_to_176k = coeff_set_of(taps_4096);
