// Gives a fuzz input a place in the file system, without a disk.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "sonivane.h"

// A path that opens the input as a regular file, until the next call.
inline const char *fuzz_file_path(const uint8_t *data, size_t size)
{
    static const int memory = memfd_create("input", 0);
    static std::array<char, 32> path;
    if (ftruncate(memory, 0) != 0 || pwrite(memory, data, size, 0) != static_cast<ssize_t>(size))
        std::abort();
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", memory);
    return path.data();
}

inline std::FILE *open_fuzz_file(const uint8_t *data, size_t size)
{
    std::FILE *fp = std::fopen(fuzz_file_path(data, size), "rb");
    if (fp == nullptr) std::abort();
    return fp;
}
