// Reader of WSD files: a header of fixed layout, big-endian numbers, then DSD in byte frames,
// oldest bit highest. 1-bit Audio Consortium, "WSD file format" 1.1.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which stands at its start. 0 when the file is taken:
// channels, channel_map, the length (set_dsd_length) and nSamplesPerSec are set and the stream
// stands on the first sound byte. -1 when it is refused. Main thread.
int32_t wsd_open(soundfile *file);

// As dsdiff_skip and dsdiff_read: the sound data has the same form.
bool wsd_skip(soundfile *file, int64_t count);
int32_t wsd_read(soundfile *file, uint8_t *bytes, int32_t count);
