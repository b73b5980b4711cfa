#include "common.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cstdlib>
#include <new>
#include <span>
#include <string_view>

#include "coeff_sets.h"
#include "events.h"
#include "sonivane.h"
#include "util.h"

// Each product and each sum must be rounded to single precision.
static_assert(FLT_EVAL_METHOD == 0);

// Both sets carry this gain, 0.9 in single precision.
static constexpr float filter_gain = std::bit_cast<float>(0x3F666666U);

static constexpr int32_t family44_rate = 44100;
static constexpr int32_t family48_rate = 48000;
// Output frames of an input frame at 44100 Hz.
static constexpr int32_t block_entries = 8;
// Positions and the lengths of all tables count in vectors of this many entries.
static constexpr int32_t vector_entries = 4;

static constexpr std::array<coeff_row, 4> normal_rows{{
    {family44_rate, 352800, &set_44k_normal},
    {family44_rate, 176400, &set_44k_to_176k},
    {0, 352800, &set_48k_normal},
    {-1, -1, nullptr},
}};
static constexpr std::array<coeff_row, 3> short_rows{{
    {family44_rate, 352800, &set_44k_short},
    {0, 352800, &set_48k_short},
    {-1, -1, nullptr},
}};

// ---- Batches
//
// An input is worth a whole table of products, and most of them come due much later. So only the
// near window, the few entries to be read next, gets an input at once. The input is kept. When the
// near window has been read, the rest of the wide window around it gets the inputs kept since, and
// when the wide window has been read, all other entries do. An entry stays in a register while it
// gets many inputs, oldest first, and none is read before it has all of its own.

// Inputs kept at most, which is as many as a wide window has reads.
static constexpr int32_t wide_reads = 64;
static constexpr int32_t near_reads = 16;

// The value of an input, once for each lane of the narrowest vectors, and its table, so turned that
// entry i of the accumulators meets table[i].
struct alignas(16) kept_input {
    std::array<float, 4> left;
    std::array<float, 4> right;
    const float *table;
};

// The two rings of future output of a family, cut into windows; the last may be shorter.
struct accumulators {
    float *left;
    float *right;
    int32_t length;       // entries of each
    int32_t near_entries; // of a near window
    int32_t wide_entries; // of a wide window; a multiple of near_entries
};

struct entry_range {
    int32_t begin;
    int32_t end;
};

struct pending {
    int32_t count;      // inputs kept
    int32_t near_first; // the first of them that the wide window still lacks
    entry_range near;
    entry_range wide;
    std::array<kept_input, wide_reads> inputs;
};

static constexpr int32_t widest_vector_floats = 16;

// Bits that all stay, but for those of the middle float.
alignas(64) static constexpr auto clear_masks = [] {
    std::array<float, size_t{2} * widest_vector_floats> masks{};
    masks.fill(std::bit_cast<float>(~0U));
    masks[widest_vector_floats] = 0;
    return masks;
}();

namespace vectors_128
{
constexpr int32_t vector_floats = 4;
#include "filter_kernel.inc"
} // namespace vectors_128

#if defined(__x86_64__)
#ifdef __clang__
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace vectors_256
{
constexpr int32_t vector_floats = 8;
#include "filter_kernel.inc"
} // namespace vectors_256
#ifdef __clang__
#pragma clang attribute pop
#pragma clang attribute push(__attribute__((target("avx512f"))), apply_to = function)
#else
#pragma GCC pop_options
#pragma GCC push_options
#pragma GCC target("avx512f")
#endif
namespace vectors_512
{
constexpr int32_t vector_floats = 16;
#include "filter_kernel.inc"
} // namespace vectors_512
#ifdef __clang__
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif

// One way to run the loops. All give the same bits.
struct filter_form {
    const char *name;
    bool batched;      // else the near window is the whole ring
    bool (*present)(); // the processor has it
    int32_t (*add_input)(const accumulators &acc, const kept_input &input, int32_t begin,
                         int32_t end, int32_t cleared);
    int32_t (*add_inputs)(const accumulators &acc, std::span<const kept_input> inputs,
                          int32_t begin, int32_t end);
};

static bool always_present()
{
    return true;
}
#if defined(__x86_64__)
static bool avx2_present()
{
    return __builtin_cpu_supports("avx2") != 0;
}
static bool avx512_present()
{
    return __builtin_cpu_supports("avx512f") != 0;
}
#endif

// The last form that is present is the one taken.
#define KERNEL(width) vectors_##width::add_input, vectors_##width::add_inputs
static constexpr auto filter_forms = std::to_array<filter_form>({
    {"straight 128", false, always_present, KERNEL(128)},
        {"batched 128", true, always_present, KERNEL(128)},
#if defined(__x86_64__)
        {"batched 256", true, avx2_present, KERNEL(256)},
        {"batched 512", true, avx512_present, KERNEL(512)},
#endif
});
#undef KERNEL

// ---- State: one filter, main thread only

static int32_t filter_source_rate; // Hz, of the last coeff_filter_init
static int32_t filter_target_rate;
static const filter_form *form; // null: not chosen yet

static const coeff_row *family44_row;
static const coeff_row *family48_row;

// Tables stand in memory twice, one behind the other: turned to any start they need no wrap.
static int32_t family44_length; // entries of the table and of each accumulator ring
static float *merged_table;
static float *family44_acc_left;
static float *family44_acc_right;
static int32_t family44_position; // vectors of four entries; even
static pending family44_pending;

static int32_t family48_length; // entries of each table and accumulator ring
static float **rotated_tables;  // four: the taps turned left by 0 to 3 entries
static float *family48_acc_left;
static float *family48_acc_right;
static int32_t family48_position; // entries
static pending family48_pending;

// Source-rate steps not yet paid for by target-rate steps.
static int32_t rate_accumulator;

// Left and right in turn; room for the frames that one input can give at the source rate.
static float *filter_output;
static int64_t filter_output_floats;

// ---- Set-up

// A cache line, and the widest vector.
static constexpr std::align_val_t table_alignment{64};

// count values of 0, or null.
template <typename value> static value *allocate(int64_t count)
{
    const auto bytes = static_cast<size_t>(count) * sizeof(value);
    auto *values = static_cast<value *>(::operator new(bytes, table_alignment, std::nothrow));
    if (values != nullptr) std::fill_n(values, count, value{});
    return values;
}

template <typename value> static void release(value **values)
{
    ::operator delete(*values, table_alignment);
    *values = nullptr;
}

// The end of every failure. The terminal is still as it was found: a plain exit serves.
[[noreturn]] static void leave(int32_t number)
{
    coeff_filter_free();
    const stop_cause cause = {stop_reason::report, "common", number};
    stop_playing(&cause);
    store_release(interrupted, flag_on);
    event_end(number);
    std::exit(number);
}

[[noreturn]] static void fail(int32_t number, const char *text)
{
    report("common", number, "%s", text);
    leave(number);
}

// The first row to target_rate for the family, whose row may also stand under rate 0. Null when
// there is none.
static const coeff_row *find_row(const coeff_row *rows, int32_t target_rate, int32_t family_rate)
{
    for (const coeff_row *row = rows; row->target_rate >= 0; row++) {
        const bool of_family = row->source_rate == 0 || row->source_rate == family_rate;
        if (row->target_rate == target_rate && of_family) return row;
    }
    return nullptr;
}

// The rings of a family that is read entries_a_read at a time.
static accumulators cut_rings(float *left, float *right, int32_t length, int32_t entries_a_read)
{
    if (!form->batched) return {left, right, length, length, length};
    return {left, right, length, near_reads * entries_a_read, wide_reads * entries_a_read};
}

static accumulators family44_accumulators()
{
    return cut_rings(family44_acc_left, family44_acc_right, family44_length, block_entries);
}

static accumulators family48_accumulators()
{
    return cut_rings(family48_acc_left, family48_acc_right, family48_length, 1);
}

// The window of the given length that holds entry due.
static entry_range window_of(const accumulators &acc, int32_t window_entries, int32_t due)
{
    const int32_t begin = due - due % window_entries;
    return {begin, std::min(begin + window_entries, acc.length)};
}

static bool holds(const entry_range &range, int32_t entry)
{
    return entry >= range.begin && entry < range.end;
}

// Makes a pending without inputs, for rings that are next read at the entry due.
static void open_windows(const accumulators &acc, pending *p, int32_t due)
{
    p->count = 0;
    p->near_first = 0;
    p->near = window_of(acc, acc.near_entries, due);
    p->wide = window_of(acc, acc.wide_entries, due);
}

// Output frames of an input frame.
static int32_t family44_span()
{
    return family44_row->target_rate / family44_row->source_rate;
}

// Each entry is the sum of the taps that end at it, as many as an input frame has output frames.
static void fill_merged_table()
{
    const int32_t span = family44_span();
    const auto [tap_count, taps] = *family44_row->coeffs;
    const int32_t length = family44_length;
    for (int32_t m = 0; m < length; m++) {
        float sum = 0;
        const int32_t end = std::min(m + 1, tap_count);
        for (int32_t i = std::max(0, m - span + 1); i < end; i++) sum += taps[i];
        merged_table[m] = filter_gain * sum;
        merged_table[length + m] = merged_table[m];
    }
}

static void make_family44()
{
    const int32_t length = family44_row->coeffs->tap_count + family44_span();
    family44_length = length;
    family44_acc_left = allocate<float>(length);
    family44_acc_right = allocate<float>(length);
    merged_table = allocate<float>(int64_t{2} * length);
    if (family44_acc_left == nullptr || family44_acc_right == nullptr || merged_table == nullptr)
        fail(193, "allocation failed.");
    fill_merged_table();
    open_windows(family44_accumulators(), &family44_pending, 0);
}

static void fill_rotated_table(float *table, int32_t turn)
{
    const auto [tap_count, taps] = *family48_row->coeffs;
    const int32_t length = family48_length;
    for (int32_t k = 0; k < tap_count; k++) {
        table[k] = filter_gain * taps[(k + turn) % tap_count];
        table[length + k] = table[k];
    }
}

// Gives filter_output room for the source rate. False for want of memory.
static bool size_output()
{
    const int64_t source = std::max(filter_source_rate, 1);
    const int64_t most_frames = (filter_target_rate + source - 1) / source;
    const int64_t floats = std::max<int64_t>(most_frames, block_entries) * stream_channels;
    if (floats <= filter_output_floats) return true;
    release(&filter_output);
    filter_output = allocate<float>(floats);
    filter_output_floats = filter_output == nullptr ? 0 : floats;
    return filter_output != nullptr;
}

static void make_family48()
{
    const char *const no_memory = "work area could not allocated.";
    const int32_t length = family48_row->coeffs->tap_count + vector_entries;
    family48_length = length;
    family48_acc_left = allocate<float>(length);
    family48_acc_right = allocate<float>(length);
    if (family48_acc_left == nullptr || family48_acc_right == nullptr || !size_output())
        fail(241, no_memory);
    rotated_tables = allocate<float *>(vector_entries);
    if (rotated_tables == nullptr) fail(248, no_memory);
    for (int32_t turn = 0; turn < vector_entries; turn++) {
        rotated_tables[turn] = allocate<float>(int64_t{2} * length);
        if (rotated_tables[turn] == nullptr) fail(253, no_memory);
        fill_rotated_table(rotated_tables[turn], turn);
    }
    open_windows(family48_accumulators(), &family48_pending, 0);
}

static const filter_form *best_form()
{
    const filter_form *best = filter_forms.data();
    for (const filter_form &candidate : filter_forms)
        if (candidate.present()) best = &candidate;
    return best;
}

// For tests and benchmarks; see tests/filter_hooks.h.
bool coeff_filter_take_form(const char *name)
{
    if (name == nullptr) {
        form = best_form();
        return true;
    }
    const auto named = std::find_if(filter_forms.begin(), filter_forms.end(), [&](auto &candidate) {
        return std::string_view(candidate.name) == name && candidate.present();
    });
    if (named == filter_forms.end()) return false;
    form = named;
    return true;
}

// coeff_filter_init with any rate table; tests call it with small ones.
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
        if (!size_output()) fail(241, "work area could not allocated.");
        return -1;
    }
    coeff_filter_free();
    if (form == nullptr) form = best_form();
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
    if (rotated_tables != nullptr)
        for (int32_t turn = 0; turn < vector_entries; turn++) release(&rotated_tables[turn]);
    release(&rotated_tables);
    for (float **floats : {&merged_table, &family44_acc_left, &family44_acc_right,
                           &family48_acc_left, &family48_acc_right, &filter_output})
        release(floats);
    filter_output_floats = 0;
    family44_row = nullptr;
    family48_row = nullptr;
    // Positions count inside the accumulators and end with them.
    family44_position = 0;
    family48_position = 0;
}

// ---- Run

static void add_to_range(const accumulators &acc, std::span<const kept_input> inputs, int32_t begin,
                         int32_t end)
{
    const int32_t rest = form->add_inputs(acc, inputs, begin, end);
    if (rest < end) vectors_128::add_inputs(acc, inputs, rest, end);
}

// Gives the inputs kept so far to the entries that lack them, as far as the entry due demands it.
static void catch_up(const accumulators &acc, pending *p, int32_t due)
{
    const std::span<const kept_input> all{p->inputs.data(), static_cast<size_t>(p->count)};
    const auto newest = all.subspan(static_cast<size_t>(p->near_first));
    add_to_range(acc, newest, p->wide.begin, p->near.begin);
    add_to_range(acc, newest, p->near.end, p->wide.end);
    p->near_first = p->count;
    p->near = window_of(acc, acc.near_entries, due);
    if (holds(p->wide, due) && p->count < wide_reads) return;
    add_to_range(acc, all, 0, p->wide.begin);
    add_to_range(acc, all, p->wide.end, acc.length);
    open_windows(acc, p, due);
}

static constexpr int32_t no_entry = -1;

// Adds an input's products. table is the one that the accumulators' first entry meets; the entry
// cleared, if any, counts as 0 before; due is the entry that is read next.
static void add_to(const accumulators &acc, pending *p, const float *input, const float *table,
                   int32_t cleared, int32_t due)
{
    kept_input &newest = p->inputs[static_cast<size_t>(p->count++)];
    newest.left.fill(input[0]);
    newest.right.fill(input[1]);
    newest.table = table;
    const auto [begin, end] = p->near;
    const int32_t rest = form->add_input(acc, newest, begin, end, cleared);
    if (rest < end) vectors_128::add_input(acc, newest, rest, end, cleared);
    if (!holds(p->near, due) || p->count == wide_reads) catch_up(acc, p, due);
}

// Reads a block out into every other float of output, and clears it.
static void read_block(float *block, bool cut, float *output)
{
    for (ptrdiff_t c = 0; c < block_entries; c++)
        output[stream_channels * c] = cut ? 0.0F : block[c];
    std::fill_n(block, block_entries, 0.0F);
}

// The first entry of the block that is read when the table starts at that vector.
static int32_t family44_due(int32_t position)
{
    return position == 0 ? 0 : family44_length - position * vector_entries;
}

// The accumulators are read downward, a block an input, and the table's start goes up.
static const float *run_family44(const float *input, int32_t *count)
{
    const accumulators acc = family44_accumulators();
    const int32_t start = family44_position * vector_entries;
    const int32_t due = family44_due(family44_position);
    read_block(acc.left + due, left_cut != 0, filter_output);
    read_block(acc.right + due, right_cut != 0, filter_output + 1);
    family44_position += block_entries / vector_entries;
    if (family44_position * vector_entries == acc.length) family44_position = 0;
    add_to(acc, &family44_pending, input, merged_table + start, no_entry,
           family44_due(family44_position));
    *count = block_entries * stream_channels;
    return filter_output;
}

// The accumulators are read upward, an entry an output frame, and the table's start goes down. It
// does so by whole vectors; the rotated tables make up for the rest.
static void output_step(const accumulators &acc, const float *input, float *frame)
{
    const int32_t position = family48_position;
    frame[0] = acc.left[position];
    frame[1] = acc.right[position];
    const int32_t complement = position == 0 ? 0 : acc.length - position;
    const int32_t start = complement / vector_entries * vector_entries;
    family48_position = position + 1 < acc.length ? position + 1 : 0;
    add_to(acc, &family48_pending, input, rotated_tables[position % vector_entries] + start,
           position, family48_position);
}

static const float *run_family48(const float *input, int32_t *count)
{
    const accumulators acc = family48_accumulators();
    int64_t steps = rate_accumulator;
    for (; steps < filter_target_rate; steps += filter_source_rate) {
        output_step(acc, input, filter_output + *count);
        *count += stream_channels;
    }
    rate_accumulator = static_cast<int32_t>(steps - filter_target_rate);
    return filter_output;
}

const float *coeff_filter_run(const float *input, int32_t *count)
{
    if (count == nullptr) return nullptr;
    *count = 0;
    if (filter_source_rate < 1 || family48_row == nullptr) return nullptr;
    return filter_source_rate == family44_rate ? run_family44(input, count)
                                               : run_family48(input, count);
}
