#include "ReceptionPause.h"

namespace {

using std::chrono::nanoseconds;

// The longest that fits is made. A longer one would save little more, and an image that comes
// faster at its end than before would be late by more.
constexpr nanoseconds kPauses[] = {std::chrono::microseconds(800), std::chrono::microseconds(400),
                                   std::chrono::microseconds(200), std::chrono::microseconds(100)};
// Fewer are not worth a timer.
constexpr double kDatagramsDueMin = 4;
// How far away the moment must be at which somebody wants the result: the pause, a part of it
// because the rate is an estimate, and the time by which a thread wakes up late.
constexpr double kDistancePerPause = 1.25;
constexpr double kWakeUpNs = 75e3;
// What gathers should still be in the processor's cache when it is taken; half as much costs a
// sixth more processor time at 1.25 GB/s, half as much again saves nothing.
constexpr double kGatheredBytesMax = 768 << 10;
// The part of the socket's buffer that a pause may fill: the buffer is there for a thread that is
// late, and a small one has no room for pauses.
constexpr double kBufferPart = 1.0 / 32;
// The kernel keeps a datagram in a block of up to twice its size, beside a header of its own.
constexpr double kBlockPerByte = 2;
constexpr double kBlockHeader = 512;
// So many datagrams make a rate.
constexpr double kDatagramsForRateMin = 16;
// The rate is that of about the last so many.
constexpr double kDatagramsForRate = 512;
// When something new begins, what went before it has just been handed over. Setting a timer takes
// 10 us and more on a virtual machine, which the thread that was woken would wait for as well.
constexpr nanoseconds kHandOver = std::chrono::microseconds(100);
// Longer than any camera's distance of packets: nothing was being sent in that time.
constexpr nanoseconds kIdle = std::chrono::milliseconds(2);

}  // namespace

nanoseconds ReceptionPause::After(Clock::time_point now, size_t datagrams, size_t bytes,
                                  const TOutlook& outlook, bool drained) {
    Count(now, datagrams, bytes, outlook);
    if (outlook.begins) begun_ = now;
    if (!drained || datagrams_ < kDatagramsForRateMin || now - begun_ < kHandOver) {
        return nanoseconds::zero();
    }
    for (const nanoseconds pause : kPauses) {
        if (IsWorthwhile(pause, outlook.until_wanted)) return pause;
    }
    return nanoseconds::zero();
}

void ReceptionPause::Count(Clock::time_point now, size_t datagrams, size_t bytes,
                           const TOutlook& outlook) {
    const nanoseconds elapsed = now - last_;
    last_ = now;
    // The time before something new begins says nothing of the rate at which it comes.
    if (outlook.begins || elapsed > kIdle) return;
    datagrams_ += static_cast<double>(datagrams);
    bytes_ += static_cast<double>(bytes);
    nanoseconds_ += static_cast<double>(elapsed.count());
    if (datagrams_ < 2 * kDatagramsForRate) return;
    const double kept = kDatagramsForRate / datagrams_;
    datagrams_ *= kept;
    bytes_ *= kept;
    nanoseconds_ *= kept;
}

bool ReceptionPause::IsWorthwhile(nanoseconds pause, uint32_t until_wanted) const {
    const auto pause_ns = static_cast<double>(pause.count());
    const double due = datagrams_ * pause_ns / nanoseconds_;
    const double bytes_due = due * bytes_ / datagrams_;
    const double distance = datagrams_ * (kDistancePerPause * pause_ns + kWakeUpNs) / nanoseconds_;
    return due >= kDatagramsDueMin && distance <= static_cast<double>(until_wanted) &&
           bytes_due <= kGatheredBytesMax &&
           bytes_due * kBlockPerByte + due * kBlockHeader <=
               static_cast<double>(buffer_bytes_) * kBufferPart;
}
