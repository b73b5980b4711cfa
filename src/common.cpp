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

// Each product and each sum must be rounded to single precision.
static_assert(FLT_EVAL_METHOD == 0);

namespace
{

// Both sets carry this gain, 0.9 in single precision.
constexpr float filter_gain = std::bit_cast<float>(0x3F666666U);

constexpr int32_t family44_rate = 44100;
constexpr int32_t family48_rate = 48000;
// Output frames of an input frame at 44100 Hz.
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
// An entry of output is a sum over the last inputs, as many as its family's table is long. Entries
// are worked out a tile at a time: when one has been read, the next starts at 0 and gets all inputs
// kept, oldest first, while it stays in registers. Inputs that come while it is read are added
// before the entries that they reach are read.
//
// What an entry takes of an input depends on the distance between them, and stands in the table at
// that distance. Where an input does not reach stand zeros: such a product changes nothing, since a
// sum that starts at +0 never becomes -0.

// Vectors of each side of a tile: what the registers hold.
constexpr int32_t tile_vectors = 6;

// A frame of input, each value once for each lane of the narrowest vectors, which would need a
// shuffle to spread a single one.
using four_lanes = float __attribute__((vector_size(4 * sizeof(float))));
struct kept_input {
    four_lanes left;
    four_lanes right;
};

struct family {
    ptrdiff_t reach;      // inputs in the sum of an entry
    ptrdiff_t input_step; // floats of the table from an input to the one before it
    float *table;
    float *taps; // where the table has a distance of 0
    kept_input *inputs;
    kept_input *next_input; // behind the newest of them
    kept_input *inputs_end;
    float *tile;        // entries of the left side, then of the right
    ptrdiff_t position; // entries of each side that have been read
};

const coeff_row *family44_row;
const coeff_row *family48_row;
family family44;
family family48;

int32_t filter_source_rate; // Hz, of the last coeff_filter_init
int32_t filter_target_rate;

// Source-rate steps not yet paid for by target-rate steps.
int32_t rate_accumulator;

// Left and right in turn; room for the frames that one input can give at the source rate.
float *filter_output;
int64_t filter_output_floats;

// --- Run ----------------------------------------------------------------------------------------

// Kept apart from the loops, which hardly ever need it.
[[gnu::noinline]] void cut_channels(float *output, ptrdiff_t frames)
{
    for (ptrdiff_t i = 0; i < frames; ++i) {
        if (left_cut != 0) output[stream_channels * i] = 0;
        if (right_cut != 0) output[stream_channels * i + 1] = 0;
    }
}

// Steps of the output in which an input that comes now is the current one.
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

// One way to run the filter. All give the same bits. There is none for vectors of 512 bits: Zen 4
// does a fifth less with them than with 256, which play at 60 times real time and more.
struct filter_width {
    int32_t vector_floats;
    bool (*present)(); // the processor has such vectors
    const float *(*run_family44)(const float *input, int32_t *count);
    const float *(*run_family48)(const float *input, int32_t *count);
};

#define RUN(width) vectors_##width::run_family44, vectors_##width::run_family48
// The last width that is present is the one taken.
// Versions of clang-format differ about a table with an #if.
// clang-format off
constexpr auto filter_widths = std::to_array<filter_width>({
    {4, [] { return true; }, RUN(128)},
#if defined(__x86_64__)
    {8, [] { return __builtin_cpu_supports("avx2") != 0; }, RUN(256)},
#endif
});
// clang-format on
#undef RUN

const filter_width *width; // null: not chosen yet

// --- Set-up -------------------------------------------------------------------------------------

// A cache line.
constexpr std::align_val_t table_alignment{64};

// Points *values to count values of 0. False for want of memory.
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

// The end of every failure. The terminal is still as it was found: a plain exit serves.
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

// The first row to target_rate for the family, whose row may also stand under rate 0. Null when
// there is none.
const coeff_row *find_row(const coeff_row *rows, int32_t target_rate, int32_t family_rate)
{
    for (const coeff_row *row = rows; row->target_rate >= 0; ++row) {
        const bool of_family = row->source_rate == 0 || row->source_rate == family_rate;
        if (row->target_rate == target_rate && of_family) return row;
    }
    return nullptr;
}

// Entries of each side.
ptrdiff_t tile_size()
{
    return ptrdiff_t{tile_vectors} * width->vector_floats;
}

// Nothing before the first input is the same as silence.
bool make_inputs(family *f, ptrdiff_t reach)
{
    // As many are moved to the front as were added, when there is no room for those of a tile.
    const ptrdiff_t most = 2 * reach + tile_size();
    if (!allocate(&f->inputs, most)) return false;
    f->reach = reach;
    f->next_input = f->inputs + reach;
    f->inputs_end = f->inputs + most;
    return true;
}

// A tile that has been read.
bool make_tile(family *f)
{
    f->position = tile_size();
    return allocate(&f->tile, stream_channels * tile_size());
}

// A table of tap_floats for each entry of distance; an input gives so many entries.
bool make_table(family *f, ptrdiff_t input_entries, ptrdiff_t tap_floats)
{
    const ptrdiff_t distances = f->reach * input_entries + 2 * tile_size();
    if (!allocate(&f->table, distances * tap_floats)) return false;
    f->taps = f->table + tile_size() * tap_floats;
    f->input_step = input_entries * tap_floats;
    return true;
}

// The merged table: each entry is the sum of the taps that end at it, as many as an input frame has
// output frames. An input meets it block by block, from its end to its start.
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

// What the entry distance steps on takes of a step's input. A step lays its taps from the last
// multiple of four steps before it, turned by as many as it comes later, so that they lie where
// those of a multiple of four would, or two off. What is turned away in front follows at the end.
float rotated_tap(int32_t distance, int32_t turn)
{
    const auto [tap_count, taps] = *family48_row->coeffs;
    const int32_t length = tap_count + 4;
    if (distance < 1 || distance > length) return 0;
    const int32_t entry = (distance + (turn == 0 ? 0 : turn - 4) + length) % length;
    return entry < tap_count ? filter_gain * taps[(entry + turn) % tap_count] : 0;
}

// Each distance has a row for a whole vector, whose lanes are as many entries further on. Vectors
// start at multiples of four entries, so that the distance tells how far behind one the step is.
void fill_rotated_table()
{
    const int32_t lanes = width->vector_floats;
    for (int32_t distance = 1 - lanes; distance <= family48.reach; ++distance)
        for (int32_t lane = 0; lane < lanes; ++lane)
            family48.taps[distance * lanes + lane] = rotated_tap(distance + lane, -distance & 3);
}

// Gives filter_output room for the source rate. False for want of memory.
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
