#include "watched_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace kelo::test {
namespace {

std::atomic<size_t> watched_size{SIZE_MAX};
std::atomic<size_t> refused_size{SIZE_MAX};
std::atomic<int64_t> blocks_in_use{0};

// The allocator may give somewhat more than it was asked for; up to a page or two.
bool IsWatched(void* block) {
    constexpr size_t kRoundedUpMax = 8192;
    const size_t size = malloc_usable_size(block);
    const size_t watched = watched_size.load(std::memory_order_relaxed);
    return size >= watched && size - watched <= kRoundedUpMax;
}

[[maybe_unused]] void* Allocate(size_t size) noexcept {
    if (size >= refused_size.load(std::memory_order_relaxed)) return nullptr;
    void* block = std::malloc(size != 0 ? size : 1);
    if (block != nullptr && IsWatched(block)) ++blocks_in_use;
    return block;
}

[[maybe_unused]] void* AllocateOrThrow(size_t size) {
    void* block = Allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

[[maybe_unused]] void Free(void* block) noexcept {
    if (block != nullptr && IsWatched(block)) --blocks_in_use;
    std::free(block);
}

}  // namespace

void WatchedMemory::Watch(size_t size) {
    watched_size = size;
    blocks_in_use = 0;
}

int64_t WatchedMemory::BlocksInUse() {
    return blocks_in_use;
}

WatchedMemory::Refusal::Refusal(size_t size) {
    refused_size = size;
}

WatchedMemory::Refusal::~Refusal() {
    refused_size = SIZE_MAX;
}

}  // namespace kelo::test

#if !defined(KELO_WITH_THREAD_SANITIZER)

// All of them: a sanitizer has its own, which must not be mixed with these.
void* operator new(size_t size) {
    return kelo::test::AllocateOrThrow(size);
}
void* operator new[](size_t size) {
    return kelo::test::AllocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return kelo::test::Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return kelo::test::Allocate(size);
}
void operator delete(void* block) noexcept {
    kelo::test::Free(block);
}
void operator delete[](void* block) noexcept {
    kelo::test::Free(block);
}
void operator delete(void* block, size_t) noexcept {
    kelo::test::Free(block);
}
void operator delete[](void* block, size_t) noexcept {
    kelo::test::Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    kelo::test::Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    kelo::test::Free(block);
}

#endif
