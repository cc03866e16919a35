#include "cpu.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kelo::bench {
namespace {

// The quickest of many short batches: other work that takes a core for a while spoils only a few.
constexpr int PROBE_BATCHES = 25;
constexpr int PROBE_ROUNDS = 200;

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Sends the ball back whenever it comes, until all is played.
void Return(std::atomic<int>& ball, int core) {
    PinToCore(core);
    for (int i = 0; i < PROBE_BATCHES * PROBE_ROUNDS; ++i) {
        while (ball.load(std::memory_order_acquire) != 2 * i + 1) {
        }
        ball.store(2 * i + 2, std::memory_order_release);
    }
}

// The seconds of the quickest batch.
double Play(std::atomic<int>& ball, int core) {
    PinToCore(core);
    double best = std::numeric_limits<double>::max();
    int sent = 0;
    for (int batch = 0; batch < PROBE_BATCHES; ++batch) {
        const double start = Now();
        for (int i = 0; i < PROBE_ROUNDS; ++i) {
            ball.store(2 * sent++ + 1, std::memory_order_release);
            while (ball.load(std::memory_order_acquire) != 2 * sent) {
            }
        }
        best = std::min(best, Now() - start);
    }
    return best;
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

int64_t NowNs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

int64_t ThreadCpuNs(pid_t thread) {
    // How the kernel spells the processor time clock of a thread by its number.
    const auto clock = static_cast<clockid_t>((~static_cast<unsigned>(thread) << 3) | 6U);
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return 0;
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

double CoreBusySeconds(int core) {
    std::ifstream stat("/proc/stat");
    const std::string wanted = "cpu" + std::to_string(core);
    for (std::string line; std::getline(stat, line);) {
        std::istringstream fields(line);
        std::string name;
        // user nice system idle iowait irq softirq steal, in clock ticks
        double ticks[8] = {};
        fields >> name;
        if (name != wanted) continue;
        for (double& field : ticks)
            fields >> field;
        const double busy = ticks[0] + ticks[1] + ticks[2] + ticks[5] + ticks[6] + ticks[7];
        return busy / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    return 0;
}

double PlacementProbeNs(int core_a, int core_b) {
    if (core_a == core_b) return 0;
    alignas(64) std::atomic<int> ball{0};
    std::thread b([&ball, core_b] { Return(ball, core_b); });
    double best = 0;
    std::thread a([&ball, &best, core_a] { best = Play(ball, core_a); });
    a.join();
    b.join();
    return best / PROBE_ROUNDS * 1e9;
}

}  // namespace kelo::bench
