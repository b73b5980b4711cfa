// Reader of DSDIFF files: DSD in frames of one byte per channel, big-endian numbers, the oldest bit
// of a byte highest. The format is Philips' "Direct Stream Digital Interchange File Format",
// version 1.5. DST-compressed files are refused.
#pragma once

#include <cstdint>

#include "sonivane.h"

// Parses the header of the stream file->fp, which is at its start. 0 if the file is accepted:
// channels, channel_map, the length (set_dsd_length) and nSamplesPerSec are set and the stream is
// at the first sound byte. -1 if the file is refused. Main thread.
int32_t dsdiff_open(soundfile *file);

// Skips count bytes of each channel by seeking. The file was just opened and has more than count
// bytes. False if the stream cannot seek. Main thread.
bool dsdiff_skip(soundfile *file, int64_t count);

// Reads the left and the right byte of each stored frame, in groups of 8 bytes, up to the end of
// the file. The last group is padded with 0x96. Result: bytes stored, a multiple of 8; 0 for a
// request below 8 or if no frame was left; -1 after a call that reached the end of the file. Main
// thread.
int32_t dsdiff_read(soundfile *file, uint8_t *bytes, int32_t count);
