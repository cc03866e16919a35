#pragma once

#include <algorithm>
#include <chrono>

#include "AbortFlag.h"
#include "BlockingQueue.h"

// The blocking ring under the names that the rest of the library uses. One producer and one
// consumer at a time.
template <typename T>
class TSyncdQueue {
public:
    static constexpr size_t kDefaultCapacity = 1024;

    explicit TSyncdQueue(size_t capacity = kDefaultCapacity) : q(capacity) {}

    // Waits while the queue is full.
    void Put(const T& item) { q.push_wait(item); }
    // Returns false at once when the queue is full.
    bool TryPut(const T& item) { return q.try_push(item); }

    void Get(T& item) { q.pop_wait(item); }

    // Waits up to timeout_ms. With an abort flag the time is spent in slices of at most a second,
    // and the flag is looked at after each slice that brought nothing.
    bool Get(int timeout_ms, T& item, AbortFlag abort = nullptr) {
        if (!abort.IsPresent()) return q.pop_waitfor(item, std::chrono::milliseconds(timeout_ms));
        constexpr int kSliceMs = 1000;
        while (true) {
            const int slice_ms = std::min(timeout_ms, kSliceMs);
            if (q.pop_waitfor(item, std::chrono::milliseconds(slice_ms))) return true;
            timeout_ms -= slice_ms;
            if (abort.IsSet() || timeout_ms <= 0) return false;
        }
    }

    size_t Count() const { return q.pending(); }
    void resize(size_t capacity) { q.resize(capacity); }

private:
    BlockingQueue<T> q;
};
