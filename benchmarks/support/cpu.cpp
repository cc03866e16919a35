#include "cpu.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

#include <sched.h>
#include <sys/resource.h>

namespace kelo::bench {
namespace {

constexpr int PROBE_ROUNDS = 5000;

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Turns even numbers into the next odd one, or odd into even; the other thread does the opposite.
void PassBall(std::atomic<int>& ball, int first, int core) {
    PinToCore(core);
    for (int next = first; next < 2 * PROBE_ROUNDS; next += 2) {
        while (ball.load(std::memory_order_acquire) != next) {
        }
        ball.store(next + 1, std::memory_order_release);
    }
}

}  // namespace

void PinToCore(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(core), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot pin to core " + std::to_string(core));
    }
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double PlacementProbeNs(int core_a, int core_b) {
    if (core_a == core_b) return 0;
    alignas(64) std::atomic<int> ball{-1};
    std::thread b([&ball, core_b] { PassBall(ball, 1, core_b); });
    double start = 0;
    std::thread a([&ball, &start, core_a] {
        PinToCore(core_a);
        start = Now();
        ball.store(0, std::memory_order_release);
        PassBall(ball, 0, core_a);
    });
    a.join();
    b.join();
    return (Now() - start) / PROBE_ROUNDS * 1e9;
}

}  // namespace kelo::bench
