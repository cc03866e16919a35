#include "stalls.h"

#include <chrono>
#include <csignal>
#include <thread>

#include <sched.h>

#include "../support/cpu.h"

namespace kelo::bench {
namespace {

// Time to take in what was left, and for the stream to run evenly again.
constexpr std::chrono::milliseconds BETWEEN(80);
constexpr std::chrono::milliseconds BEFORE_FIRST(200);

bool SetPriority(int policy, int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    return sched_setscheduler(0, policy, &parameters) == 0;
}

}  // namespace

Stalls::Stalls(int core) : core_(core), real_time_(SetPriority(SCHED_FIFO, 50)) {
    SetPriority(SCHED_OTHER, 0);
}

const char* Stalls::How() const {
    return real_time_ ? "stalled by a real-time loop on the receiver's core"
                      : "stalled by stopping and continuing the receiving process";
}

void Stalls::Inflict(pid_t receiver, double stall_ms, int count) const {
    PinToCore(core_);
    std::this_thread::sleep_for(BEFORE_FIRST);
    for (int i = 0; i < count; ++i) {
        Stall(receiver, stall_ms);
        std::this_thread::sleep_for(BETWEEN);
    }
}

void Stalls::Stall(pid_t receiver, double stall_ms) const {
    if (real_time_) {
        SetPriority(SCHED_FIFO, 50);
        const double end = Now() + stall_ms / 1e3;
        while (Now() < end) {
        }
        SetPriority(SCHED_OTHER, 0);
    } else {
        kill(receiver, SIGSTOP);
        std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(stall_ms));
        kill(receiver, SIGCONT);
    }
}

}  // namespace kelo::bench
