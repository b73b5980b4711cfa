// The look-out is a thread that waits for everything that comes from outside: signals, standard
// input and the reader of the events. It also makes sure that the process ends when it should. This
// unit also has the shared variables that request the end of the sound, the waits of the other
// threads, and the terminal, whose mode must be restored at every end of the process.
//
// The two other threads never poll. Each waits in wait_for, which returns when the time is up or
// when another thread calls wake.
#pragma once

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "atomics.h"

// --- Why the sound ends -------------------------------------------------------------------------

// If a report ends the sound, fatal or not, the cause also holds its unit, its number and its
// sentence, which has at most longest_sentence bytes and no line end.
enum class stop_reason {
    played,
    key,
    interrupt,
    underrun,
    suspended,
    disconnected,
    refused, // the device takes no more frames
    read_error,
    report,
};
struct stop_cause {
    stop_reason reason;
    const char *unit; // that printed the report; null if the reason is not a report
    int32_t number;
    const char *text = "";
};
inline constexpr size_t longest_sentence = PATH_MAX + 32; // a path and the text about it
inline constexpr stop_cause stopped_by_key = {stop_reason::key, nullptr, 0};
inline constexpr stop_cause refused_by_device = {stop_reason::refused, nullptr, 0};

extern std::atomic<int32_t> interrupted;           // flag; set by the look-out and by fatal reports
extern std::atomic<int32_t> stop_output;           // flag; set by stop_playing alone
extern std::atomic<const stop_cause *> stopped_by; // the first cause; null: none yet
extern std::atomic<int32_t> read_error_met; // flag: a file was not read to its end; set by main
extern std::atomic<int32_t> exit_status;    // of the process; set by any thread; 0: no failure yet
extern std::atomic<int32_t> strict; // flag: a sound that ended early is a failure; set by main

// Ends the sound and wakes every thread. The first cause stays. cause must last as long as the
// process. Any thread.
void stop_playing(const stop_cause *cause);

// Whether the sound was stopped. Any thread.
inline bool is_stopped()
{
    return load_acquire(stop_output) != 0;
}

// If the sound was not stopped, sets the cause of its end: a SIGINT, a file with a read error, or
// else the end of the list. Result: the exit status of the process, of which the shell sees the low
// 8 bits. Any thread.
int32_t settle_end();

// Prints report 1100 if exit_status has that number. Any thread.
void print_early_end();

// --- The thread ---------------------------------------------------------------------------------

// Starts the look-out. Before that it blocks the signals that end, stop or continue the process, in
// the calling thread and so in all threads that are created later. From then on the look-out takes
// them:
// - SIGINT: the first one sets interrupted, the second one ends the process with report 799.
// - SIGTERM, SIGHUP, SIGQUIT, SIGTSTP: the terminal is restored and the signal acts by default.
// - SIGCONT: the terminal is set to raw mode again.
// Signals that end the process by default, such as SIGSEGV, restore the terminal first. A signal
// that the parent process ignored stays ignored, except SIGINT. Byte 3 on standard input stops the
// sound, and so does the reader of the events when it closes its end. If the system refuses the
// thread, the signals act by default and nothing is read. Main thread, once, while it is the only
// thread.
void start_lookout();

// From this call on, the look-out reads keys from standard input. Main thread, after the command
// line and a list on standard input are read.
void read_keys();

// Makes the look-out check again what it waits for. Any thread.
void wake_lookout();

// The sound has ended because the output thread is done. After this, after every stop, and after a
// SIGINT that comes while the output thread does not run, the look-out watches main, which may be
// in a call that does not return. If main does not end the process, the look-out ends it: after 200
// ms in which main and the output thread used no processor time, or after 3 s. for_good is false if
// another stream follows: then the look-out does not watch. Output thread.
void sound_has_ended(bool for_good);
// Whether sound_has_ended was called. Any thread.
bool sound_is_over();

// The files are about to be played. From this call on, one SIGINT lets the ring play out; before
// it, a SIGINT ends the process with report 1045. Main thread.
void sound_starts();
// Whether sound_starts was called. Any thread.
bool sound_has_started();
// Whether the output thread may be running. Any thread.
bool sound_is_on();

// The calling thread is about to end the process. The call returns to the first caller only,
// because two calls of exit at once are undefined. Any thread.
void begin_to_leave();

// Reports to the look-out that the calling thread ends the process and will make no more calls that
// could block. Any thread.
void end_is_near();

// --- Waiting ------------------------------------------------------------------------------------

enum class waiter { main, output };

// Makes the calling thread the output thread for wait_for. Output thread, before anything else.
void wait_as_output();

// Ends the wait that thread `who` has announced, even if it has not started to wait yet. Any
// thread.
void wake(waiter who);

// Announces a wait. From then on a wake ends it. The caller then checks once more whether there is
// work, and calls finish_wait in either case. Main and output thread.
void announce_wait();
// Waits for that many microseconds or until another thread calls wake. With longest_wait there is
// no limit. If a descriptor is given, the wait also ends when the descriptor is writable. The wait
// may end early. Main and output thread.
inline constexpr int64_t longest_wait = -1;
void finish_wait(int64_t microseconds, int descriptor = -1);

// Waits unless something is due. due takes no arguments; it may be called at any time.
template <typename Due> void wait_for(int64_t microseconds, Due due)
{
    announce_wait();
    finish_wait(due() ? 0 : microseconds);
}

// --- Terminal -----------------------------------------------------------------------------------

// Switches the terminal on standard input out of canonical mode; echo and signals stay on. It saves
// the mode only if it is not already saved. Keys that were typed before are read: byte 3 stops the
// sound, all others are dropped. In the background, the switch is made when the process comes to
// the foreground. A terminal that does not control the process is left alone. Main thread.
void terminal_raw();

// Restores the mode that terminal_raw saved. A second call does nothing, and so does a call without
// terminal_raw. In the background the terminal is left alone. Any thread.
void terminal_restore();
