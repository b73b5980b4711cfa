// The command line. One pass over the arguments sets the option variables of sonivane.h and counts
// the entries that are options or their values.
#pragma once

#include <cstdint>

// Parses argv, and reads the list that --list names (dir2files.h). If with_frequency is not 0, the
// option --frequency is accepted; the player passes 0. Ends the process for -?, --help and
// --version, for an invalid value (reports 54, 61, 67, 71 and 183) and for names in addition to a
// list (report 63). Main thread.
void parse_options(int32_t argc, char **argv, int32_t with_frequency);

// Prints the usage text on standard output, with the given program name.
void print_usage(const char *program);

// Sets mode_label for the name after "--mode=". Fatal report 54 if there is no such name.
void select_mode(const char *name);

// -1 if the strings are equal and their terminators are among the first 1025 bytes, else 0.
int32_t strings_equal(const char *a, const char *b);
