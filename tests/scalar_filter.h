// The oversampling filter once more, as rings of future output that each input is added to: what
// the shipped one, which gathers inputs, must equal in every bit. Compile without contraction.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "coeff_sets.h"
#include "sonivane.h"

struct scalar_family {
    size_t entries; // that a step reads out
    std::vector<std::vector<float>> tables;
    std::array<std::vector<float>, 2> sides{}; // the rings, left and right
    size_t steps = 0;
};

struct scalar_filter {
    scalar_family family44; // one table: sums of 8 taps, block by block from the end to the start
    scalar_family family48; // four: the taps turned left by 0 to 3 entries, then four zeros
    int64_t rate_sum = 0;
};

inline scalar_filter make_scalar_filter(const coeff_set &taps44, const coeff_set &taps48)
{
    const float gain = 0.9F;
    scalar_filter f{{8, {{}}}, {1, {{}, {}, {}, {}}}};
    const int32_t length = taps44.tap_count + 8;
    for (int32_t i = 0; i < length; ++i) {
        const int32_t end = (length - i + i % 8 * 2) % length + 1;
        float sum = 0;
        for (int32_t k = std::max(0, end - 8); k < std::min(end, taps44.tap_count); ++k)
            sum += taps44.taps[k];
        f.family44.tables[0].push_back(gain * sum);
    }
    for (size_t turn = 0; turn < 4; ++turn) {
        std::vector<float> &table = f.family48.tables[turn];
        for (int32_t k = 0; k < taps48.tap_count; ++k) table.push_back(gain * taps48.taps[k]);
        std::rotate(table.begin(), table.begin() + static_cast<ptrdiff_t>(turn), table.end());
        table.resize(table.size() + 4);
    }
    for (scalar_family *family : {&f.family44, &f.family48})
        family->sides.fill(std::vector<float>(family->tables[0].size()));
    return f;
}

// Reads out and clears the entries that are due, left and right in turn, then adds the input times
// the table to the whole rings.
inline void scalar_step(scalar_family &f, const std::array<float, 2> &input,
                        std::vector<float> &output)
{
    const size_t length = f.tables[0].size();
    const size_t due = f.steps++ * f.entries % length;
    for (size_t a = due; a < due + f.entries; ++a)
        for (std::vector<float> &side : f.sides) output.push_back(std::exchange(side[a], 0.0F));
    const std::vector<float> &taps = f.tables[due % 4];
    const size_t start = (length - due) % length / 4 * 4;
    for (size_t side = 0; side < 2; ++side) {
        float *acc = f.sides[side].data();
        for (size_t a = 0; a < length - start; ++a) acc[a] += input[side] * taps[start + a];
        for (size_t a = length - start; a < length; ++a)
            acc[a] += input[side] * taps[a + start - length];
    }
}

// Feeds one frame; appends the floats that it gives to output.
inline void scalar_filter_run(scalar_filter &f, int32_t source_rate,
                              const std::array<float, 2> &input, std::vector<float> &output)
{
    if (source_rate == 44100) {
        scalar_step(f.family44, input, output);
        for (size_t i = output.size() - 16; i < output.size(); ++i)
            if ((i % 2 == 0 ? left_cut : right_cut) != 0) output[i] = 0;
    } else if (source_rate > 0) {
        for (; f.rate_sum < 352800; f.rate_sum += source_rate)
            scalar_step(f.family48, input, output);
        f.rate_sum -= 352800;
    }
}
