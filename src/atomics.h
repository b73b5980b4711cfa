// Ordered access to words that two threads share.
#pragma once

#include <atomic>

// A reader that gets a value by load_acquire also sees all that its writer wrote before the
// store_release of that value.
template <typename T> inline T load_acquire(const std::atomic<T> &word)
{
    return word.load(std::memory_order_acquire);
}
template <typename T, typename V> inline void store_release(std::atomic<T> &word, V value)
{
    word.store(value, std::memory_order_release);
}
