// The oversampling filter: long FIR coefficient sets that take PCM to 352800 Hz. Main thread only;
// one instance, whose state is file-level.
//
// Two families of rates: a source of exactly 44100 Hz goes through a table folded over the 8 output
// frames of an input frame, any other rate through one table step per output frame. Single
// precision; each product is rounded, then added, oldest input first.
#pragma once

#include <cstdint>

struct coeff_row;

// Makes both families ready for the given rates in Hz. channels must be 2; use_short selects the
// short sets. A second call with the same target rate keeps the tables and the stream and changes
// the rates alone. Result: -1; every failure is a report of this unit and leaves by exit.
int32_t coeff_filter_init(int32_t source_rate, int32_t target_rate, int32_t channels,
                          int32_t use_short);

// Feeds one frame, input[0] left and input[1] right, full scale at 1.0, finite. Result: *count
// floats, left and right in turn, valid until the next call; *count may be 0. Null for a source
// rate below 1, a null count, or without a filter. At 44100 Hz left_cut and right_cut give zeros.
const float *coeff_filter_run(const float *input, int32_t *count);

// Frees all that coeff_filter_init allocated and forgets the stream. Null-safe.
void coeff_filter_free();

// The rest is for tests and benchmarks.

// coeff_filter_init with a rate table of the caller's.
int32_t coeff_filter_init_rows(const coeff_row *rows, int32_t source_rate, int32_t target_rate,
                               int32_t channels);

// Frees the filter, and takes vectors of 4 or 8 floats for the next ones, or the widest for 0.
// False when the processor or the program lacks them.
bool coeff_filter_take_width(int32_t vector_floats);
