// Runs the built player as a process of its own against the capture device, and tells all that came
// of it. What no run may show fails the test at once: a hang, an event that does not come, a
// sanitizer's finding, a terminal left in another mode, an exit status that the last of the
// player's own events does not tell, or a report that it does not tell as it stands on standard
// error.
#pragma once

#include <termios.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "make_files.h"

// What a standard stream of the player is; gone is a pipe whose other end has been closed.
enum class wire { pipe, null, terminal, closed, gone };

enum class line_mode { any, raw, canonical };

// Something that happens to a running player as soon as all that is asked for has been seen; events
// come in their order, each once.
struct play_event {
    std::string out_has = {};           // standard output got this text since the event before
    std::string err_has = {};           // standard error did
    std::string log_has = {};           // the device's log holds this text
    size_t captured = 0;                // bytes the device has, at least
    line_mode mode_is = line_mode::any; // of the terminal
    int after_ms = 0;                   // milliseconds since the event before
    std::string type = {};              // bytes to send to standard input
    int signal = 0;                     // to the foreground of the terminal, or to the player
    int64_t allow = -1;                 // frames that the device may play from now on, in all
    std::function<void()> call = {};    // anything else
    size_t clogs = 0;      // the number of a pipe that is full and unread until the next event
    bool may_miss = false; // the player may end before it comes
};

struct play_settings {
    std::vector<std::string> arguments = {};         // behind -D and the device
    std::string device_name = "capture";             // empty: no -D
    std::map<std::string, std::string> capture = {}; // CAPTURE_ settings of the device
    std::vector<play_event> events = {}; // one that allows frames: nothing is played before
    wire input = wire::null;
    wire output = wire::pipe;
    wire error = wire::pipe;
    wire event_wire = wire::pipe; // descriptor 3, for the player's own events; closed: no --events
    std::vector<std::string> launcher = {}; // the program that starts the player, given its words
    tcflag_t terminal_without = 0;          // bits of c_lflag to clear in the terminal beforehand
};

// At the time of an event.
struct play_moment {
    size_t captured; // bytes
    size_t shown;    // characters of out
    size_t reported; // characters of err
};

struct play_result {
    int status = -1; // exit status; the negative number of the signal that killed it
    std::string end; // words of the end, without a report's text; without one the status alone
    std::string out; // standard output, or all that a terminal showed
    std::string err;
    std::string event_lines; // on the descriptor for events
    bytes capture;
    std::vector<std::string> log;
    std::vector<play_moment> at_events;
};

play_result run_player(const play_settings &settings);

// The launcher whose first words are keys: "$@" starts the player.
const std::vector<std::string> interactive_shell = {"bash", "--norc", "--noediting", "-is"};
const std::string key_3 = "\x03"; // ends the sound

// What a controller beside the card shares with players: the block under a key of this process,
// removed at the end of it.
struct controller_words {
    volatile int32_t pid;   // of the controller; 0: none to signal
    volatile int32_t state; // not 0: the last stream was announced as I2S
};
controller_words *shared_block();
// The same settings on a card with a controller: one that takes I2S.
play_settings beside_controller(play_settings settings);

// The path of a file of a directory of this process, where players run, with the given bytes in it.
std::string scratch_file(const std::string &name, const bytes &content);

// The values of the last of the player's own events of that kind, set apart by commas: "key,0".
std::string told_words(const play_result &result, const std::string &kind);
bool log_has(const play_result &result, const std::string &text);
// The device was closed, and all frames that it took had sounded by then.
bool all_sounded(const play_result &result);

// The text that a fatal report or one that goes on leaves on standard error.
std::string report_text(const char *unit, int number, const std::string &message);

// The size of a test that may go on for as long as one likes: SONIVANE_SOAK, if it is given.
int soak_size(int usual);
