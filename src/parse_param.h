// The command line: one pass over the arguments sets the option variables of sonivane.h and
// counts the entries that the options took.
#pragma once

#include <cstdint>

// Parses argv, and reads the list that --list names (dir2files.h). with_frequency would admit the
// word --frequency; the player gives 0. Ends the process itself at -?, --help, --version, at a bad
// value (reports 54, 61, 67, 71 and 183) and at names beside a list (63). Main thread.
void parse_options(int32_t argc, char **argv, int32_t with_frequency);

// Prints the usage text on standard output, with the given program name.
void print_usage(const char *program);

// Sets mode_label for the name behind "--mode="; report 54 when there is no such name.
void select_mode(const char *name);

// -1 when the two strings are equal and end within 1025 bytes, else 0.
int32_t strings_equal(const char *a, const char *b);
