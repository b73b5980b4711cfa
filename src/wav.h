// Reader of RIFF/WAVE and RF64 files: PCM, little-endian. It reads the header and the first two
// channels. RF64 is EBU Tech 3306. The "fmt " chunk is that of Microsoft's and IBM's published RIFF
// WAVE format and its WAVE_FORMAT_EXTENSIBLE supplement.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which is at its start. 0 if the file is accepted: wave
// (rewritten to two channels), channels, bytes_left and data_bytes are set and the stream is at the
// first sample. -1 if the file is refused, for example for a "ds64" body below 24 bytes, or for
// samples of 4096 bytes or more, whose number of bits does not fit into its field of wave. Samples
// of 0 bytes are accepted; the opener then reports the width 0 and ends the process. Main thread.
int32_t wav_open(soundfile *file);

// Skips count frames by seeking. The file was just opened and has more than count frames. False if
// the stream cannot seek. Main thread.
bool wav_skip(soundfile *file, int64_t count);

// Reads whole two-channel frames, at most count bytes, in the stored sample width. A mono file
// gives its channel on both sides. Result: bytes stored, or -1 if no whole frame is left or fits
// into count. bytes_left decreases by the bytes stored. Main thread.
int32_t wav_read(soundfile *file, uint8_t *bytes, int32_t count);
