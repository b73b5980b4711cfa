// Runs the built player as a process of its own against the capture device, and tells all that came
// of it.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "make_files.h"

// What a standard stream of the player is; gone is a pipe whose other end has been closed.
enum class wire { pipe, null, terminal, closed, gone, socket };

// Something that happens to a running player as soon as all that is asked for has been seen; events
// come in their order, each once.
struct play_event {
    std::string out_has = {};                          // standard output holds this text
    std::string err_has = {};                          // standard error does
    std::string log_has = {};                          // the device's log does
    std::string told_has = {};                         // the player's own events do
    size_t captured = 0;                               // bytes the device has, at least
    std::function<bool(const termios &)> mode_is = {}; // the terminal's mode passes
    int after_ms = 0;                                  // milliseconds since the event before
    std::string type = {};                             // bytes to send to standard input
    int signal = 0;                  // signal to send, to the foreground of a shell
    int64_t allow = -1;              // frames that a gated device may play from now on, in all
    std::function<void()> call = {}; // anything else
    bool clogs = false;    // standard output, a pipe, is full and unread until the next event
    bool mutes = false;    // so is the pipe of the player's own events, where there is one
    bool may_miss = false; // the player may end before it comes
};

struct play_settings {
    std::vector<std::string> arguments = {};         // behind -D and the device
    std::string device_name = "capture";             // empty: no -D
    std::map<std::string, std::string> capture = {}; // CAPTURE_ settings of the device
    std::vector<play_event> events = {};
    wire input = wire::null;
    wire output = wire::pipe;
    wire error = wire::pipe;
    wire voice = wire::closed; // descriptor 3, for the player's own events; closed: no --events
    bool gated = false;        // the device plays what events allow
    bool stand_ins = false;    // with the module's own cards, sleep, nice and failing calls
    std::vector<std::string> launcher = {}; // the program that starts the player, given its words
    bool in_shell = false;      // the launcher is an interactive shell: "$@" starts the player
    size_t memory_limit = 0;    // bytes of address space; 0: no limit
    tcflag_t terminal_mode = 0; // bits of c_lflag to clear in the terminal beforehand
    int timeout_seconds = 120;  // a player that runs longer is killed, and that is trouble
};

struct play_result {
    std::string trouble; // what no run may show: a hang, a missed event, a sanitizer's finding
    int status = -1;     // exit status; the negative number of the signal that killed it
    std::string out;     // standard output, or all that a terminal showed
    std::string err;
    std::string told; // on the descriptor for events
    bytes capture;
    std::vector<std::string> log;
    std::vector<size_t> captured_at_events; // bytes
    std::vector<size_t> shown_at_events;    // characters of out
    // The terminal before the start, at each event and after the end.
    termios before{};
    std::vector<termios> at_events;
    termios after{};
};

play_result run_player(const play_settings &settings);

// What a controller beside the card shares with players: the block under a key of this process,
// removed at the end of it.
struct controller_words {
    volatile int32_t pid;   // of the controller; 0: none to signal
    volatile int32_t state; // not 0: the last stream was announced as I2S
};
controller_words *shared_block();
// The same settings on a card with a controller: one that takes I2S.
play_settings beside_controller(play_settings settings);

// A directory of this process, removed at its end.
const std::string &scratch_directory();
// The path of a file of that directory, with the given bytes in it.
std::string scratch_file(const std::string &name, const bytes &content);

// The terminal's mode is the same in all that a program can set.
bool same_mode(const termios &a, const termios &b);
bool log_has(const play_result &result, const std::string &text);
// The device was closed, and all frames that it took had sounded by then.
bool all_sounded(const play_result &result);

// The text that a fatal report or one that goes on leaves on standard error.
std::string report_text(const char *unit, int number, const std::string &message);
