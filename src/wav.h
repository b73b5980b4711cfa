// Reader of RIFF/WAVE and RF64 files (little-endian PCM): header and first two channels.
// RF64: EBU Tech 3306; the "fmt " chunk: Microsoft's and IBM's published RIFF WAVE format and its
// WAVE_FORMAT_EXTENSIBLE supplement.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which stands at its start. 0 when the file is taken:
// wave (rewritten to two channels), channels, bytes_left and data_bytes are set and the stream
// stands on the first sample. -1 when it is refused: among others for a "ds64" body below 24 bytes
// and for samples of 4096 bytes and more, whose bits wave cannot hold. Samples of no bytes pass,
// with a width of 0 that the opener names. Main thread.
int32_t wav_open(soundfile *file);

// Passes over count frames, of a file just opened that has more of them, by seeking. False when it
// cannot. Main thread.
bool wav_skip(soundfile *file, int64_t count);

// Delivers whole two-channel frames, at most count bytes, in the stored sample width. A single
// channel goes to both sides. Result: bytes stored, or -1 when no whole frame was left; bytes_left
// falls by as much. Main thread.
int32_t wav_read(soundfile *file, uint8_t *bytes, int32_t count);
