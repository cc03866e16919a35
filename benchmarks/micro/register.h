#pragma once

#include <string>
#include <utility>

#include <benchmark/benchmark.h>

// Registers a row whose name is put together when the program starts.
template <typename Run>
benchmark::internal::Benchmark* Row(const std::string& name, Run run) {
    return benchmark::RegisterBenchmark(name.c_str(), std::move(run));
}
