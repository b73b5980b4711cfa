// The oversampling filter: long FIR coefficient sets that raise PCM to 352800 Hz. Main thread only.
// There is one instance. Its state is file-level.
//
// There are two families of rates. A source of exactly 44100 Hz gives 8 output frames for each
// input frame, from a table whose entries are sums of 8 taps. Any other rate uses a table of single
// taps: from one output frame to the next, the factor of an input is the next entry. All arithmetic
// is in single precision: each product is rounded, then added, oldest input first.
#pragma once

#include <cstdint>

struct coeff_row;

// Prepares two tables, one for sources of 44.1 kHz and one for sources of all other rates. Both
// rates are in Hz. channels must be 2. use_short selects the short sets. A second call with the
// same target rate keeps the tables and the inputs and changes the rates only. Result: always -1,
// because a failure prints a report of this unit and ends the process.
int32_t coeff_filter_init(int32_t source_rate, int32_t target_rate, int32_t channels,
                          int32_t use_short);

// Feeds one frame: input[0] left, input[1] right, full scale 1.0, finite. Result: *count floats,
// left and right alternating, valid until the next call; *count may be 0. Null if the source rate
// is below 1, if count is null, or if there is no filter. At 44100 Hz a channel that left_cut or
// right_cut silences is 0.
const float *coeff_filter_run(const float *input, int32_t *count);

// Frees all that coeff_filter_init allocated and drops the inputs. May be called without a filter.
void coeff_filter_free();

// The rest is for tests and benchmarks.

// Like coeff_filter_init, with the caller's rate table.
int32_t coeff_filter_init_rows(const coeff_row *rows, int32_t source_rate, int32_t target_rate,
                               int32_t channels);

// Frees the filter and selects the vector width of the next ones: 4 or 8 floats, or 0 for the
// widest available. False if the processor or the build has no such vectors.
bool coeff_filter_take_width(int32_t vector_floats);
