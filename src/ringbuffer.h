// The byte ring between the feeding thread and the output thread, and the track marks that tell
// the output thread where one file ends and the next begins.
//
// One producer (the main thread: write_offset, more_coming, the marks' first values) and one
// consumer (the output thread: read_offset, the marks' counts). No lock: each word has one writer,
// offsets are stored with release after the bytes are done with, and read with acquire. A side
// that sees an old offset sees less data or less room than there is, never more.
//
// read_offset == write_offset means empty. The producer stays gap bytes short of read_offset, so
// the two never meet from the other side.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "util.h"

// index -1, count -1: not set. index set, count 0 or more: live. index set, count negative: spent.
struct track_mark {
    std::atomic<int32_t> index; // written once by main; read by the output thread
    std::atomic<int32_t> count; // bytes ahead of the file's first byte; main once, then output
};

inline constexpr int32_t mark_unset = -1;

struct ringbuffer {
    uint32_t ring_size;                 // bytes asked for
    uint32_t usable_size;               // ring_size in whole frames; offsets live modulo this
    std::atomic<uint32_t> read_offset;  // written by the output thread, read by both
    std::atomic<uint32_t> write_offset; // written by the main thread, read by both
    uint32_t gap;                       // bytes of a frame
    std::atomic<int32_t> more_coming;   // -1, then 0 once all is fed; written by main
    track_mark *track_marks;            // one per file and one that is never set
};

// Makes an empty ring. size and frame_bytes are in bytes; files is the number of files that get
// marks. Null for a frame of 0 bytes or a size of 2 GiB or more, silently, and after report 16 for
// want of memory. Either thread.
ringbuffer *ringbuffer_new(uint32_t size, uint32_t frame_bytes, int32_t files);

// Frees *owner with its marks and clears it; *owner may be null. Main thread, when no other uses
// it.
void ringbuffer_free(ringbuffer **owner);

// The first byte of the data area, ring_size bytes long.
inline uint8_t *ring_data(ringbuffer *r)
{
    return reinterpret_cast<uint8_t *>(r + 1);
}

// Bytes stored. Either thread.
inline uint32_t ring_used(const ringbuffer *r)
{
    const uint32_t used = load_acquire(r->write_offset) + r->usable_size;
    return (used - load_acquire(r->read_offset)) % r->usable_size;
}

// Bytes stored, in per cent of the usable size, cut off. Either thread.
inline int32_t ring_percent(const ringbuffer *r)
{
    return static_cast<int32_t>(uint64_t{ring_used(r)} * 100 / r->usable_size);
}

// Bytes that may be stored now. Main thread.
inline uint32_t ring_free(const ringbuffer *r)
{
    const uint32_t read = load_acquire(r->read_offset);
    const uint32_t write = load_acquire(r->write_offset);
    const uint32_t distance = read > write ? read - write : read + r->usable_size - write;
    return distance > r->gap ? distance - r->gap : 0;
}

// Bytes that may be stored at write_offset without a wrap. Main thread.
inline uint32_t ring_free_run(const ringbuffer *r)
{
    const uint32_t read = load_acquire(r->read_offset);
    const uint32_t write = load_acquire(r->write_offset);
    // With the reader at 0 the writer may not wrap at all: it would land on the reader.
    const uint32_t end = read == 0 ? r->usable_size : read;
    if (read != 0 && read <= write) return r->usable_size - write;
    return end - write > r->gap ? end - write - r->gap : 0;
}

// Bytes that may be taken at read_offset without a wrap. Output thread.
inline uint32_t ring_used_run(const ringbuffer *r)
{
    return std::min(ring_used(r), r->usable_size - load_acquire(r->read_offset));
}

// Moves the caller's own offset on by n bytes, n at most usable_size. The bytes must be done with.
inline void ring_advance(const ringbuffer *r, std::atomic<uint32_t> &offset, uint32_t n)
{
    store_release(offset, (load_acquire(offset) + n) % r->usable_size);
}

// Stores the first of the n bytes given, as many as there is room for, split at the end of the
// data area where need be. Main thread.
inline void ring_put(ringbuffer *r, const uint8_t *from, uint32_t n)
{
    const uint32_t taken = std::min(n, ring_free(r));
    const uint32_t first = std::min(taken, ring_free_run(r));
    std::memcpy(ring_data(r) + load_acquire(r->write_offset), from, first);
    std::memcpy(ring_data(r), from + first, taken - first);
    ring_advance(r, r->write_offset, taken);
}
