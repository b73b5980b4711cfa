// Functions for the header parsers that read numbers of a given byte order and fixed tags from a
// stream, and numbers from bytes in memory. Nothing here depends on the byte order of the host.
//
// A short read prints a message and returns 0. The parser decides whether that is an error. All
// functions run on the main thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

// Each reads one unsigned number at the stream's position. -1 if all bytes were read and *value was
// set. 0 after "fread() failed.\n" on standard error; *value is unchanged.
int32_t read_le32(std::FILE *fp, uint32_t *value);
int32_t read_le64(std::FILE *fp, uint64_t *value);
int32_t read_be16(std::FILE *fp, uint16_t *value);
int32_t read_be32(std::FILE *fp, uint32_t *value);
int32_t read_be64(std::FILE *fp, uint64_t *value);

// Reads n bytes, at most 8, and compares them with expected. 1 if they are equal, else 0. A short
// read is report 223.
int32_t check_tag(std::FILE *fp, const char *expected, int32_t n);

// A four-character chunk name, as it stands in the file.
using chunk_name = std::array<char, 4>;

// Reads a chunk's name. Prints no message. True if all four bytes were read.
bool read_name(std::FILE *fp, chunk_name *name);

// True if name is equal to the four characters of text.
bool name_is(const chunk_name &name, const char *text);

// Moves the stream n bytes forward, also to a position after the end of the file. False if the new
// position would be above 2^63 - 1, or if the stream cannot seek. For 0 bytes it makes no system
// call, so that a header with a million empty chunks is read fast.
bool skip_bytes(std::FILE *fp, uint64_t n);

// Little-endian numbers in memory. first: their lowest byte.
constexpr uint16_t le16(const uint8_t *first)
{
    return static_cast<uint16_t>(first[0] | first[1] << 8);
}
constexpr uint32_t le32(const uint8_t *first)
{
    return le16(first) | static_cast<uint32_t>(le16(first + 2)) << 16;
}
