// Expands the names of the command line into one sorted list. A file is taken as it is; a directory
// gives the regular files directly inside it. The names can also come from a list, whose order is
// kept. Main thread only. There is one list at a time.
#pragma once

#include <cstdint>

// Expands argv[first] to argv[count - 1], or the current directory if there are none. Result: the
// names in ascending byte order, or in the order of a list, and a null pointer. They belong to the
// pool and are valid until it next changes. If the list itself cannot be allocated, the result is
// an empty list.
char **expand_file_list(int32_t first, int32_t count, char **argv);

// Reads a list of names. The next call of expand_file_list takes them, in their order, instead of
// those of argv. If the list has a zero byte, each name ends with a zero byte. Otherwise it is an
// M3U list, with names relative to its folder, or to the current directory if it is read through a
// descriptor. The call waits for the writer of a pipe; a SIGINT meanwhile is report 1045. False if
// the list cannot be read, is 1 GiB or larger, or if out of memory. path must stay valid until the
// list is expanded.
bool read_list(const char *path);

// Appends a copy of the length bytes of name and a terminator to the pool. The name is dropped
// without a report if out of memory or if the pool would exceed 2^30 bytes or names.
void pool_add(int32_t length, const char *name);

// Adds the path of a regular file, or the regular files of a directory. Failures are reports 136,
// 151 and 153.
void walk_path(const char *path);

// Empties the pool and keeps its memory for reuse.
void pool_reset();

// Frees the pool's memory. May be called when there is none.
void pool_free();

// The pool. It refers to names by offsets, because the block moves while it grows. For this unit
// and its tests only.
extern int32_t pool_count;      // names stored
extern int32_t pool_capacity;   // entries allocated in pool_offsets
extern int32_t *pool_offsets;   // where each name begins in pool_chars
extern char *pool_chars;        // the names with their terminators, one after the other
extern int32_t pool_chars_size; // bytes allocated in pool_chars
extern int32_t pool_chars_used; // bytes used in pool_chars
extern char **pool_list;        // the result of expand_file_list; null if there is none
