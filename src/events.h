// The events for a front-end, written to the descriptor that --events names. Each line is one JSON
// object: "event" first, then the fields of docs/front-end.md in their order.
//
// A line is written by one call that does not block, or it is dropped. The next line that is
// written has the number of dropped lines. A reader that closes its end stops the sound, as the
// stop key does. Nothing here allocates memory. Without a descriptor all functions do nothing. Any
// thread may send any event.
#pragma once

#include <cstdint>

#include "lookout.h"
#include "sonivane.h"

// Sets the descriptor, given as a decimal number. False if it is not open for writing, or if it is
// not inherited from the parent. Main thread, before the output thread exists.
bool events_open(const char *number);

// The name of a reason, for the last event and for report 1100. Any thread.
const char *name_of(stop_reason reason);

// Whether there is a descriptor and its reader has not left. Any thread.
bool events_wanted();

// The descriptor that events are written to, or -1. The look-out polls it to find out that its
// reader has closed its end. Look-out thread.
int events_descriptor();

// Records that the reader of the events has left, and stops the sound as the stop key does. Any
// thread.
void events_reader_left();

// Reports that the file at index, out of that many names, is being probed. At most ten a second.
void event_probing(int32_t index, int32_t of);

// Reports that the file or directory of that name is left out of the list, with the reason.
void event_left_out(const char *path, const char *reason);

// Reports a file that is opened to be played. file is open.
void event_file(const soundfile *file);

// Reports that the device is about to be opened. The first attempt is 1.
void event_opening(int32_t attempt);

// Reports that the attempt failed. error is the system's text.
void event_not_opened(int32_t attempt, const char *error);

// Reports the stream's parameters when they are final. form: its name in the banner. format_name:
// the name of output_format, or empty. Both sizes are in frames of the device.
void event_stream(const char *form, const char *format_name, uint32_t device_frames,
                  uint32_t ring_frames);

// Reports the first fill of the ring. At most ten a second.
void event_filling(int32_t percent);

// Reports that the file's first frame was written to the device.
void event_playing(const soundfile *file);

// Reports the position. frames is the number of frames of the file that have sounded, as far as the
// player can know, counted from the frame at which the file began to play.
void event_position(const soundfile *file, int64_t frames);

// Reports that the device ran empty or was suspended, and that the sound goes on as soon as it can.
// lost_frames: frames that the device held and that will not sound.
void event_rebuffering(const soundfile *file, stop_reason reason, int64_t lost_frames);

// Reports that nothing more is read from the list, and that this many frames have yet to sound.
void event_draining(int64_t frames);

// Reports that the sound of the file ended before the end that its header states.
void event_read_error(const soundfile *file);

// Reports the end of the process: its exit status, of which the shell sees the low 8 bits, and the
// reason in stopped_by. Only the first call writes an event. No event is written after it. While
// there is no room it retries for 100 ms. Safe in a signal handler. Any thread.
void event_end(int32_t status);
