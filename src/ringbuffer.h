// The byte ring between the feeding thread and the output thread, and the track marks that tell
// the output thread where one file ends and the next begins.
//
// One producer (the main thread: bytes_put, more_coming, the marks) and one consumer (the output
// thread: bytes_sent). No lock: each word has one writer, counts are stored with release after the
// bytes are done with, and read with acquire. A side that sees an old count sees less data or less
// room than there is, never more.
//
// Both counts run from the start of the stream, so that a place in the stream, such as a mark, is a
// plain number; a byte lies at its number modulo usable_size. One frame always stays free.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "atomics.h"

// The number of bytes put into the ring before a file's first one. Written once by main, before
// that first byte; read by the output thread.
using track_mark = std::atomic<uint64_t>;

inline constexpr uint32_t ring_size_limit = 1U << 31; // bytes; every ring is below it

inline constexpr uint64_t mark_unset = UINT64_MAX;

struct ringbuffer {
    uint32_t ring_size;               // bytes asked for
    uint32_t usable_size;             // ring_size in whole frames
    uint32_t gap;                     // bytes of a frame
    std::atomic<uint64_t> bytes_put;  // since the start; written by main, read by both
    std::atomic<uint64_t> bytes_sent; // since the start; written by the output thread, read by both
    std::atomic<int32_t> more_coming; // -1, then 0 once all is fed; written by main
    track_mark *track_marks;          // one per file and one that is never set
};

// Makes an empty ring. size and frame_bytes are in bytes; files is the number of files that get
// marks. Null for a frame of 0 bytes or a size of ring_size_limit or more, silently, and after
// report 16 for want of memory. Either thread.
ringbuffer *ringbuffer_new(uint32_t size, uint32_t frame_bytes, int32_t files);

// Frees *owner with its marks and clears it; *owner may be null. Main thread, when no other uses
// it.
void ringbuffer_free(ringbuffer **owner);

// The first byte of the data area, ring_size bytes long.
inline uint8_t *ring_data(ringbuffer *r)
{
    return reinterpret_cast<uint8_t *>(r + 1);
}

// Where the byte of that number lies in the data area.
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

// Bytes stored, in per cent of the usable size, cut off. Either thread.
inline int32_t ring_percent(const ringbuffer *r)
{
    return static_cast<int32_t>(uint64_t{ring_used(r)} * 100 / r->usable_size);
}

// Bytes that may be stored now. Main thread.
inline uint32_t ring_free(const ringbuffer *r)
{
    const uint32_t kept = ring_used(r) + r->gap;
    return kept < r->usable_size ? r->usable_size - kept : 0;
}

// Bytes that may be stored in one piece. Main thread.
inline uint32_t ring_free_run(const ringbuffer *r)
{
    const uint32_t to_end = r->usable_size - ring_offset(r, load_acquire(r->bytes_put));
    return std::min(ring_free(r), to_end);
}

// Bytes that may be taken in one piece. Output thread.
inline uint32_t ring_used_run(const ringbuffer *r)
{
    const uint32_t to_end = r->usable_size - ring_offset(r, load_acquire(r->bytes_sent));
    return std::min(ring_used(r), to_end);
}

// Moves the caller's own count, bytes_put or bytes_sent, on by n bytes, which must be done with.
inline void ring_advance(std::atomic<uint64_t> &count, uint32_t n)
{
    store_release(count, load_acquire(count) + n);
}

// Stores the first of the n bytes given, as many as there is room for, split at the end of the
// data area where need be. Main thread.
inline void ring_put(ringbuffer *r, const uint8_t *from, uint32_t n)
{
    const uint32_t taken = std::min(n, ring_free(r));
    const uint32_t first = std::min(taken, ring_free_run(r));
    std::memcpy(ring_data(r) + ring_offset(r, load_acquire(r->bytes_put)), from, first);
    std::memcpy(ring_data(r), from + first, taken - first);
    ring_advance(r->bytes_put, taken);
}
