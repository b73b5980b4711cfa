#include <gtest/gtest.h>

#include <numeric>
#include <thread>
#include <vector>

#include "ringbuffer.h"

namespace
{

// A ring with its offsets where a case wants them, some rounds from the start.
ringbuffer *ring_at(uint32_t size, uint32_t frame, uint32_t read, uint32_t write)
{
    ringbuffer *r = ringbuffer_new(size, frame, 1);
    r->bytes_sent = uint64_t{r->usable_size} * 3000000000U + read;
    r->bytes_put = r->bytes_sent - read + (write < read ? r->usable_size : 0) + write;
    return r;
}

struct arithmetic_case {
    uint32_t size, frame, read, write;
    uint32_t used, percent, free, free_run, used_run;
};

TEST(Ring, OffsetsGiveWhatIsStoredAndFree)
{
    const arithmetic_case cases[] = {
        {800, 8, 0, 0, 0, 0, 792, 792, 0},          // empty at 0: the writer may not wrap
        {800, 8, 400, 400, 0, 0, 792, 400, 0},      // empty elsewhere: up to the end
        {800, 8, 0, 792, 792, 99, 0, 0, 792},       // full from 0
        {800, 8, 8, 0, 792, 99, 0, 0, 792},         // full, the writer wrapped
        {800, 8, 400, 200, 600, 75, 192, 192, 400}, // the writer is behind
        {800, 8, 200, 400, 200, 25, 592, 400, 200}, // the reader is behind
        {800, 8, 792, 8, 16, 2, 776, 776, 8},       // the stored bytes wrap
        {806, 8, 8, 792, 784, 98, 8, 8, 784},       // the odd end of the data is out of use
        {16, 8, 0, 4, 4, 25, 4, 4, 4},              // half frames
        {16, 8, 0, 12, 12, 75, 0, 0, 12},           // less than a gap left: nothing is free
        {2147483640, 8, 8, 0, 2147483632, 99, 0, 0, 2147483632},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " " << c.read << " " << c.write);
        ringbuffer *r = ring_at(c.size, c.frame, c.read, c.write);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(ring_used(r), c.used);
        EXPECT_EQ(ring_percent(r), static_cast<int32_t>(c.percent));
        EXPECT_EQ(ring_free(r), c.free);
        EXPECT_EQ(ring_free_run(r), c.free_run);
        EXPECT_EQ(ring_used_run(r), c.used_run);
        ringbuffer_free(&r);
    }
}

TEST(Ring, NewRoundsToFramesAndSetsNoMark)
{
    for (const uint32_t frame : {6U, 8U}) {
        ringbuffer *r = ringbuffer_new(1572865, frame, 2);
        EXPECT_EQ(r->ring_size, 1572865U);
        EXPECT_EQ(r->usable_size, 1572864U);
        EXPECT_EQ(r->gap, frame);
        EXPECT_EQ(r->more_coming, -1);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(r->track_marks[i], mark_unset);
        ringbuffer_free(&r);
        EXPECT_EQ(r, nullptr);
        ringbuffer_free(&r);
    }
    EXPECT_EQ(ringbuffer_new(1572864, 0, 1), nullptr);
    EXPECT_EQ(ringbuffer_new(0x80000000U, 8, 1), nullptr);
}

TEST(Ring, PutSplitsAtTheEndAndTakesNoMoreThanFits)
{
    ringbuffer *r = ring_at(20, 4, 12, 16);
    std::vector<uint8_t> bytes(40);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    ring_put(r, bytes.data(), 40);
    EXPECT_EQ(ring_used(r), 16U); // 4 stored before, room for 12
    EXPECT_EQ(ring_offset(r, r->bytes_put), 8U);
    const std::vector<uint8_t> end(ring_data(r) + 16, ring_data(r) + 20);
    const std::vector<uint8_t> start(ring_data(r), ring_data(r) + 8);
    EXPECT_EQ(end, (std::vector<uint8_t>{1, 2, 3, 4}));
    EXPECT_EQ(start, (std::vector<uint8_t>{5, 6, 7, 8, 9, 10, 11, 12}));
    ring_put(r, bytes.data(), 4);
    EXPECT_EQ(ring_offset(r, r->bytes_put), 8U);
    ringbuffer_free(&r);
}

// Two threads, odd sizes: what one stores, the other takes, in order and whole.
TEST(Ring, TwoThreadsPassEveryByte)
{
    constexpr uint32_t total = 300000;
    ringbuffer *r = ringbuffer_new(1000, 6, 1);
    std::thread producer([r] {
        for (uint32_t sent = 0; sent < total;) {
            std::array<uint8_t, 77> bytes;
            const uint32_t n = std::min({ring_free(r), 1 + sent % 77, total - sent});
            for (uint32_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>((sent + i) * 31);
            ring_put(r, bytes.data(), n);
            sent += n;
        }
    });
    uint32_t wrong = 0;
    for (uint32_t got = 0; got < total;) {
        const uint32_t n = ring_used_run(r);
        const uint8_t *bytes = ring_data(r) + ring_offset(r, r->bytes_sent);
        for (uint32_t i = 0; i < n; ++i) wrong += bytes[i] != static_cast<uint8_t>((got + i) * 31);
        ring_advance(r->bytes_sent, n);
        got += n;
    }
    producer.join();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(ring_used(r), 0U);
    ringbuffer_free(&r);
}

} // namespace
