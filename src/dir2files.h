// Expands the names of the command line into one sorted list: files as they are, directories as
// the regular files directly inside. Or those of a list, which keep their order. Main thread only;
// one list at a time.
#pragma once

#include <cstdint>

// Expands argv[first] to argv[count - 1], or the current directory when there are none. Result: the
// names in ascending byte order, ended by a null pointer; they belong to the pool and are valid
// until it next changes. Where the list itself cannot be allocated it is an empty one.
char **expand_file_list(int32_t first, int32_t count, char **argv);

// Reads a list whose names, in their order, expand_file_list then takes once in place of those of
// argv. With a zero byte in it, each name ends with one; else it is an M3U list, with names
// relative to its folder, or to the current directory where it comes through a descriptor. Waits
// for the writer of a pipe; a SIGINT then is report 1045. False when it cannot be read, is 1 GiB or
// larger, or finds no memory. The path must stay until the list is expanded.
bool read_list(const char *path);

// Appends a copy of the length bytes of name and a terminator to the pool; dropped silently for
// want of memory or of offsets.
void pool_add(int32_t length, const char *name);

// Adds a regular file's path, or the regular files of a directory; reports 136, 151 and 153 go on.
void walk_path(const char *path);

// Empties the pool and keeps its storage for reuse.
void pool_reset();

// Gives the pool's storage back. Null-safe.
void pool_free();

// The pool. Names are reached through offsets, since the block moves while it grows. For this unit
// and its tests only.
extern int32_t pool_count;      // names stored
extern int32_t pool_capacity;   // entries allocated in pool_offsets
extern int32_t *pool_offsets;   // where each name begins in pool_chars
extern char *pool_chars;        // the names with their terminators, one behind the other
extern int32_t pool_chars_size; // bytes allocated in pool_chars
extern int32_t pool_chars_used; // bytes used in pool_chars
extern char **pool_list;        // the result of expand_file_list; null when there is none
