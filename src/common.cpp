#include "common.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "coeff_sets.h"
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

// --- Vectors ------------------------------------------------------------------------------------

// Of each side of a tile: what fills the registers.
constexpr int32_t tile_vectors = 6;

// A frame of input, each value once for each lane of the narrowest vectors.
struct alignas(16) kept_input {
    std::array<float, 4> left;
    std::array<float, 4> right;
};

using adder = void (*)(float *tile, const kept_input *input, const kept_input *end,
                       const float *taps, ptrdiff_t input_step, ptrdiff_t vector_step);

#define VECTOR_KERNEL "filter_kernel.inc"
#include "vector_widths.inc"

// One way to run the loops. All give the same bits.
struct filter_form {
    int32_t vector_floats;
    bool (*present)(); // the processor has such vectors
    void (*clear_tile)(float *tile);
    std::array<adder, tile_vectors + 1> adders; // by the number of vectors
};

// The last form that is present is the one taken.
constexpr auto filter_forms = std::to_array<filter_form>({
    {4, [] { return true; }, vectors_128::clear_tile, vectors_128::adders},
#if defined(__x86_64__)
        {8, [] { return __builtin_cpu_supports("avx2") != 0; }, vectors_256::clear_tile,
         vectors_256::adders},
        {16, [] { return __builtin_cpu_supports("avx512f") != 0; }, vectors_512::clear_tile,
         vectors_512::adders},
#endif
});

// --- State: one filter, main thread only --------------------------------------------------------
//
// An output entry is a sum over the last inputs, as many as its family's table is long. Entries are
// worked out a tile at a time: when one has been read, the next starts at 0 and gets all the inputs
// kept, oldest first, while it stays in registers. An input that arrives while the tile is read
// goes to what is left of it.
//
// What an entry takes of an input depends on the distance between them, and stands in the table at
// that distance. Where an input does not reach stand zeros: such a product changes nothing, since a
// sum that starts at +0 never becomes -0.

struct family {
    int32_t input_entries; // output frames of an input
    int32_t reach;         // inputs in the sum of an entry
    int32_t tap_floats;    // of the table, for each entry of distance
    float *table; // distances from -tile_entries() to reach * input_entries + tile_entries()
    kept_input *inputs;
    int32_t kept;     // inputs in there, the newest last
    float *tile;      // entries of the left side, then of the right
    int32_t position; // entries of each side that have been read
};

int32_t filter_source_rate; // Hz, of the last coeff_filter_init
int32_t filter_target_rate;
const filter_form *form; // null: not chosen yet

const coeff_row *family44_row;
const coeff_row *family48_row;
family family44;
family family48;

// Source-rate steps not yet paid for by target-rate steps.
int32_t rate_accumulator;

// Left and right in turn; room for the frames that one input can give at the source rate.
float *filter_output;
int64_t filter_output_floats;

// Entries of each side.
int32_t tile_entries()
{
    return tile_vectors * form->vector_floats;
}

// Room for inputs: half of it is moved to the front when there is no more.
int32_t most_kept(const family &f)
{
    return 2 * f.reach + tile_entries();
}

// Where the table has the given distance.
float *taps_at(const family &f, int32_t distance)
{
    return f.table + ptrdiff_t{f.tap_floats} * (tile_entries() + distance);
}

// --- Set-up -------------------------------------------------------------------------------------

// A cache line, and the widest vector.
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
[[noreturn]] void leave(int32_t number)
{
    coeff_filter_free();
    store_release(stop_output, flag_on);
    store_release(interrupted, flag_on);
    std::exit(number);
}

[[noreturn]] void fail(int32_t number, const char *text)
{
    report("common", number, "%s", text);
    leave(number);
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

// No inputs before the first, which is the same as silence, and a tile that has been read.
bool make_inputs(family *f)
{
    f->kept = f->reach;
    return allocate(&f->inputs, most_kept(*f));
}

bool make_tile(family *f)
{
    f->position = tile_entries();
    return allocate(&f->tile, int64_t{stream_channels} * tile_entries());
}

bool make_table(family *f)
{
    const int64_t distances = int64_t{f->reach} * f->input_entries + int64_t{2} * tile_entries();
    return allocate(&f->table, distances * f->tap_floats);
}

// The merged table: each entry is the sum of the taps that end at it, as many as an input frame has
// output frames. An input comes out of it block by block, from its end to its start.
void fill_merged_table()
{
    const auto [tap_count, taps] = *family44_row->coeffs;
    const int32_t span = family44.input_entries;
    for (int32_t m = 0; m < tap_count + span; ++m) {
        float sum = 0;
        const int32_t end = std::min(m + 1, tap_count);
        for (int32_t i = std::max(0, m - span + 1); i < end; ++i) sum += taps[i];
        const int32_t block = m / span;
        taps_at(family44, (family44.reach - block) * span)[m % span] = filter_gain * sum;
    }
}

void make_family44()
{
    family &f = family44;
    f.input_entries = family44_row->target_rate / family44_rate;
    f.reach = family44_row->coeffs->tap_count / f.input_entries + 1;
    f.tap_floats = 1;
    if (!make_inputs(&f) || !make_tile(&f) || !make_table(&f)) fail(193, "allocation failed.");
    fill_merged_table();
}

// What an entry takes of the input that came distance steps before it, at a step whose number
// modulo 4 is given. A step lays its taps in groups of 4, from the last border of groups before it,
// and turned by as many as it lies behind that border; what falls off in front comes out last.
float rotated_tap(int32_t distance, int32_t step)
{
    const auto [tap_count, taps] = *family48_row->coeffs;
    const int32_t length = family48.reach;
    if (distance < 1 || distance > length) return 0;
    const int32_t start = step == 0 ? 0 : step - 4;
    const int32_t entry = (distance + start + length) % length;
    return entry < tap_count ? filter_gain * taps[(entry + step) % tap_count] : 0;
}

// Rows as long as a vector, for its first lane's distance: each is loaded whole. A vector starts at
// a multiple of 4 entries, so that the distance tells the step.
void fill_rotated_table()
{
    const int32_t lanes = form->vector_floats;
    for (int32_t distance = 1 - lanes; distance <= family48.reach; ++distance)
        for (int32_t lane = 0; lane < lanes; ++lane)
            taps_at(family48, distance)[lane] = rotated_tap(distance + lane, -distance & 3);
}

// Gives filter_output room for the source rate. False for want of memory.
bool size_output()
{
    const int64_t source = std::max(filter_source_rate, 1);
    const int64_t most_frames = (filter_target_rate + source - 1) / source;
    const int64_t floats = std::max<int64_t>(most_frames, family44.input_entries) * stream_channels;
    if (floats <= filter_output_floats) return true;
    release(&filter_output);
    const bool made = allocate(&filter_output, floats);
    filter_output_floats = made ? floats : 0;
    return made;
}

void make_family48()
{
    family &f = family48;
    f.input_entries = 1;
    f.reach = family48_row->coeffs->tap_count + 4;
    f.tap_floats = form->vector_floats;
    if (!make_inputs(&f) || !size_output()) fail(241, no_work_area);
    if (!make_tile(&f)) fail(248, no_work_area);
    if (!make_table(&f)) fail(253, no_work_area);
    fill_rotated_table();
}

} // namespace

bool coeff_filter_take_form(int32_t vector_floats)
{
    coeff_filter_free();
    form = nullptr;
    for (const filter_form &candidate : filter_forms)
        if ((vector_floats == 0 || candidate.vector_floats == vector_floats) && candidate.present())
            form = &candidate;
    return form != nullptr;
}

int32_t coeff_filter_init_rows(const coeff_row *rows, int32_t source_rate, int32_t target_rate,
                               int32_t channels)
{
    filter_source_rate = source_rate;
    filter_target_rate = target_rate;
    if (channels != stream_channels) {
        report("common", 153, "this code supports 2ch stereo only, not %d channels.\n", channels);
        leave(153);
    }
    if (family44_row != nullptr && family44_row->target_rate == target_rate) {
        if (!size_output()) fail(241, no_work_area);
        return -1;
    }
    coeff_filter_free();
    if (form == nullptr) coeff_filter_take_form(0);
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

namespace
{

// --- Run ----------------------------------------------------------------------------------------

// Adds count inputs, the first of which lies first_distance entries before the first vector, to
// that many vectors of the tile.
void add_to_tile(const family &f, int32_t first_vector, int32_t vectors, const kept_input *inputs,
                 int32_t count, int32_t distance)
{
    const int32_t lanes = form->vector_floats;
    form->adders[static_cast<size_t>(vectors)](
        f.tile + ptrdiff_t{first_vector} * lanes, inputs, inputs + count, taps_at(f, distance),
        ptrdiff_t{f.input_entries} * f.tap_floats, ptrdiff_t{lanes} * f.tap_floats);
}

// Works out a tile from the inputs that have come. The oldest do not reach its second half.
void begin_tile(family *f)
{
    constexpr int32_t half = tile_vectors / 2;
    const kept_input *oldest = f->inputs + f->kept - f->reach;
    const int32_t of_half = std::min(half * form->vector_floats / f->input_entries, f->reach);
    const int32_t of_all = f->reach - of_half;
    form->clear_tile(f->tile);
    add_to_tile(*f, 0, half, oldest, of_half, f->reach * f->input_entries);
    add_to_tile(*f, 0, tile_vectors, oldest + of_half, of_all, of_all * f->input_entries);
    f->position = 0;
}

// Keeps an input count times, as many as the tile has room for, and adds it to the entries behind
// the first that is yet to be read.
void add_input(family *f, const float *input, int32_t count)
{
    if (f->kept + count > most_kept(*f)) {
        std::copy_n(f->inputs + f->kept - f->reach, f->reach, f->inputs);
        f->kept = f->reach;
    }
    kept_input *first = f->inputs + f->kept;
    kept_input frame;
    frame.left.fill(input[0]);
    frame.right.fill(input[1]);
    std::fill_n(first, count, frame);
    f->kept += count;
    const int32_t vector = (f->position + f->input_entries) / form->vector_floats;
    if (vector < tile_vectors)
        add_to_tile(*f, vector, tile_vectors - vector, first, count,
                    vector * form->vector_floats - f->position);
}

// Takes the input count times and reads out as many entries as that gives.
void run_family(family *f, const float *input, int64_t count, float *output)
{
    while (count > 0) {
        if (f->position == tile_entries()) begin_tile(f);
        const int32_t room = (tile_entries() - f->position) / f->input_entries;
        const auto inputs = static_cast<int32_t>(std::min<int64_t>(room, count));
        add_input(f, input, inputs);
        const float *left = f->tile + f->position;
        const float *right = left + tile_entries();
        const int32_t entries = inputs * f->input_entries;
        for (int32_t i = 0; i < entries; ++i) {
            *output++ = left[i];
            *output++ = right[i];
        }
        f->position += entries;
        count -= inputs;
    }
}

// An input gives a block of entries, the first of which it does not reach itself yet.
int64_t run_family44(const float *input)
{
    const int32_t frames = family44.input_entries;
    run_family(&family44, input, 1, filter_output);
    for (int32_t i = 0; i < frames; ++i) {
        if (left_cut != 0) filter_output[stream_channels * i] = 0;
        if (right_cut != 0) filter_output[stream_channels * i + 1] = 0;
    }
    return frames;
}

// An input gives an entry for each step in which it is the current one.
int64_t run_family48(const float *input)
{
    const int64_t due = int64_t{filter_target_rate} - rate_accumulator;
    const int64_t steps = due < 1 ? 0 : (due + filter_source_rate - 1) / filter_source_rate;
    run_family(&family48, input, steps, filter_output);
    rate_accumulator = static_cast<int32_t>(steps * filter_source_rate - due);
    return steps;
}

} // namespace

const float *coeff_filter_run(const float *input, int32_t *count)
{
    if (count == nullptr) return nullptr;
    *count = 0;
    if (filter_source_rate < 1 || family48_row == nullptr) return nullptr;
    const int64_t frames =
        filter_source_rate == family44_rate ? run_family44(input) : run_family48(input);
    *count = static_cast<int32_t>(frames * stream_channels);
    return filter_output;
}
