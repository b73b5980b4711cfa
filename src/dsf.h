// Reader of DSF files: DSD in blocks per channel, little-endian numbers, oldest bit lowest.
// Published by Sony as the DSF file format, version 1.01.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which stands at its start. 0 when the file is taken:
// the dsf_ fields, channels, block_bytes, the length (set_dsd_length) and nSamplesPerSec are set
// and the stream stands on the first block. -1 when it is refused. Main thread.
int32_t dsf_open(soundfile *file);

// Passes over count bytes of each channel, of a file just opened that has more of them, by seeking;
// of the block in which they end it reads the pair. False when it cannot. Main thread.
bool dsf_skip(soundfile *file, int64_t count);

// Delivers left and right bytes in turn, oldest bit highest, in groups of 8 bytes; the last group
// is filled up with 0x96. Result: bytes stored, a multiple of 8; 0 for a request below 8 or when
// the file ends inside a block pair; -1 behind the last byte. Main thread; one file at a time.
int32_t dsf_read(soundfile *file, uint8_t *bytes, int32_t count);

// Frees the block buffer that the DSF files of a run share. Main thread.
void dsf_release();
