// Reader of WSD files: a header of fixed layout with big-endian numbers, then DSD in frames of one
// byte per channel, the oldest bit of a byte highest. The format is the 1-bit Audio Consortium's
// "WSD file format", version 1.1.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which is at its start. 0 if the file is accepted:
// channels, channel_map, the length (set_dsd_length) and nSamplesPerSec are set and the stream is
// at the first sound byte. -1 if the file is refused. Main thread.
int32_t wsd_open(soundfile *file);

// Like dsdiff_skip and dsdiff_read: the sound data has the same layout.
bool wsd_skip(soundfile *file, int64_t count);
int32_t wsd_read(soundfile *file, uint8_t *bytes, int32_t count);
