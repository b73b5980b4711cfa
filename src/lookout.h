// The look-out: a thread of its own that waits for everything that comes from outside, namely
// signals, standard input and the reader of the events, and that sees to it that the process ends
// when it should. With it stand the words that say so, the waits that it can cut short, and the
// terminal, which has to be given back whatever ends the process.
//
// The two other threads never poll. Each waits in wait_for, which ends when the time is up or when
// somebody calls wake.
#pragma once

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "atomics.h"

// --- Why the sound ends -------------------------------------------------------------------------

// For a report that ends the sound, fatal or not, the cause also has its unit, its number and its
// sentence, of at most longest_sentence bytes, without a line end.
enum class stop_reason {
    played,
    key,
    interrupt,
    underrun,
    suspended,
    disconnected,
    refused, // the device takes no more
    read_error,
    report,
};
struct stop_cause {
    stop_reason reason;
    const char *unit; // null unless the reason is a report
    int32_t number;
    const char *text = "";
};
inline constexpr size_t longest_sentence = PATH_MAX + 32; // a path and what is said of it
inline constexpr stop_cause stopped_by_key = {stop_reason::key, nullptr, 0};

extern std::atomic<int32_t> interrupted;           // set by the look-out and by fatal reports
extern std::atomic<int32_t> stop_output;           // set by stop_playing alone
extern std::atomic<const stop_cause *> stopped_by; // the first one; null: nothing stopped it yet
extern std::atomic<int32_t> read_error_met;        // a file broke off; set by main
extern std::atomic<int32_t> exit_status;           // of the process, unless 0; set by any thread
extern int32_t strict; // flag: a sound that ended early is a failure; set by main at its start

// Ends the sound and wakes every thread. The first cause stays; it must last as long as the
// process. Any thread.
void stop_playing(const stop_cause *cause);

// Whether the sound was stopped. Any thread.
inline bool is_stopped()
{
    return load_acquire(stop_output) != 0;
}

// Gives a run that nothing stopped its cause: a SIGINT, a file that broke off, or the end of the
// list. Result: the exit status of the process, of which the shell sees the low 8 bits. Any thread.
int32_t settle_end();

// Prints report 1100 where that is the status. Any thread.
void print_early_end();

// --- The thread ---------------------------------------------------------------------------------

// Blocks the signals that end, stop or continue the process in the calling thread and all later
// ones, and starts the look-out, which takes them from then on:
// - SIGINT: the first one sets interrupted, the second one ends the process with report 799.
// - SIGTERM, SIGHUP, SIGQUIT, SIGTSTP: the terminal is given back and the signal acts by default.
// - SIGCONT: the terminal is taken again.
// Signals that end the process by default, such as SIGSEGV, give the terminal back first. A signal
// that the parent had ignored stays ignored, but for SIGINT. Byte 3 on standard input, or a reader
// of the events that left, stops the sound. Without memory for a thread the signals act by default
// and nothing is read. Main thread, once, while it is the only one.
void start_lookout();

// From here on keys on standard input count. Main thread, once the command line is read, or before
// that where nothing else is to be read there.
void read_keys();

// Has the look-out look anew at what it waits for. Any thread.
void wake_lookout();

// What the process ends with if its own threads do not end it in order. From there on the look-out
// counts on one of them: where main does not follow the end of the sound within 200 ms, because it
// stands in a call that does not return, the look-out ends the process itself. The end of the
// sound is a stop, or the output thread at its end; not so for_good where a stream follows. Output
// thread.
void sound_has_ended(bool for_good);
// Whether it did. Any thread.
bool sound_is_over();

// The files are about to be played, so that one SIGINT lets the ring play out. Before that, it
// ends the process with report 1045. Main thread.
void sound_starts();
// Whether they were. Any thread.
bool sound_has_started();
// Whether the output thread may be running. Any thread.
bool sound_is_on();

// The calling thread is about to end the process. Only the first one comes back from here: two
// calls of exit at once are undefined. Any thread.
void begin_to_leave();

// The calling thread ends the process and will meet no call that could hold it. Any thread.
void end_is_near();

// --- Waiting ------------------------------------------------------------------------------------

enum class waiter { main, output };

// Makes the calling thread the output thread for wait_for. Output thread, first of all.
void wait_as_output();

// Ends the wait of that thread, now or before it begins, if it was announced. Any thread.
void wake(waiter who);

// Announces a wait, so that a wake from here on ends it; the caller then looks once more whether
// there is anything to wait for. The same thread follows with finish_wait.
void announce_wait();
// Waits that many microseconds, or until it is woken; longest_wait: until it is woken. With a
// descriptor that takes output, it ends when there is room, too. Main and output thread. It may
// return early.
inline constexpr int64_t longest_wait = -1;
void finish_wait(int64_t microseconds, int descriptor = -1);

// Waits unless something is due. due may be asked at any time and takes no arguments.
template <typename Due> void wait_for(int64_t microseconds, Due due)
{
    announce_wait();
    finish_wait(due() ? 0 : microseconds);
}

// --- Terminal -----------------------------------------------------------------------------------

// Takes standard input out of canonical mode (echo and signals stay); once, until restored. Keys
// that were typed before are read: byte 3 counts, the rest is dropped. In the background it waits
// for the terminal until the process is in the foreground; a terminal that does not control the
// process is left alone. Main thread.
void terminal_raw();

// Puts back what terminal_raw found, and then forgets it: a second call does no harm. Nothing
// without it, nor in the background. Any thread.
void terminal_restore();
