// What summing up a firmware file costs, beside the loop with one table.

#include <array>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "crc32.h"

namespace {

std::array<uint32_t, 256> MakeTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        const auto byte = static_cast<uint8_t>(i);
        table[i] = kelo_crc32(0, &byte, 1);
    }
    return table;
}

uint32_t OneTable(uint32_t crc, const uint8_t* bytes, uint32_t length) {
    static const auto table = MakeTable();
    for (uint32_t i = 0; i < length; ++i)
        crc = table[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

template <uint32_t (*Sum)(uint32_t, const uint8_t*, uint32_t)>
void Crc32(benchmark::State& state) {
    const std::vector<uint8_t> bytes(1 << 20, 0x5A);
    uint32_t crc = 0;
    for ([[maybe_unused]] auto step : state) {
        crc = Sum(crc, bytes.data(), static_cast<uint32_t>(bytes.size()));
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

BENCHMARK(Crc32<OneTable>)->Name("crc-32 of 1 MiB, one table");
BENCHMARK(Crc32<kelo_crc32>)->Name("crc-32 of 1 MiB, library");

}  // namespace
