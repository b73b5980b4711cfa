// Functions for all units: reports, the lines on the console, the process's priority, and how long
// the output thread may sleep.
#pragma once

#include <cstdint>

// Prints "\nERROR unit number " and the formatted message on standard error, and returns. Any
// thread.
[[gnu::format(printf, 3, 4)]] void report(const char *unit, int32_t number, const char *format,
                                          ...);

// Like report, but first stops the sound. The report becomes the cause of the end, unless there is
// one already. Output thread, at most once.
[[gnu::format(printf, 3, 4)]] void stopping_report(const char *unit, int32_t number,
                                                   const char *format, ...);

// Called by a fatal report of the thread that set it, after the sound is stopped and before any
// call that could block. Null: nothing is called.
extern thread_local void (*before_leaving)();

// Stops the sound, sets interrupted, and ends the process as fatal_exit(number) does. The report is
// printed last, and only if standard error accepts it in time (print_in_time). Any thread.
[[noreturn, gnu::format(printf, 3, 4)]] void fatal_report(const char *unit, int32_t number,
                                                          const char *format, ...);

// Stops the sound, restores the terminal, sends the last event and ends the process. The shell sees
// the low 8 bits of status. Any thread. The first caller ends the process; a second one waits for
// that.
[[noreturn]] void fatal_exit(int32_t status);

// Prints text on standard error, and drops the rest when there is no room for 100 ms. A reader that
// does not read must not delay the end of the process. False if something was dropped. Safe in a
// signal handler. Any thread.
bool print_in_time(const char *text);

// Opens /dev/null on each of the descriptors 0, 1 and 2 that is closed, so that no sound file or
// device gets that number. Main thread, before anything else is opened.
void open_missing_descriptors();

// Makes a text from outside safe to print: each control byte, which could control the terminal or
// forge a line, is replaced by '?'. UTF-8 is kept. Valid until the next call. Main thread.
const char *printable(const char *text);

// Prints the banner of a file on standard output: its number from 1, the number of files, its total
// time in seconds and its path, made printable. Main thread.
void show_file_banner(int32_t number, int32_t count, int64_t seconds, const char *path);

// Prints the status line on standard output: position in seconds, ring fill in per cent, and a
// label that may be null. Main thread.
void show_status(int64_t seconds, int32_t percent, const char *label);

// A carriage return and 72 blanks, which erase a status line. No line end.
extern const char blank_line[];

// If the user is root, lowers the nice value by 10. A failure is fatal report 145. Main thread.
void raise_priority();

// Requests the lowest real-time priority for the calling thread, so that it runs as soon as it
// wakes, before all ordinary threads. Most users may not do that; a failure is ignored. Output
// thread.
void raise_output_priority();

// The time of the monotonic clock in microseconds. Safe in a signal handler. Any thread.
int64_t microseconds_now();

// Nothing is written to a device that has room for at most nearly_full_frames, so that writes stay
// large while it is nearly full.
inline constexpr uint32_t nearly_full_frames = 1025;

// How long the output thread may wait after a write, in microseconds, for a device with a buffer of
// buffer_frames at rate frames per second. After a write at least
//
//   buffer_frames - (nearly_full_frames + 1)
//
// frames are in the buffer. The result is a quarter of the time that they last, from 100
// microseconds to 125 ms. Any thread.
uint32_t pause_of(uint32_t buffer_frames, int32_t rate);
