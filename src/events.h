// The events that a front-end reads, given a descriptor with --events: one JSON object a line, each
// with "event" first and then the fields of docs/front-end.md in their order.
//
// A line goes out in one call that never waits, or not at all; the next one that goes out tells how
// many were dropped. A reader that has left ends the sound, as its key would. Nothing here
// allocates, and without a descriptor nothing here does anything. Either thread may tell any event.
#pragma once

#include <cstdint>

#include "lookout.h"
#include "sonivane.h"

// Takes the descriptor of that decimal number. False when it is none that is open for writing. Main
// thread, before the output thread exists.
bool events_open(const char *number);

// The word for a reason, in the last event and in report 1100. Any thread.
const char *name_of(stop_reason reason);

// Whether anybody listens.
bool events_wanted();

// The descriptor that the events go to, to see whether its reader has left; -1: none. Look-out.
int events_descriptor();

// The reader of the events has left, which ends the sound as a key does. Any thread.
void events_reader_left();

// The file at index, of that many names, is being looked at; at most ten a second.
void event_probing(int32_t index, int32_t of);

// A name does not play, for that reason.
void event_left_out(const char *path, const char *reason);

// A file plays at its turn. The record has been opened.
void event_file(const soundfile *file);

// The device is about to be opened, for the attempt-th time from 1.
void event_opening(int32_t attempt);

// That attempt failed; error is the system's text.
void event_not_opened(int32_t attempt, const char *error);

// What the stream is, once it is settled. form: as the banner calls it; format_name: of
// output_format, or empty; both sizes in frames of the device.
void event_stream(const char *form, const char *format_name, uint32_t device_frames,
                  uint32_t ring_frames);

// The ring is being filled for the first time; at most ten a second.
void event_filling(int32_t percent);

// The file's first frame has gone to the device.
void event_playing(const soundfile *file);

// That many frames of the file have sounded since it began, as far as the player can know.
void event_position(const soundfile *file, int64_t frames);

// The device ran empty or was suspended, and the sound goes on as soon as it can. That many frames
// that the device held will not sound.
void event_rebuffering(const soundfile *file, stop_reason reason, int64_t lost_frames);

// Nothing more is read from the list; that many frames are still to sound.
void event_draining(int64_t frames);

// The sound of the file ended before its end.
void event_read_error(const soundfile *file);

// The process ends with that exit status, of which the shell sees the low 8 bits, for the reason in
// stopped_by. Once; nothing is told behind it. It is tried for 100 ms. A signal handler may call it
// too.
void event_end(int32_t status);
