#include "common.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cstdlib>
#include <new>
#include <string_view>

#include "coeff_sets.h"
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
// window, the next few entries to be read, gets an input at once; the input is kept, and all other
// entries get the kept inputs together when the window has been read. An entry then stays in a
// register while it gets them, oldest first, and no entry is read before it has all of its own.

// Inputs kept at most, which is as many as a window has reads.
static constexpr int32_t window_reads = 32;
static constexpr int32_t widest_vector_floats = 16;

// An input and its table, so turned that entry i of the accumulators meets table[i].
struct kept_input {
    std::array<float, widest_vector_floats> left; // the value, once for each lane
    std::array<float, widest_vector_floats> right;
    const float *table;
};

struct kept_inputs {
    int32_t count;
    int32_t window_begin; // entries
    int32_t window_end;
    std::array<kept_input, window_reads> inputs;
};

// The two rings of future output of a family.
struct accumulators {
    float *left;
    float *right;
    int32_t length;         // entries of each
    int32_t window_entries; // rings are cut into windows of this length, the last may be shorter
};

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
    bool (*present)(); // the processor has it
    int32_t (*add_input)(const accumulators &acc, const kept_input &input, int32_t begin,
                         int32_t end);
    int32_t (*add_inputs)(const accumulators &acc, const kept_inputs &kept, int32_t begin,
                          int32_t end);
    bool batched; // else the window is the whole ring
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
static constexpr auto filter_forms = std::to_array<filter_form>({
    {"straight 128", always_present, vectors_128::add_input, vectors_128::add_inputs, false},
        {"batched 128", always_present, vectors_128::add_input, vectors_128::add_inputs, true},
#if defined(__x86_64__)
        {"batched 256", avx2_present, vectors_256::add_input, vectors_256::add_inputs, true},
        {"batched 512", avx512_present, vectors_512::add_input, vectors_512::add_inputs, true},
#endif
});

// ---- State: one filter, main thread only

static int32_t filter_source_rate; // Hz, of the last coeff_filter_init
static int32_t filter_target_rate;
static const filter_form *form; // null: not chosen yet

static const coeff_row *family44_row;
static const coeff_row *family48_row;

// Tables stand in memory twice, one behind the other: turned to any start they need no wrap.
static float *merged_table;
static float *family44_acc_left;
static float *family44_acc_right;
static int32_t family44_position; // vectors of four entries; even
static kept_inputs family44_kept;

static float **rotated_tables; // four: the taps turned left by 0 to 3 entries
static float *family48_acc_left;
static float *family48_acc_right;
static int32_t family48_position; // entries
static kept_inputs family48_kept;

// Source-rate steps not yet paid for by target-rate steps.
static int32_t rate_accumulator;

// Left and right in turn; room for the frames that one input can give at the source rate.
static float *filter_output;
static int64_t filter_output_floats;

// ---- Set-up

// A cache line, and the widest vector.
static constexpr std::align_val_t table_alignment{64};

// count zeros, or null.
static float *allocate_floats(int64_t count)
{
    const auto bytes = static_cast<size_t>(count) * sizeof(float);
    auto *floats = static_cast<float *>(::operator new(bytes, table_alignment, std::nothrow));
    if (floats != nullptr) std::fill_n(floats, count, 0.0F);
    return floats;
}

static void free_floats(float **floats)
{
    ::operator delete(*floats, table_alignment);
    *floats = nullptr;
}

// The end of every failure. The terminal is still as it was found: a plain exit serves.
[[noreturn]] static void leave(int32_t number)
{
    coeff_filter_free();
    store_release(stop_output, flag_on);
    store_release(interrupted, flag_on);
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

static int32_t merged_length()
{
    return family44_row->coeffs->tap_count + family44_row->target_rate / family44_row->source_rate;
}

static int32_t rotated_length()
{
    return family48_row->coeffs->tap_count + vector_entries;
}

static accumulators family44_accumulators()
{
    const int32_t length = merged_length();
    const int32_t window = form->batched ? window_reads * block_entries : length;
    return {family44_acc_left, family44_acc_right, length, window};
}

static accumulators family48_accumulators()
{
    const int32_t length = rotated_length();
    const int32_t window = form->batched ? window_reads : length;
    return {family48_acc_left, family48_acc_right, length, window};
}

// Makes the window that is next read at the entry due.
static void open_window(const accumulators &acc, kept_inputs *kept, int32_t due)
{
    kept->count = 0;
    kept->window_begin = due - due % acc.window_entries;
    kept->window_end = std::min(kept->window_begin + acc.window_entries, acc.length);
}

// Each entry is the sum of the taps that end at it, as many as an input frame has output frames.
static void fill_merged_table()
{
    const int32_t span = family44_row->target_rate / family44_row->source_rate;
    const auto [tap_count, taps] = *family44_row->coeffs;
    const int32_t length = merged_length();
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
    const int32_t length = merged_length();
    family44_acc_left = allocate_floats(length);
    family44_acc_right = allocate_floats(length);
    merged_table = allocate_floats(int64_t{2} * length);
    if (family44_acc_left == nullptr || family44_acc_right == nullptr || merged_table == nullptr)
        fail(193, "allocation failed.");
    fill_merged_table();
    open_window(family44_accumulators(), &family44_kept, 0);
}

static void fill_rotated_table(float *table, int32_t turn)
{
    const auto [tap_count, taps] = *family48_row->coeffs;
    const int32_t length = rotated_length();
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
    free_floats(&filter_output);
    filter_output = allocate_floats(floats);
    filter_output_floats = filter_output == nullptr ? 0 : floats;
    return filter_output != nullptr;
}

static void make_family48()
{
    const char *const no_memory = "work area could not allocated.";
    const int32_t length = rotated_length();
    family48_acc_left = allocate_floats(length);
    family48_acc_right = allocate_floats(length);
    if (family48_acc_left == nullptr || family48_acc_right == nullptr || !size_output())
        fail(241, no_memory);
    rotated_tables = new (std::nothrow) float *[vector_entries]();
    if (rotated_tables == nullptr) fail(248, no_memory);
    for (int32_t turn = 0; turn < vector_entries; turn++) {
        rotated_tables[turn] = allocate_floats(int64_t{2} * length);
        if (rotated_tables[turn] == nullptr) fail(253, no_memory);
        fill_rotated_table(rotated_tables[turn], turn);
    }
    open_window(family48_accumulators(), &family48_kept, 0);
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
        for (int32_t turn = 0; turn < vector_entries; turn++) free_floats(&rotated_tables[turn]);
    delete[] rotated_tables;
    rotated_tables = nullptr;
    for (float **floats : {&merged_table, &family44_acc_left, &family44_acc_right,
                           &family48_acc_left, &family48_acc_right, &filter_output})
        free_floats(floats);
    filter_output_floats = 0;
    family44_row = nullptr;
    family48_row = nullptr;
    // Positions count inside the accumulators and end with them.
    family44_position = 0;
    family48_position = 0;
}

// ---- Run

// Brings the entries outside the window up to date.
static void add_kept_inputs(const accumulators &acc, const kept_inputs &kept)
{
    const std::array<std::array<int32_t, 2>, 2> stretches{
        {{0, kept.window_begin}, {kept.window_end, acc.length}}};
    for (const auto &[begin, end] : stretches) {
        const int32_t rest = form->add_inputs(acc, kept, begin, end);
        if (rest < end) vectors_128::add_inputs(acc, kept, rest, end);
    }
}

// Adds an input's products. table is the one that the accumulators' first entry meets; due is the
// entry that is read next.
static void add_to(const accumulators &acc, kept_inputs *kept, const float *input,
                   const float *table, int32_t due)
{
    kept_input &newest = kept->inputs[static_cast<size_t>(kept->count++)];
    newest.left.fill(input[0]);
    newest.right.fill(input[1]);
    newest.table = table;
    const int32_t rest = form->add_input(acc, newest, kept->window_begin, kept->window_end);
    if (rest < kept->window_end) vectors_128::add_input(acc, newest, rest, kept->window_end);
    const bool in_window = due >= kept->window_begin && due < kept->window_end;
    if (in_window && acc.window_entries < acc.length) return;
    add_kept_inputs(acc, *kept);
    open_window(acc, kept, due);
}

static void read_block(int32_t due)
{
    float *const left = family44_acc_left + due;
    float *const right = family44_acc_right + due;
    for (int32_t c = 0; c < block_entries; c++) {
        filter_output[2 * c] = left_cut != 0 ? 0.0F : left[c];
        filter_output[2 * c + 1] = right_cut != 0 ? 0.0F : right[c];
    }
    std::fill_n(left, block_entries, 0.0F);
    std::fill_n(right, block_entries, 0.0F);
}

// The accumulators are read downward, a block an input, and the table's start goes up.
static const float *run_family44(const float *input, int32_t *count)
{
    const accumulators acc = family44_accumulators();
    const int32_t vectors = acc.length / vector_entries;
    const int32_t position = family44_position;
    read_block((vectors - position) % vectors * vector_entries);
    family44_position = (position + block_entries / vector_entries) % vectors;
    const int32_t next_due = (vectors - family44_position) % vectors * vector_entries;
    add_to(acc, &family44_kept, input, merged_table + position * vector_entries, next_due);
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
    acc.left[position] = 0;
    acc.right[position] = 0;
    const int32_t complement = position == 0 ? 0 : acc.length - position;
    const int32_t start = complement / vector_entries * vector_entries;
    family48_position = position + 1 < acc.length ? position + 1 : 0;
    add_to(acc, &family48_kept, input, rotated_tables[position % vector_entries] + start,
           family48_position);
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
