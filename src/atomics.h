// The ordered access to words that two threads share.
#pragma once

#include <atomic>

// What the writer did before store_release is seen by a reader after load_acquire.
template <typename T> inline T load_acquire(const std::atomic<T> &word)
{
    return word.load(std::memory_order_acquire);
}
template <typename T, typename V> inline void store_release(std::atomic<T> &word, V value)
{
    word.store(value, std::memory_order_release);
}
