#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// Calls a function again and again on a thread of its own.
//
// The next deadline is taken after each call has returned: calls never overlap and never catch up.
// It is taken on the steady clock: setting the host's time must neither hold images back nor finish
// them early.
// start and stop belong to one owner; the function must not call them on its own timer.
class Timer {
public:
    Timer() = default;
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // First call after interval. A running timer is stopped and started anew.
    void start(const std::chrono::milliseconds& interval, const std::function<void()>& fn);

    // Returns when the thread has ended; a call of the function that is going on is waited for.
    void stop();

private:
    void Run(std::chrono::milliseconds interval, const std::function<void()>& fn);

    std::thread thread;
    std::mutex mutex;  // guards stop_wanted; held during each call of the function
    std::condition_variable terminate;
    bool stop_wanted = false;
};
