#include "ringbuffer.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "util.h"

namespace
{

constexpr int32_t report_out_of_memory = 16;

} // namespace

ringbuffer *ringbuffer_new(uint32_t size, uint32_t frame_bytes, int32_t files)
{
    if (frame_bytes == 0 || size >= ring_size_limit) return nullptr;

    const auto entries = static_cast<size_t>(files) + 1;
    void *memory = std::malloc(sizeof(ringbuffer) + size);
    auto *marks = new (std::nothrow) track_mark[entries];
    if (memory == nullptr || marks == nullptr) {
        report("ringbuffer", report_out_of_memory, "malloc() failed.\n");
        std::free(memory);
        delete[] marks;
        return nullptr;
    }
    for (size_t i = 0; i < entries; ++i) store_release(marks[i], mark_unset);

    auto *r = new (memory) ringbuffer{};
    r->ring_size = size;
    r->usable_size = size / frame_bytes * frame_bytes;
    r->gap = frame_bytes;
    r->track_marks = marks;
    store_release(r->more_coming, -1);
    return r;
}

void ringbuffer_free(ringbuffer **owner)
{
    if (*owner == nullptr) return;
    track_mark *marks = (*owner)->track_marks;
    delete[] marks;
    std::destroy_at(*owner);
    std::free(*owner);
    *owner = nullptr;
}
