#include "common.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <type_traits>

#include "coeff_sets.h"
#include "events.h"
#include "lookout.h"
#include "sonivane.h"
#include "util.h"

// Each product and each sum must be rounded to single precision, never computed in a wider type.
static_assert(FLT_EVAL_METHOD == 0);

namespace
{

// The taps of both families are multiplied by this gain, 0.9 in single precision.
constexpr float filter_gain = std::bit_cast<float>(0x3F666666U);

constexpr int32_t family44_rate = 44100;
constexpr int32_t family48_rate = 48000;
// Output frames for each input frame at 44100 Hz.
constexpr ptrdiff_t block_entries = 8;

constexpr std::array<coeff_row, 4> normal_rows{{
    {family44_rate, 352800, &set_44k_normal},
    {family44_rate, 176400, &set_44k_to_176k},
    {0, 352800, &set_48k_normal},
    {-1, -1, nullptr},
}};
constexpr std::array<coeff_row, 3> short_rows{{
    {family44_rate, 352800, &set_44k_short},
    {0, 352800, &set_48k_short},
    {-1, -1, nullptr},
}};

// --- State: one filter, main thread only --------------------------------------------------------
//
// An entry is one output value of a side (left or right). It is a sum of products over the last
// `reach` inputs:
//
//   entry = taps[d_oldest] * input_oldest + ... + taps[d_newest] * input_newest
//
// d is the distance of the entry from the input, in entries. Entries are computed in tiles. A new
// tile starts at 0 and adds all stored inputs, oldest first, while it stays in registers. The
// inputs that arrive while the tile is read are added to its entries before those are read.
//
// The table holds zeros for the distances at which an input does not contribute. Such a product
// changes no sum, because a sum that starts at +0 never becomes -0.

// Vectors of one channel in a tile. The registers hold that many of both channels.
constexpr int32_t tile_vectors = 6;

// An input frame. Each value is stored four times, once for each lane of the narrowest vectors:
// loading a single value would need a shuffle to copy it to all lanes.
using four_lanes = float __attribute__((vector_size(4 * sizeof(float))));
struct kept_input {
    four_lanes left;
    four_lanes right;
};

struct family {
    ptrdiff_t reach;      // number of inputs in the sum of one output frame
    ptrdiff_t input_step; // floats of the table between an input and the next older one
    float *table;
    float *taps; // the table's place for distance 0
    kept_input *inputs;
    kept_input *next_input; // after the newest input
    kept_input *inputs_end;
    float *tile;        // entries of the left channel, then of the right channel
    ptrdiff_t position; // number of entries of each channel that were read
};

const coeff_row *family44_row;
const coeff_row *family48_row;
family family44;
family family48;

int32_t filter_source_rate; // Hz, of the last coeff_filter_init
int32_t filter_target_rate;

// The phase of the 48 kHz family: the time by which the output steps reach beyond the input frames,
// in units of 1/(source rate * target rate) seconds.
int32_t rate_accumulator;

// Output frames for one input frame, left and right alternating. The source rate decides how many
// there can be.
float *filter_output;
int64_t filter_output_floats;

// --- Run ----------------------------------------------------------------------------------------

// Not inlined: the filter loops rarely need it.
[[gnu::noinline]] void cut_channels(float *output, ptrdiff_t frames)
{
    for (ptrdiff_t i = 0; i < frames; ++i) {
        if (left_cut != 0) output[stream_channels * i] = 0;
        if (right_cut != 0) output[stream_channels * i + 1] = 0;
    }
}

// The number of output steps in which a new input is added. Advances the phase.
ptrdiff_t steps_of_input()
{
    const auto source = static_cast<uint32_t>(filter_source_rate);
    const int32_t due = filter_target_rate - rate_accumulator;
    const uint32_t steps = due < 1 ? 0 : (static_cast<uint32_t>(due) - 1) / source + 1;
    rate_accumulator = static_cast<int32_t>(steps * source - static_cast<uint32_t>(due));
    return static_cast<ptrdiff_t>(steps);
}

#define VECTOR_KERNEL "filter_kernel.inc"
#include "vector_widths.inc"

// The filter's functions for one vector width. All widths give the same bits. There is no width of
// 512 bits: on Zen 4 it is a fifth slower than 256 bits, which reach 60 times real time and more.
struct filter_width {
    int32_t vector_floats;
    bool (*present)(); // whether the processor has such vectors
    const float *(*run_family44)(const float *input, int32_t *count);
    const float *(*run_family48)(const float *input, int32_t *count);
};

#define RUN(width) vectors_##width::run_family44, vectors_##width::run_family48
// The last width that the processor has is used.
// Versions of clang-format format a table with an #if differently.
// clang-format off
constexpr auto filter_widths = std::to_array<filter_width>({
    {4, [] { return true; }, RUN(128)},
#if defined(__x86_64__)
    {8, [] { return __builtin_cpu_supports("avx2") != 0; }, RUN(256)},
#endif
});
// clang-format on
#undef RUN

const filter_width *width; // null: not selected yet

// --- Set-up -------------------------------------------------------------------------------------

constexpr std::align_val_t table_alignment{64}; // a cache line

// Points *values to count zeros. False if out of memory.
template <typename value> bool allocate(value **values, int64_t count)
{
    const auto bytes = static_cast<size_t>(count) * sizeof(value);
    *values = static_cast<value *>(::operator new(bytes, table_alignment, std::nothrow));
    if (*values != nullptr) std::fill_n(*values, count, value{});
    return *values != nullptr;
}

template <typename value> void release(value **values)
{
    ::operator delete(*values, table_alignment);
    *values = nullptr;
}

// Ends the process after a failure. The terminal's mode has not been changed yet, so that a plain
// exit is enough.
[[noreturn]] void leave(int32_t number, const char *text)
{
    coeff_filter_free();
    const stop_cause cause = {stop_reason::report, "common", number, text};
    store_release(exit_status, number);
    stop_playing(&cause);
    store_release(interrupted, flag_on);
    event_end(number);
    std::exit(number);
}

[[noreturn]] void fail(int32_t number, const char *text)
{
    report("common", number, "%s", text);
    leave(number, text);
}

const char *const no_work_area = "work area could not allocated.";

// The first row for target_rate with a source rate of family_rate, or of 0, which stands for any
// family. Null if there is none.
const coeff_row *find_row(const coeff_row *rows, int32_t target_rate, int32_t family_rate)
{
    for (const coeff_row *row = rows; row->target_rate >= 0; ++row) {
        const bool of_family = row->source_rate == 0 || row->source_rate == family_rate;
        if (row->target_rate == target_rate && of_family) return row;
    }
    return nullptr;
}

// Entries of each side of a tile.
ptrdiff_t tile_size()
{
    return ptrdiff_t{tile_vectors} * width->vector_floats;
}

// The inputs before the first one are zeros, that is, silence.
bool make_inputs(family *f, ptrdiff_t reach)
{
    // When there is no room for the inputs of a tile, the last `reach` inputs move to the front.
    // That is at most once in `reach` inputs, so that each input is copied about once.
    const ptrdiff_t most = 2 * reach + tile_size();
    if (!allocate(&f->inputs, most)) return false;
    f->reach = reach;
    f->next_input = f->inputs + reach;
    f->inputs_end = f->inputs + most;
    return true;
}

// Makes a tile whose entries all count as read, so that the first run computes a new one.
bool make_tile(family *f)
{
    f->position = tile_size();
    return allocate(&f->tile, stream_channels * tile_size());
}

// Makes a table with tap_floats floats for each distance between an output frame and an input.
// input_entries is the number of output frames from one input to the next.
bool make_table(family *f, ptrdiff_t input_entries, ptrdiff_t tap_floats)
{
    const ptrdiff_t distances = f->reach * input_entries + 2 * tile_size();
    if (!allocate(&f->table, distances * tap_floats)) return false;
    f->taps = f->table + tile_size() * tap_floats;
    f->input_step = input_entries * tap_floats;
    return true;
}

// Fills the table of the 44100 Hz family. span is the number of output frames for each input frame.
// Each entry of the table is a sum of span taps:
//
//   S[m] = taps[m - span + 1] + ... + taps[m]    (taps outside the set are 0)
//
// An input gives a block of span output frames. In frame r of the block, the input D frames before
// its own (D from 1 to reach) is multiplied by
//
//   gain * S[(reach - D) * span + r]
//
// The oldest input (D = reach) uses the first block of S, the newest one (D = 1) the last block.
void fill_merged_table(int32_t span)
{
    const auto [tap_count, taps] = *family44_row->coeffs;
    for (int32_t m = 0; m < tap_count + span; ++m) {
        float sum = 0;
        const int32_t end = std::min(m + 1, tap_count);
        for (int32_t i = std::max(0, m - span + 1); i < end; ++i) sum += taps[i];
        const ptrdiff_t blocks_from_end = family44.reach - m / span;
        family44.taps[blocks_from_end * span + m % span] = filter_gain * sum;
    }
}

void make_family44()
{
    const int32_t span = family44_row->target_rate / family44_rate;
    const bool made = make_inputs(&family44, family44_row->coeffs->tap_count / span + 1) &&
                      make_tile(&family44) && make_table(&family44, span, 1);
    if (!made) fail(193, "allocation failed.");
    fill_merged_table(span);
}

// The factor by which the input of step s is multiplied in entry e. There is one step for each
// output frame, and an input is added in every step until the next input comes.
//
//   N = tap_count, L = N + 4, distance = e - s (from 1 to L), j = s mod 4
//   k = distance mod L            for j = 0
//       (distance + j - 4) mod L  for j > 0
//   factor = gain * taps[(k + j) mod N] for k < N, else 0
//
// Modulo L, k is the distance of e from the first multiple of four that is not below s. Except at
// both ends of the set, the factor is the gain times this tap:
//
//   j    0               1                   2               3
//   tap  taps[distance]  taps[distance - 2]  taps[distance]  taps[distance + 2]
//
// The first j taps come last, for k = N - j to N - 1.
float rotated_tap(int32_t distance, int32_t j)
{
    const auto [tap_count, taps] = *family48_row->coeffs;
    const int32_t length = tap_count + 4;
    if (distance < 1 || distance > length) return 0;
    const int32_t k = (distance + (j == 0 ? 0 : j - 4) + length) % length;
    return k < tap_count ? filter_gain * taps[(k + j) % tap_count] : 0;
}

// Fills the table of the 48 kHz family. Each distance has a row of one vector: lane i has the
// factor for distance + i. If v is the first entry of a vector of the tile, and s the step of the
// input, the row's distance is v - s. As v is a multiple of four, the j of rotated_tap, s mod 4, is
// -distance mod 4.
void fill_rotated_table()
{
    const int32_t lanes = width->vector_floats;
    for (int32_t distance = 1 - lanes; distance <= family48.reach; ++distance)
        for (int32_t lane = 0; lane < lanes; ++lane)
            family48.taps[distance * lanes + lane] = rotated_tap(distance + lane, -distance & 3);
}

// Makes filter_output large enough for the source rate. False if out of memory.
bool size_output()
{
    const int64_t source = std::max(filter_source_rate, 1);
    const int64_t most_frames = (filter_target_rate + source - 1) / source;
    const int64_t floats = std::max<int64_t>(most_frames, block_entries) * stream_channels;
    if (floats <= filter_output_floats) return true;
    release(&filter_output);
    const bool made = allocate(&filter_output, floats);
    filter_output_floats = made ? floats : 0;
    return made;
}

void make_family48()
{
    if (!make_inputs(&family48, family48_row->coeffs->tap_count + 4) || !size_output())
        fail(241, no_work_area);
    if (!make_tile(&family48)) fail(248, no_work_area);
    if (!make_table(&family48, 1, width->vector_floats)) fail(253, no_work_area);
    fill_rotated_table();
}

} // namespace

bool coeff_filter_take_width(int32_t vector_floats)
{
    coeff_filter_free();
    width = nullptr;
    for (const filter_width &candidate : filter_widths)
        if ((vector_floats == 0 || vector_floats == candidate.vector_floats) && candidate.present())
            width = &candidate;
    return width != nullptr;
}

int32_t coeff_filter_init_rows(const coeff_row *rows, int32_t source_rate, int32_t target_rate,
                               int32_t channels)
{
    filter_source_rate = source_rate;
    filter_target_rate = target_rate;
    if (channels != stream_channels) {
        std::array<char, 64> text;
        std::snprintf(text.data(), text.size(),
                      "this code supports 2ch stereo only, not %d channels.", channels);
        report("common", 153, "%s\n", text.data());
        leave(153, text.data());
    }
    if (family44_row != nullptr && family44_row->target_rate == target_rate) {
        if (!size_output()) fail(241, no_work_area);
        return -1;
    }
    coeff_filter_free();
    if (width == nullptr) coeff_filter_take_width(0);
    rate_accumulator = 0;
    family44_row = find_row(rows, target_rate, family44_rate);
    if (family44_row == nullptr) fail(171, "44k coeff table not found.");
    make_family44();
    family48_row = find_row(rows, target_rate, family48_rate);
    if (family48_row == nullptr) fail(230, "48k coeff table not found.");
    make_family48();
    return -1;
}

int32_t coeff_filter_init(int32_t source_rate, int32_t target_rate, int32_t channels,
                          int32_t use_short)
{
    const coeff_row *rows = use_short != 0 ? short_rows.data() : normal_rows.data();
    return coeff_filter_init_rows(rows, source_rate, target_rate, channels);
}

void coeff_filter_free()
{
    for (family *f : {&family44, &family48}) {
        release(&f->table);
        release(&f->inputs);
        release(&f->tile);
    }
    release(&filter_output);
    filter_output_floats = 0;
    family44_row = nullptr;
    family48_row = nullptr;
}

const float *coeff_filter_run(const float *input, int32_t *count)
{
    if (count == nullptr) return nullptr;
    *count = 0;
    if (filter_source_rate < 1 || family48_row == nullptr) return nullptr;
    return filter_source_rate == family44_rate ? width->run_family44(input, count)
                                               : width->run_family48(input, count);
}
