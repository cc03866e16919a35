#pragma once

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

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
        WaitFor([this] { return thread_ != 0 && State() == 'S'; });
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
    char State() const {
        std::ifstream file("/proc/self/task/" + std::to_string(thread_) + "/stat");
        std::string text;
        std::getline(file, text);
        const size_t name_end = text.rfind(") ");
        return name_end == std::string::npos ? '?' : text[name_end + 2];
    }

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
