// Byte-order reads for the header parsers: numbers and fixed tags from a stream, and numbers from
// bytes in memory. Bytes only; nothing here depends on the order of the host.
//
// A short read prints its message and gives 0; whether that matters is for the parser. All of it
// runs on the main thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

// Each reads one unsigned number at the stream's position. -1 when all bytes came and *value was
// set; 0 after "fread() failed.\n" on standard error, with *value as it was.
int32_t read_le32(std::FILE *fp, uint32_t *value);
int32_t read_le64(std::FILE *fp, uint64_t *value);
int32_t read_be16(std::FILE *fp, uint16_t *value);
int32_t read_be32(std::FILE *fp, uint32_t *value);
int32_t read_be64(std::FILE *fp, uint64_t *value);

// Reads n bytes, at most 8, and compares them with expected. 1 when equal, else 0; a short read is
// report 223.
int32_t check_tag(std::FILE *fp, const char *expected, int32_t n);

// A four-character chunk name, as it stands in the file.
using chunk_name = std::array<char, 4>;

// Reads a chunk's name without a message. True when all four bytes came.
bool read_name(std::FILE *fp, chunk_name *name);

// True when name is the four characters of text.
bool name_is(const chunk_name &name, const char *text);

// Moves the stream n bytes on; behind the end of the file, too. False when the new position would
// lie above 2^63 - 1, or the stream cannot seek. Of 0 bytes it asks nothing: a header of a million
// empty chunks costs no call of the system for each.
bool skip_bytes(std::FILE *fp, uint64_t n);

// Little-endian numbers that begin at a byte in memory.
constexpr uint16_t le16(const uint8_t *first)
{
    return static_cast<uint16_t>(first[0] | first[1] << 8);
}
constexpr uint32_t le32(const uint8_t *first)
{
    return le16(first) | static_cast<uint32_t>(le16(first + 2)) << 16;
}
