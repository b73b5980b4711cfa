// The limits of the machine, measured in the same run as the figures that are compared with them.
#pragma once

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

inline double seconds_now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Seconds of the fastest of several runs. The others were disturbed.
template <typename work> double best_seconds(int runs, work run)
{
    double best = 1e9;
    for (int i = 0; i < runs; ++i) {
        const double start = seconds_now();
        run();
        best = std::min(best, seconds_now() - start);
    }
    return best;
}

// The processor time that run takes in this thread. Time of other programs does not count.
template <typename work> double thread_seconds(work run)
{
    const auto now = [] {
        timespec t{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    };
    const double start = now();
    run();
    return now() - start;
}

// The amount of work that takes at least `seconds`: step, doubled as often as needed.
template <typename work> int64_t amount_for(double seconds, int64_t step, work run)
{
    int64_t amount = step;
    while (thread_seconds([&] { run(amount); }) < seconds) amount *= 2;
    return amount;
}

// The 2.5 per cent quantile of the times of many runs. The fastest ones depend on chance and on the
// resolution of the clock.
inline double best_few(std::vector<double> seconds)
{
    const auto few = seconds.begin() + static_cast<ptrdiff_t>(seconds.size() / 40);
    std::nth_element(seconds.begin(), few, seconds.end());
    return *few;
}

// Bytes per second of memcpy in pieces of the given size, from one buffer into one as large as the
// ring.
inline double copy_rate(size_t piece)
{
    std::vector<uint8_t> source(piece + 4096, 1);
    std::vector<uint8_t> to(1572864, 2);
    // The source is half a page from the destination, modulo the page size: a load is slow if its
    // address equals that of an earlier store modulo the page size.
    const uint8_t *from = source.data() + ((to.data() - source.data() + 2048) & 4095);
    const size_t pieces = to.size() / piece;
    const double best = best_seconds(50, [&] {
        for (size_t i = 0; i < pieces; ++i) std::memcpy(&to[i * piece], from, piece);
        __asm__ volatile("" : : "r"(to.data()) : "memory");
    });
    return static_cast<double>(pieces * piece) / best;
}

// Bytes per second of read() for a file in the page cache.
inline double read_rate(const char *path)
{
    std::vector<uint8_t> to(65536);
    size_t total = 0;
    const double best = best_seconds(5, [&] {
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        total = 0;
        for (ssize_t got = 0; (got = read(fd, to.data(), to.size())) > 0;)
            total += static_cast<size_t>(got);
        close(fd);
    });
    return static_cast<double>(total) / best;
}
