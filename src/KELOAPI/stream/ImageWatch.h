#pragma once

#include <chrono>
#include <thread>

// How a thread waits for an image that is due at any moment.
//
// To wake a sleeping thread takes as long as a datagram's whole way through the kernel, and far
// longer when its core sleeps as well. So whoever waits for an image is woken shortly before it is
// complete and watches for it, giving the core away all the time: when the last packet comes the
// core is awake, and nobody has to be woken.
//
// Where that does not serve it is left alone for a second: where somebody else wants the core, as
// the kernel lets a thread that was just woken go before one that has been computing; and where the
// image does not come in time, also because a thread of real-time priority that watches keeps the
// receive thread from the core.
//
// For one thread at a time.
class ImageWatch {
public:
    using Clock = std::chrono::steady_clock;

    bool IsWorthwhile(Clock::time_point now) const { return now >= not_before_; }

    // Returns when over() tells that there is nothing to wait for any more, at the deadline, or
    // when watching does not serve. To be called without a lock.
    template <typename Over>
    void Watch(Over over, Clock::time_point deadline) {
        const Clock::time_point begin = Clock::now();
        Clock::time_point now = begin;
        while (!over() && now < deadline) {
            const Clock::time_point before = now;
            std::this_thread::yield();
            now = Clock::now();
            if (now - before <= kTurnMax && now - begin <= kWatchMax) continue;
            if (!over()) not_before_ = now + kLeftAlone;
            return;
        }
    }

private:
    // Twice as long as an image is announced ahead, which is an estimate.
    static constexpr std::chrono::microseconds kWatchMax{400};
    // Longer than the receive thread takes for what it receives at once.
    static constexpr std::chrono::microseconds kTurnMax{150};
    static constexpr std::chrono::seconds kLeftAlone{1};

    Clock::time_point not_before_{};
};
