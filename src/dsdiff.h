// Reader of DSDIFF files: DSD in byte frames, big-endian numbers, oldest bit highest.
// Philips' "Direct Stream Digital Interchange File Format", version 1.5. DST-compressed files are
// refused.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which stands at its start. 0 when the file is taken:
// channels, channel_map, the length (set_dsd_length) and nSamplesPerSec are set and the stream
// stands on the first sound byte. -1 when it is refused. Main thread.
int32_t dsdiff_open(soundfile *file);

// Passes over count bytes of each channel, of a file just opened that has more of them, by seeking.
// False when it cannot. Main thread.
bool dsdiff_skip(soundfile *file, int64_t count);

// Delivers the left and right byte of each stored frame in turn, in groups of 8 bytes, up to the
// end of the file; the last group is filled up with 0x96. Result: bytes stored, a multiple of 8; 0
// for a request below 8 or when no frame was left; -1 once the end of the file was met. Main
// thread.
int32_t dsdiff_read(soundfile *file, uint8_t *bytes, int32_t count);
