// What a line of the log costs that is not printed, beside what cannot be left out: counting it and
// looking whether it is wanted.

#include <atomic>
#include <cstdint>

#include <benchmark/benchmark.h>

#include "utils.h"

namespace {

std::atomic<int> lines{0};
std::atomic<bool> is_wanted{false};

void CountAndTest(benchmark::State& state) {
    for ([[maybe_unused]] auto step : state) {
        ++lines;
        bool wanted = is_wanted;
        benchmark::DoNotOptimize(wanted);
    }
}

void LogWithLoggingOff(benchmark::State& state) {
    kelo::Logging(false);
    int number = 0;
    for ([[maybe_unused]] auto step : state) {
        kelo::Log("Invalid packet number %d >= %d (image nr %d).\n", ++number, 2, 3);
    }
}

BENCHMARK(CountAndTest)->Name("log line, logging off/count and test");
BENCHMARK(LogWithLoggingOff)->Name("log line, logging off/library");

}  // namespace
