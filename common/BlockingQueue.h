#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

// A bounded ring between ONE producer thread and ONE consumer thread at a time.
//
// One slot always stays free, so a queue of capacity N holds N - 1 items. Slots are copied outside
// the locks: the producer touches only the slot at write_head, the consumer only the one at
// read_head. Each side moves its own head under its own mutex and waits under the other side's, so
// that no signal falls between a test and the wait that follows it.
//
// Deadlines are taken on the steady clock: setting the host's time must neither cut nor stretch a
// wait for a camera's answer.
template <typename T>
class BlockingQueue {
public:
    explicit BlockingQueue(size_t capacity) : storage(capacity) {}
    virtual ~BlockingQueue() = default;
    BlockingQueue(const BlockingQueue&) = delete;
    BlockingQueue& operator=(const BlockingQueue&) = delete;

    // Sets the capacity. Only while the queue is unused.
    void resize(size_t capacity) { storage.resize(capacity); }
    size_t size() const { return storage.size(); }
    uint64_t increment(uint64_t index) const { return (index + 1) % storage.size(); }

    // Waits while the queue is full.
    void push_wait(const T& item) {
        uint64_t next = 0;
        {
            std::unique_lock lock(mutex_read_head);
            next = increment(write_head);
            cv_popped.wait(lock, [&] { return next != read_head; });
        }
        Push(item, next);
    }

    // Returns false at once when the queue is full.
    bool try_push(const T& item) {
        const uint64_t next = increment(write_head);
        if (next == read_head) return false;
        Push(item, next);
        return true;
    }

    void pop_wait(T& item) {
        {
            std::unique_lock lock(mutex_write_head);
            cv_pushed.wait(lock, [&] { return !Empty(); });
        }
        Pop(item);
    }

    bool try_pop(T& item) {
        if (Empty()) return false;
        Pop(item);
        return true;
    }

    // Pops and returns true if an item is there or arrives within timeout, else false.
    bool pop_waitfor(T& item, std::chrono::milliseconds timeout) {
        // A wait whose deadline has passed still costs the timer's slack: do not begin one.
        if (Empty() && timeout.count() <= 0) return false;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        {
            std::unique_lock lock(mutex_write_head);
            if (!cv_pushed.wait_until(lock, deadline, [&] { return !Empty(); })) return false;
        }
        Pop(item);
        return true;
    }

    // Number of items waiting.
    size_t pending() const {
        return static_cast<size_t>((write_head - read_head + storage.size()) % storage.size());
    }
    // Not asked of the objects: clang would want libatomic for that.
    bool is_lock_free() const { return std::atomic<uint64_t>::is_always_lock_free; }

private:
    bool Empty() const { return read_head == write_head; }

    void Push(const T& item, uint64_t next) {
        storage[write_head] = item;
        {
            std::lock_guard lock(mutex_write_head);
            write_head = next;
        }
        cv_pushed.notify_one();
    }

    void Pop(T& item) {
        const uint64_t head = read_head;
        // The slot gives up what it holds, for the ring goes round before it is used again.
        item = std::move(storage[head]);
        {
            std::lock_guard lock(mutex_read_head);
            read_head = increment(head);
        }
        cv_popped.notify_one();
    }

    std::vector<T> storage;
    std::atomic<uint64_t> write_head{0};
    std::atomic<uint64_t> read_head{0};
    std::mutex mutex_read_head;   // guards changes of read_head; the producer waits under it
    std::mutex mutex_write_head;  // guards changes of write_head; the consumer waits under it
    std::condition_variable cv_pushed;
    std::condition_variable cv_popped;
};
