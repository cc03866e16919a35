// What getting an image buffer and giving it back costs, beside a stack of free buffers with a
// lock around it. The library searches its blocks: here it is always the last one that is free.

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <benchmark/benchmark.h>

#include "CachedAllocator.h"

namespace {

constexpr size_t kBlockBytes = 4096;

void FreeStack(benchmark::State& state) {
    const auto block = std::make_unique<uint8_t[]>(kBlockBytes);
    std::vector<uint8_t*> free_blocks{block.get()};
    std::mutex mutex;
    for ([[maybe_unused]] auto step : state) {
        uint8_t* taken = nullptr;
        {
            const std::lock_guard lock(mutex);
            taken = free_blocks.back();
            free_blocks.pop_back();
        }
        benchmark::DoNotOptimize(taken);
        const std::lock_guard lock(mutex);
        free_blocks.push_back(taken);
    }
}

void LastOfManyBlocks(benchmark::State& state) {
    CachedAllocator allocator;
    std::vector<uint8_t*> used(static_cast<size_t>(state.range(0)));
    for (uint8_t*& block : used)
        block = allocator.allocate(kBlockBytes);
    allocator.deallocate(used.back());
    used.pop_back();
    for ([[maybe_unused]] auto step : state) {
        uint8_t* taken = allocator.allocate(kBlockBytes);
        benchmark::DoNotOptimize(taken);
        allocator.deallocate(taken);
    }
    for (uint8_t* block : used)
        allocator.deallocate(block);
}

BENCHMARK(FreeStack)->Name("allocate and free a block/stack");
BENCHMARK(LastOfManyBlocks)
    ->Name("allocate and free a block/library, blocks")
    ->Arg(3)
    ->Arg(100)
    ->Arg(1000);

}  // namespace
