// What every unit leans on: reports, the console (status lines, keyboard, terminal mode), the
// process's priority, the sleeps of the polling loops, and the ordered access to shared words.
#pragma once

#include <atomic>
#include <cstdint>

// A word that two threads share: what its writer did before store_release is seen by a reader
// after load_acquire.
template <typename T> inline T load_acquire(const std::atomic<T> &word)
{
    return word.load(std::memory_order_acquire);
}
template <typename T, typename V> inline void store_release(std::atomic<T> &word, V value)
{
    word.store(value, std::memory_order_release);
}

// Prints "\nERROR unit number " and the formatted message on standard error, and goes on. Any
// thread.
[[gnu::format(printf, 3, 4)]] void report(const char *unit, int32_t number, const char *format,
                                          ...);

// As report, then sets stop_output and interrupted and leaves by fatal_exit(number). Any thread.
[[noreturn, gnu::format(printf, 3, 4)]] void fatal_report(const char *unit, int32_t number,
                                                          const char *format, ...);

// As report, then stops the sound: the report is the cause, if nothing was before. Output thread.
[[gnu::format(printf, 3, 4)]] void stopping_report(const char *unit, int32_t number,
                                                   const char *format, ...);

// Restores the terminal and ends the process; the shell sees the low 8 bits of status. Any thread:
// the first caller leaves, a second one waits for the process to end.
[[noreturn]] void fatal_exit(int32_t status);

// Takes standard input out of canonical mode (echo and signals stay), dropping input not yet read;
// once, until restored. In the background it waits for the terminal until SIGCONT finds the process
// in the foreground. Main thread.
void terminal_raw();

// Puts back what terminal_raw found, and then forgets it: a second call does no harm. Nothing
// without it, nor in the background. A signal handler may call it too. Any thread.
void terminal_restore();

// Opens /dev/null on each of descriptors 0, 1 and 2 that the parent left closed, so that no sound
// file or device comes to stand there. Main thread, first of all.
void hold_standard_descriptors();

// What ends or stops the process from outside leaves the terminal as it was: a thread of its own
// waits for SIGTERM, SIGHUP, SIGQUIT and SIGTSTP, puts the terminal back and lets them act by
// default; after a stop, one that did not come, and SIGCONT it is taken again. A signal that comes
// ignored stays so. Without that thread they act by default alone. A reader of standard output that
// left does not end the sound. Main thread, once, while it is the only one: all later threads must
// keep these signals blocked.
void install_terminal_signals();

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

// Takes one waiting byte from standard input, if any; byte 3 sets stop_output and makes the result
// true. Never waits. The output thread while it runs, main before that: one reader at a time.
bool poll_keyboard();

// Run by root: asks for nice -10; a refusal is report 145. Otherwise nothing. Main thread.
void raise_priority();

// Asks for the lowest real-time priority for the calling thread, which then runs as soon as it
// wakes, whatever other programs do. Most users are refused that; nothing is said. Output thread.
void raise_output_priority();

// How long a thread that polls may sleep, in microseconds, when nothing can be done before the
// other side of a buffer has moved. buffer_frames: the buffer's size; rate: frames per second
// through it. A refill may leave 1026 frames free, and of the time that the rest lasts a quarter is
// slept, at most 40 ms. Any thread.
uint32_t pause_of(uint32_t buffer_frames, int32_t rate);
