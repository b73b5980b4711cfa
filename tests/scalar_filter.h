// A scalar reference for the oversampling filter. It adds each input to rings of future output; the
// player's filter computes each output from the stored inputs. Both must give the same bits.
// Compile it without contraction to fused multiply-adds.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "coeff_sets.h"
#include "sonivane.h"

struct scalar_family {
    std::array<std::vector<float>, 4> tables; // each table twice in a row, to start at any entry
    std::array<std::vector<float>, 2> sides;  // the rings, left and right
    size_t position = 0;                      // the next entry to read in the rings
};

struct scalar_filter {
    scalar_family family44; // one table: sums of 8 taps, in blocks of 8, the last block first
    scalar_family family48; // four tables: the taps rotated left by 0 to 3, then four zeros
    int64_t rate_sum = 0;
};

inline scalar_filter make_scalar_filter(const coeff_set &taps44, const coeff_set &taps48)
{
    const float gain = 0.9F;
    scalar_filter f;
    for (int32_t length = taps44.tap_count + 8, i = 0; i < 2 * length; ++i) {
        const int32_t last = (2 * length - i + i % 8 * 2) % length;
        float sum = 0;
        for (int32_t k = std::max(0, last - 7); k <= std::min(last, taps44.tap_count - 1); ++k)
            sum += taps44.taps[k];
        f.family44.tables[0].push_back(gain * sum);
    }
    for (int32_t length = taps48.tap_count + 4, i = 0; i < 8 * length; ++i) {
        const int32_t turn = i / (2 * length);
        const float tap = taps48.taps[(i % length + turn) % taps48.tap_count];
        std::vector<float> &table = f.family48.tables[static_cast<size_t>(turn)];
        table.push_back(i % length < taps48.tap_count ? gain * tap : 0);
    }
    for (scalar_family *family : {&f.family44, &f.family48})
        family->sides.fill(std::vector<float>(family->tables[0].size() / 2));
    return f;
}

// Outputs the next entries, left and right alternating, and sets them to 0. Then adds the input
// times the table to the whole rings.
inline void scalar_step(scalar_family &f, size_t entries, const std::array<float, 2> &input,
                        std::vector<float> &output)
{
    const size_t length = f.sides[0].size();
    const float *taps = &f.tables[f.position % 4][(length - f.position) / 4 * 4];
    for (const size_t end = f.position + entries; f.position < end; ++f.position)
        for (std::vector<float> &side : f.sides)
            output.push_back(std::exchange(side[f.position], 0.0F));
    f.position %= length;
    for (size_t side = 0; side < 2; ++side)
        for (size_t i = 0; i < length; ++i) f.sides[side][i] += input[side] * taps[i];
}

// Feeds one frame and appends the resulting floats to output.
inline void scalar_filter_run(scalar_filter &f, int32_t source_rate,
                              const std::array<float, 2> &input, std::vector<float> &output)
{
    if (source_rate == 44100) {
        scalar_step(f.family44, 8, input, output);
        for (size_t i = output.size() - 16; i < output.size(); ++i)
            if ((i % 2 == 0 ? left_cut : right_cut) != 0) output[i] = 0;
    } else if (source_rate > 0) {
        for (; f.rate_sum < 352800; f.rate_sum += source_rate)
            scalar_step(f.family48, 1, input, output);
        f.rate_sum -= 352800;
    }
}
