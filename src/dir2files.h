// Expands the names of the command line into one sorted list: files as they are, directories as
// the regular files directly inside. Main thread only; one list at a time.
#pragma once

#include <cstdint>

// Expands argv[first] to argv[count - 1], or the current directory when there are none. Result: the
// names in ascending byte order, ended by a null pointer; they belong to the pool and are valid
// until it next changes.
char **expand_file_list(int32_t first, int32_t count, char **argv);

// Appends a copy of the length bytes of name to the pool; dropped silently for want of memory.
void pool_add(int32_t length, const char *name);

// Adds a regular file's path, or the regular files of a directory; reports 136 and 151 go on.
void walk_path(const char *path);

// Empties the pool and keeps its storage for reuse.
void pool_reset();

// Gives the pool's storage back. Null-safe.
void pool_free();
