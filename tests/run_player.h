// Runs the built player as a process against the capture device and returns everything that can be
// observed from outside. A fault that no run may show fails the test at once:
// - the player hangs, or an event of the test does not happen
// - a sanitizer reports something
// - the mode of the terminal has changed
// - the exit status is not that of the last event
// - a report in the last event is not on standard error with the same text
#pragma once

#include <termios.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "make_files.h"

// Where a stream of the player leads. gone: a pipe whose other end is closed. socket: one with a
// small buffer.
enum class wire { pipe, null, terminal, closed, gone, socket };

enum class line_mode { any, raw, canonical };

// Something that happens to the running player, as soon as all conditions are met. These events are
// the test's and happen in order, each once. The player's own events are text in event_lines.
struct play_event {
    std::string out_has = {}; // waits for: this text on standard output since the event before
    std::string err_has = {}; // waits for: this text on standard error since the event before
    std::string log_has = {}; // waits for: this text in the device's log
    size_t captured = 0;      // waits until the device has got so many bytes
    line_mode mode_is = line_mode::any; // waits for: this mode of the terminal
    int after_ms = 0;                   // waits for so many milliseconds after the event before
    std::string type = {};              // bytes to write to standard input
    int signal = 0;     // sent to the foreground jobs of the terminal, or to the player without one
    int64_t allow = -1; // frames that the device may play in all
    std::function<void()> call = {}; // any other action
    size_t clogs = 0;      // descriptor of a pipe that is full and not read until the next event
    bool may_miss = false; // flag: the player may end before this event
};

struct play_settings {
    std::vector<std::string> arguments = {};         // after -D and the device
    std::string device_name = "capture";             // empty: no -D
    std::map<std::string, std::string> capture = {}; // the device's CAPTURE_ variables
    // If one of them has `allow`, the device plays no frame before that event.
    std::vector<play_event> events = {};
    wire input = wire::null; // becomes a pipe if an event has `type`
    wire output = wire::pipe;
    wire error = wire::pipe;
    wire event_wire = wire::pipe;           // descriptor 3, for events; closed: no --events
    std::vector<std::string> launcher = {}; // program that starts the player; gets its command line
    tcflag_t terminal_without = 0; // c_lflag bits to clear in the terminal before the start
};

// At the time of an event.
struct play_moment {
    size_t captured; // bytes that the device got
    size_t shown;    // length of out
    size_t reported; // length of err
};

struct play_result {
    int status = -1; // exit status; or minus the number of the signal that killed the player
    std::string end; // values of the end event, without a report's text; or the status alone
    std::string out; // standard output, or everything that the terminal showed
    std::string err;
    std::string event_lines; // what came through the descriptor of the events
    bytes capture;
    std::vector<std::string> log;
    std::vector<play_moment> at_events;
    double busy_seconds = 0; // processor time of the player
};

play_result run_player(const play_settings &settings);

// Starts an interactive shell, to which a test types commands. In it, "$@" starts the player.
const std::vector<std::string> interactive_shell = {"bash", "--norc", "--noediting", "-is"};
const std::string key_3 = "\x03"; // stops the sound

// The memory that a controller shares with players, under a key of this process. Removed at its
// end.
struct controller_words {
    volatile int32_t pid;   // of the controller; 0: no process to signal
    volatile int32_t state; // not 0: the player last announced an I2S stream
};
controller_words *shared_block();
// Result: the settings with a card that takes I2S and with the memory block of a controller.
play_settings beside_controller(play_settings settings);

// Writes a file into the scratch directory, in which the players run. Result: its path.
std::string scratch_file(const std::string &name, const bytes &content);
// The content of a file; empty if there is none.
std::string file_text(const std::string &path);

// Values of the last event of that kind, such as "key,0". Empty if there is none.
std::string event_values(const play_result &result, const std::string &kind);
bool log_has(const play_result &result, const std::string &text);
// Whether the device was closed after it had played every frame that it took.
bool all_sounded(const play_result &result);

// The text of a report on standard error, whether fatal or not.
std::string report_text(const char *unit, int number, const std::string &message);

// Repetitions in a test that can be made longer: SONIVANE_SOAK if it is set, else usual.
int soak_size(int usual);
