#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "thread_state.h"
#include "wait_for.h"

namespace kelo::test {

// A call that blocks, on a thread of its own.
template <typename Result>
class WaitingCall {
public:
    explicit WaitingCall(std::function<Result()> call)
        : result_(std::async(std::launch::async, [this, call = std::move(call)] {
              thread_ = gettid();
              return call();
          })) {}

    // Until the thread sleeps in the call: the system says so.
    void AwaitSleep() {
        WaitFor([this] { return thread_ != 0 && ThreadState(thread_) == 'S'; });
    }
    // Whether the call returns within the time.
    bool Returns(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        return result_.wait_for(limit) == std::future_status::ready;
    }
    // What it returned, well before its own time would be over.
    Result Get() {
        EXPECT_TRUE(Returns());
        return result_.get();
    }

private:
    std::atomic<pid_t> thread_{0};
    std::future<Result> result_;
};

// Whether the call, which might wait for a minute, returns null without waiting.
template <typename Call>
bool IsNullAtOnce(const Call& call) {
    const auto begin = std::chrono::steady_clock::now();
    return call() == nullptr && std::chrono::steady_clock::now() - begin < std::chrono::seconds(10);
}

}  // namespace kelo::test
