#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "TPacketCommunicator.h"

// Decides how long a receive thread that has taken all there was lets the next datagrams gather.
//
// When datagrams come one by one, waking up for each of them costs more than taking it. A short
// pause takes many with one wake-up, but it must not keep anybody waiting, nor fill the socket's
// buffer. So there is one only while the receiver expects to hand nothing over before it ends, and
// only when several datagrams are due in it, and not while somebody who was just given a result
// may still be about to wake up on this core. How many are due tells their rate, which is counted
// here. A sender that breaks its own order can complete an image within a pause: it is then late by
// that pause at most.
//
// No clock and no thread of its own: the receive thread gives the time and does the sleeping.
class ReceptionPause {
public:
    using Clock = std::chrono::steady_clock;

    // buffer_bytes is what the kernel may keep for the socket, its own bookkeeping included.
    explicit ReceptionPause(size_t buffer_bytes) : buffer_bytes_(buffer_bytes) {}

    // To be told of every batch. outlook is what the receiver said of it, drained whether there was
    // nothing left to take. Zero: do not pause.
    std::chrono::nanoseconds After(Clock::time_point now, size_t datagrams, size_t bytes,
                                   const TOutlook& outlook, bool drained);

private:
    void Count(Clock::time_point now, size_t datagrams, size_t bytes, const TOutlook& outlook);
    bool IsWorthwhile(std::chrono::nanoseconds pause, uint32_t until_wanted) const;

    size_t buffer_bytes_;
    Clock::time_point last_{};
    Clock::time_point begun_{};  // when something new began
    // What came recently, and in what time.
    double datagrams_ = 0;
    double bytes_ = 0;
    double nanoseconds_ = 0;
};
