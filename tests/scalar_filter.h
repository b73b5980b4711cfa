// The oversampling filter once more, as plain loops over single entries: what the shipped one must
// equal in every bit. Compile without contraction of products and sums.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "coeff_sets.h"
#include "sonivane.h"

struct scalar_filter {
    std::vector<float> table44; // the folded taps
    std::vector<float> left44, right44;
    int64_t calls44;
    std::vector<float> tables48[4]; // the taps turned left by 0 to 3 entries, then four zeros
    std::vector<float> left48, right48;
    int64_t steps48;
    int64_t rate_sum;
};

inline scalar_filter make_scalar_filter(const coeff_set &taps44, const coeff_set &taps48)
{
    const float gain = 0.9F;
    scalar_filter f{};
    const int32_t folded = 8;
    for (int32_t end = 1; end <= taps44.tap_count + folded; end++) {
        float sum = 0;
        for (int32_t i = end - folded; i < end; i++)
            if (i >= 0 && i < taps44.tap_count) sum += taps44.taps[i];
        f.table44.push_back(gain * sum);
    }
    f.left44.resize(f.table44.size());
    f.right44.resize(f.table44.size());
    for (int32_t turn = 0; turn < 4; turn++) {
        std::vector<float> &table = f.tables48[turn];
        for (int32_t k = 0; k < taps48.tap_count; k++) table.push_back(gain * taps48.taps[k]);
        std::rotate(table.begin(), table.begin() + turn, table.end());
        table.resize(table.size() + 4);
    }
    f.left48.resize(f.tables48[0].size());
    f.right48.resize(f.tables48[0].size());
    return f;
}

// Adds x times the table, entered at start, to the whole ring.
inline void scalar_add(std::vector<float> &acc, const std::vector<float> &table, size_t start,
                       float x)
{
    const size_t wrap = acc.size() - start;
    for (size_t a = 0; a < wrap; a++) acc[a] += x * table[start + a];
    for (size_t a = wrap; a < acc.size(); a++) acc[a] += x * table[a - wrap];
}

// Reads out an entry and clears it.
inline float scalar_take(float &entry, bool cut = false)
{
    const float value = cut ? 0.0F : entry;
    entry = 0;
    return value;
}

// Feeds one frame; appends the floats that it gives, left and right in turn, to output.
inline void scalar_filter_run(scalar_filter &f, int32_t source_rate,
                              const std::array<float, 2> &input, std::vector<float> &output)
{
    const auto [left, right] = input;
    if (source_rate < 1) return;
    if (source_rate == 44100) {
        const auto blocks = static_cast<int64_t>(f.table44.size()) / 8;
        const auto turn = static_cast<size_t>(f.calls44++ % blocks * 8);
        const size_t due = turn == 0 ? 0 : f.table44.size() - turn;
        for (size_t a = due; a < due + 8; a++) {
            output.push_back(scalar_take(f.left44[a], left_cut != 0));
            output.push_back(scalar_take(f.right44[a], right_cut != 0));
        }
        scalar_add(f.left44, f.table44, turn, left);
        scalar_add(f.right44, f.table44, turn, right);
        return;
    }
    for (; f.rate_sum < 352800; f.rate_sum += source_rate) {
        const size_t length = f.left48.size();
        const auto position = static_cast<size_t>(f.steps48++) % length;
        output.push_back(scalar_take(f.left48[position]));
        output.push_back(scalar_take(f.right48[position]));
        const size_t start = (length - position) % length / 4 * 4;
        scalar_add(f.left48, f.tables48[position % 4], start, left);
        scalar_add(f.right48, f.tables48[position % 4], start, right);
    }
    f.rate_sum -= 352800;
}
