// The byte ring between the main thread and the output thread, and the track marks, which are the
// places in the stream where one file ends and the next begins.
//
// There is one producer (the main thread, which writes bytes_put, more_coming and the marks) and
// one consumer (the output thread, which writes bytes_sent). There is no lock. Each word has one
// writer. A count is stored with release after the bytes were copied, and read with acquire. A side
// that reads an old count sees less data or less room than there is, never more.
//
// Both counts are of the bytes since the start of the stream. So a place in the stream, such as a
// mark, is a plain number, and byte n is stored at n modulo usable_size. One frame always stays
// free.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "atomics.h"

// The number of bytes that were put into the ring before a file's first byte. Written once by main,
// before that byte is put; read by the output thread.
using track_mark = std::atomic<uint64_t>;

inline constexpr uint32_t ring_size_limit = 1U << 31; // bytes; every ring is smaller

inline constexpr uint64_t mark_unset = UINT64_MAX;

struct ringbuffer {
    uint32_t ring_size;               // bytes requested
    uint32_t usable_size;             // bytes: ring_size rounded down to whole frames
    uint32_t gap;                     // bytes of a frame; as many bytes always stay free
    std::atomic<uint64_t> bytes_put;  // since the start; written by main, read by main and output
    std::atomic<uint64_t> bytes_sent; // since the start; written by the output thread, read by both
    std::atomic<int32_t> more_coming; // -1, then 0 when all files are fed; written by main
    track_mark *track_marks;          // one for each file and one that is never set
};

// Makes an empty ring. size and frame_bytes are in bytes; files is the number of files that get
// marks. Null without a report for a frame of 0 bytes or a size of ring_size_limit or more. Null
// after report 16 if out of memory. Either thread.
ringbuffer *ringbuffer_new(uint32_t size, uint32_t frame_bytes, int32_t files);

// Frees *owner and its track marks, and sets it to null; *owner may be null. Main thread, while no
// other thread uses the ring.
void ringbuffer_free(ringbuffer **owner);

// The first byte of the data area, ring_size bytes long.
inline uint8_t *ring_data(ringbuffer *r)
{
    return reinterpret_cast<uint8_t *>(r + 1);
}

// The offset in the data area of the byte with that number, counted from the start of the stream.
inline uint32_t ring_offset(const ringbuffer *r, uint64_t number)
{
    return static_cast<uint32_t>(number % r->usable_size);
}

// Bytes stored. Either thread.
inline uint32_t ring_used(const ringbuffer *r)
{
    const uint64_t put = load_acquire(r->bytes_put);
    return static_cast<uint32_t>(put - load_acquire(r->bytes_sent));
}

// Whole frames stored. Either thread.
inline uint32_t ring_frames(const ringbuffer *r)
{
    return ring_used(r) / r->gap;
}

// Bytes stored, in per cent of the usable size, rounded down. Either thread.
inline int32_t ring_percent(const ringbuffer *r)
{
    return static_cast<int32_t>(uint64_t{ring_used(r)} * 100 / r->usable_size);
}

// Bytes that can be stored now. Main thread.
inline uint32_t ring_free(const ringbuffer *r)
{
    const uint32_t kept = ring_used(r) + r->gap;
    return kept < r->usable_size ? r->usable_size - kept : 0;
}

// Bytes that can be stored now without wrapping. Main thread.
inline uint32_t ring_free_run(const ringbuffer *r)
{
    const uint32_t to_end = r->usable_size - ring_offset(r, load_acquire(r->bytes_put));
    return std::min(ring_free(r), to_end);
}

// Bytes that can be taken now without wrapping. Output thread.
inline uint32_t ring_used_run(const ringbuffer *r)
{
    const uint32_t to_end = r->usable_size - ring_offset(r, load_acquire(r->bytes_sent));
    return std::min(ring_used(r), to_end);
}

// Adds n to the caller's own count, bytes_put or bytes_sent. These bytes must have been copied.
inline void ring_advance(std::atomic<uint64_t> &count, uint32_t n)
{
    store_release(count, load_acquire(count) + n);
}

// Stores as many of the n bytes as there is room for, in two pieces if they wrap at the end of the
// data area. Main thread.
inline void ring_put(ringbuffer *r, const uint8_t *from, uint32_t n)
{
    const uint32_t taken = std::min(n, ring_free(r));
    const uint32_t first = std::min(taken, ring_free_run(r));
    std::memcpy(ring_data(r) + ring_offset(r, load_acquire(r->bytes_put)), from, first);
    std::memcpy(ring_data(r), from + first, taken - first);
    ring_advance(r->bytes_put, taken);
}
