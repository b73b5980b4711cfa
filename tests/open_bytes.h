// Opens bytes as a sound file, for the tests of the readers.
#pragma once

#include <string>

#include "fuzz/fuzz_file.h"
#include "make_files.h"
#include "sonivane.h"

// A record with an open stream over content, offered to a parser. One at a time.
struct opened_file {
    soundfile file{};
    int32_t verdict;

    opened_file(int32_t (*open)(soundfile *), const bytes &content)
    {
        file.fp = open_fuzz_file(content.data(), content.size());
        verdict = open(&file);
    }
    ~opened_file()
    {
        std::fclose(file.fp);
    }
    opened_file(const opened_file &) = delete;
    opened_file &operator=(const opened_file &) = delete;
};

// One call of a read function; empty when it gave 0 or -1.
inline bytes read_once(soundfile &file, reader_slot read, int32_t count)
{
    bytes result(static_cast<size_t>(count));
    const int32_t got = read(&file, result.data(), count);
    result.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return result;
}

// All that a read function gives, in requests of count bytes.
inline bytes read_all(soundfile &file, reader_slot read, int32_t count = dsd_group_bytes)
{
    bytes result;
    for (bytes part = read_once(file, read, count); !part.empty();
         part = read_once(file, read, count))
        put_bytes(result, part);
    return result;
}

// The bytes of a text of hexadecimal numbers.
inline bytes hex_bytes(const char *text)
{
    bytes result;
    int used = 0;
    for (unsigned value = 0; std::sscanf(text, "%2x%n", &value, &used) == 1; text += used)
        result.push_back(static_cast<uint8_t>(value));
    return result;
}

// content with some of its bytes replaced.
inline bytes patched(bytes content, size_t at, const bytes &with)
{
    std::copy(with.begin(), with.end(), content.begin() + static_cast<std::ptrdiff_t>(at));
    return content;
}

// The bytes of numbers and words, to be joined.
inline bytes le(uint64_t value, int width)
{
    bytes result;
    put_le(result, value, width);
    return result;
}
inline bytes be(uint64_t value, int width)
{
    bytes result;
    put_be(result, value, width);
    return result;
}
inline bytes text(const std::string &s)
{
    return {s.begin(), s.end()};
}
inline bytes joined(std::initializer_list<bytes> parts)
{
    bytes result;
    for (const bytes &part : parts) put_bytes(result, part);
    return result;
}
