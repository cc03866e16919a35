#include "Timer.h"

#include "utils.h"

Timer::~Timer() {
    stop();
}

void Timer::start(const std::chrono::milliseconds& interval, const std::function<void()>& fn) {
    stop();
    stop_wanted = false;
    thread = std::thread([this, interval, fn] { Run(interval, fn); });
}

void Timer::stop() {
    {
        // Under the mutex, so that a stop during a call of the function is not lost.
        const std::lock_guard lock(mutex);
        stop_wanted = true;
    }
    terminate.notify_one();
    if (thread.joinable()) thread.join();
}

void Timer::Run(std::chrono::milliseconds interval, const std::function<void()>& fn) {
    kelo::NameThisThread("kelo-timer");
    std::unique_lock lock(mutex);
    while (true) {
        const auto deadline = std::chrono::steady_clock::now() + interval;
        if (terminate.wait_until(lock, deadline, [this] { return stop_wanted; })) return;
        fn();
    }
}
