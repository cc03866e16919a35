// What handing something from thread to thread costs: finished images, and answers through the
// ring, beside the queue that anybody would write first. With one thread, each step puts in and
// takes out again; with two, each step is a round: there through one queue and back through
// another.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include "FinishedImageQueue.h"
#include "syncd_queue.h"

namespace {

constexpr std::chrono::seconds kPatience{10};
constexpr int kPatienceMs = 10'000;

// The floor: a deque, its lock and a condition.
template <typename T>
class PlainQueue {
public:
    void Put(const T& item) {
        {
            const std::lock_guard lock(mutex_);
            items_.push_back(item);
        }
        is_filled_.notify_one();
    }
    bool Take(T& item) {
        std::unique_lock lock(mutex_);
        if (!is_filled_.wait_for(lock, kPatience, [&] { return !items_.empty(); })) return false;
        item = items_.front();
        items_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable is_filled_;
    std::deque<T> items_;
};

// Each queue takes a number that tells the other thread whether to go on.
class PlainNumbers {
public:
    void Put(uint32_t number) { queue_.Put(number); }
    uint32_t Take() {
        uint32_t number = 0;
        queue_.Take(number);
        return number;
    }

private:
    PlainQueue<uint32_t> queue_;
};

class Ring {
public:
    void Put(uint32_t number) { queue_.Put(number); }
    uint32_t Take() {
        uint32_t number = 0;
        queue_.Get(kPatienceMs, number);
        return number;
    }

private:
    TSyncdQueue<uint32_t> queue_;
};

class PlainImages {
public:
    void Put(uint32_t number) { queue_.Put(BufferInfo{.imageNumber = number}); }
    uint32_t Take() {
        BufferInfo image{};
        queue_.Take(image);
        return image.imageNumber;
    }

private:
    PlainQueue<BufferInfo> queue_;
};

// With a buffer from the queue's allocator for each image, as reception has it.
class Images : private FinishedImageQueue {
public:
    void Put(uint32_t number) {
        const std::lock_guard lock(onrcv_mutex);
        BufferInfo image{};
        image.imageNumber = number;
        image.bufferLength = kImageBytes;
        image.buffer = reinterpret_cast<uintptr_t>(allocateImage(kImageBytes));
        finish(image);
    }
    uint32_t Take() {
        BufferInfo* image = GetImage(kPatienceMs);
        if (image == nullptr) return 0;
        const uint32_t number = image->imageNumber;
        PopImage(image);
        return number;
    }

private:
    static constexpr uint32_t kImageBytes = 4096;
};

template <typename Queue>
void OneThread(benchmark::State& state) {
    Queue queue;
    for ([[maybe_unused]] auto step : state) {
        queue.Put(1);
        if (queue.Take() == 1) continue;
        state.SkipWithError("it did not come out again");
        break;
    }
}

template <typename Queue>
void TwoThreads(benchmark::State& state) {
    Queue there;
    Queue back;
    std::thread other([&] {
        while (there.Take() != 0)
            back.Put(1);
    });
    for ([[maybe_unused]] auto step : state) {
        there.Put(1);
        if (back.Take() == 1) continue;
        state.SkipWithError("nothing came back");
        break;
    }
    there.Put(0);
    other.join();
}

BENCHMARK(OneThread<PlainImages>)->Name("finished image, one thread/deque");
BENCHMARK(OneThread<Images>)->Name("finished image, one thread/library");
BENCHMARK(TwoThreads<PlainImages>)->Name("finished image, there and back/deque")->UseRealTime();
BENCHMARK(TwoThreads<Images>)->Name("finished image, there and back/library")->UseRealTime();
BENCHMARK(OneThread<PlainNumbers>)->Name("queue, one thread/deque");
BENCHMARK(OneThread<Ring>)->Name("queue, one thread/library");
BENCHMARK(TwoThreads<PlainNumbers>)->Name("queue, there and back/deque")->UseRealTime();
BENCHMARK(TwoThreads<Ring>)->Name("queue, there and back/library")->UseRealTime();

}  // namespace
