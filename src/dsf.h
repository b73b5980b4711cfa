// Reader of DSF files: DSD in blocks of one channel each, little-endian numbers, the oldest bit of
// a byte lowest. Published by Sony as the DSF file format, version 1.01.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which is at its start. 0 if the file is accepted: the
// dsf_ fields, channels, block_bytes, the length (set_dsd_length) and nSamplesPerSec are set and
// the stream is at the first block. -1 if the file is refused. Main thread.
int32_t dsf_open(soundfile *file);

// Skips count bytes of each channel by seeking. The file was just opened and has more than count
// bytes. If they end inside a block, that pair of blocks is read. False if that fails.
// Main thread.
bool dsf_skip(soundfile *file, int64_t count);

// Reads left and right bytes alternating, oldest bit highest, in groups of 8 bytes. The last group
// is padded with 0x96. Result: bytes stored, a multiple of 8; 0 for a request below 8 or if the
// file ends inside a block pair; -1 after the last byte. Main thread; one file at a time.
int32_t dsf_read(soundfile *file, uint8_t *bytes, int32_t count);

// Frees the block buffer that all DSF files share. Main thread.
void dsf_release();
