// What every unit leans on: reports, the lines on the console, the process's priority, and how long
// the output thread may sleep.
#pragma once

#include <cstdint>

// Prints "\nERROR unit number " and the formatted message on standard error, and goes on. Any
// thread.
[[gnu::format(printf, 3, 4)]] void report(const char *unit, int32_t number, const char *format,
                                          ...);

// As report, but first stops the sound: the report is the cause, if nothing was before. Output
// thread, once.
[[gnu::format(printf, 3, 4)]] void stopping_report(const char *unit, int32_t number,
                                                   const char *format, ...);

// What fatal reports of the calling thread do once the sound was stopped and before anything that
// could hold them; null: nothing.
extern thread_local void (*before_leaving)();

// Stops the sound, sets interrupted, and ends the process as fatal_exit(number) does. The report is
// printed last, and only where standard error takes it (print_in_time). Any thread.
[[noreturn, gnu::format(printf, 3, 4)]] void fatal_report(const char *unit, int32_t number,
                                                          const char *format, ...);

// Stops the sound, gives the terminal back, puts the last event out and ends the process; the shell
// sees the low 8 bits of status. Any thread: the first caller leaves, a second one waits for the
// process to end.
[[noreturn]] void fatal_exit(int32_t status);

// Prints text on standard error, but leaves out what finds no room there within 100 ms: a reader
// that does not read must not hold the end of the process. False when something was left out. Safe
// in a signal handler. Any thread.
bool print_in_time(const char *text);

// Opens /dev/null on each of descriptors 0, 1 and 2 that the parent left closed, so that no sound
// file or device comes to stand there. Main thread, first of all.
void hold_standard_descriptors();

// A text from outside as it may be shown: each control byte, which could steer the terminal or
// forge a line, is a '?'; UTF-8 stays. Valid until the next call. Main thread.
const char *printable(const char *text);

// Prints the banner of a file on standard output: its number from 1, the count of files, its total
// time in seconds, its path, printable. Main thread.
void show_file_banner(int32_t number, int32_t count, int64_t seconds, const char *path);

// Prints the status line on standard output: position in seconds, ring fill in per cent, and a
// label that may be null. Main thread.
void show_status(int64_t seconds, int32_t percent, const char *label);

// A carriage return and the 72 blanks that wipe a status line; no line end.
extern const char blank_line[];

// Run by root: asks for nice -10; a refusal is report 145. Otherwise nothing. Main thread.
void raise_priority();

// Asks for the lowest real-time priority for the calling thread, which then runs as soon as it
// wakes, whatever other programs do. Most users are refused that; nothing is said. Output thread.
void raise_output_priority();

// A device with at most nearly_full_frames of room is left alone: writes stay large while it is
// nearly full.
inline constexpr uint32_t nearly_full_frames = 1025;

// How long a device may be left alone after a write, in microseconds. buffer_frames: the size of
// its buffer; rate: frames per second. A write may leave nearly_full_frames and one free, and of
// the time that the rest lasts a quarter is waited, at most 125 ms. Any thread.
uint32_t pause_of(uint32_t buffer_frames, int32_t rate);
