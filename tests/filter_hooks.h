// What common.cpp offers to tests and benchmarks beside its header.
#pragma once

#include <array>
#include <cstdint>

#include "coeff_sets.h"

// Takes the form of that name for filters made from now on, or the best one for null. False when
// the processor or the program lacks it.
bool coeff_filter_take_form(const char *name);

// coeff_filter_init with a rate table of the caller's.
int32_t coeff_filter_init_rows(const coeff_row *rows, int32_t source_rate, int32_t target_rate,
                               int32_t channels);

inline constexpr std::array<const char *, 4> filter_form_names{"straight 128", "batched 128",
                                                               "batched 256", "batched 512"};
