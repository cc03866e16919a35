#pragma once

#include <chrono>
#include <thread>

// Lets those run that were woken for something handed over.
//
// A receive thread that always finds something to receive keeps its core as long as the system lets
// it, while images pile up, in new and cold memory, for a thread that needs the core for a moment.
// So it gives the core away once. When it comes back late, somebody used the core who does not only
// take what was handed over: then the offer is left out for a second, as it would cost the receive
// thread its share.
//
// For one thread.
class CoreOffer {
public:
    void Make() {
        const Clock::time_point begin = Clock::now();
        if (begin < not_before_) return;
        std::this_thread::yield();
        const Clock::time_point end = Clock::now();
        if (end - begin > kTurnMax) not_before_ = end + kLeftAlone;
    }

private:
    using Clock = std::chrono::steady_clock;

    // Far longer than to take an image and to wait for the next, far shorter than the system's
    // time slices.
    static constexpr std::chrono::microseconds kTurnMax{150};
    static constexpr std::chrono::seconds kLeftAlone{1};

    Clock::time_point not_before_{};
};
