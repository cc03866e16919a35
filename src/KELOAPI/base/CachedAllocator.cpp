#include "CachedAllocator.h"

#include <algorithm>
#include <bit>
#include <memory>
#include <stdexcept>

#include "utils.h"

CachedAllocator::~CachedAllocator() {
    for (const auto& bin : allocations) {
        for (const TaggedAddress tagged : bin) {
            if (is_used(tagged)) {
                // Shows the tagged value, so that the line can be told from one about the block.
                kelo::Log("CA destructor:WARNING allocation at (0x%p) was not freed.\n",
                          reinterpret_cast<void*>(tagged));
            }
            delete[] get_ptr(tagged);
        }
    }
}

unsigned char* CachedAllocator::allocate(size_t size) {
    const std::lock_guard lock(mutex);
    if (!check_size(size)) {
        kelo::Log("CA:[allocate] trying to allocate %zu bytes, invalid allocation size\n", size);
        throw std::runtime_error("CA:[allocate] trying to allocate - invalid allocation size");
    }
    const size_t bin = get_bin(find_min_2_exp(size));
    auto& blocks = allocations[bin];
    const auto free_block = std::find_if_not(blocks.begin(), blocks.end(), is_used);
    if (free_block != blocks.end()) {
        mark_used(*free_block, true);
        return get_ptr(*free_block);
    }

    // Reserved before the block is made: appending it can then no longer fail and lose it.
    blocks.reserve(blocks.size() + 1);
    auto* block = new unsigned char[allocation_size(bin)];
    auto tagged = reinterpret_cast<TaggedAddress>(block);
    if (is_used(tagged)) {
        kelo::Log(
            "CA:[allocate] new returned (0x%p) pointer is not 2 bytes aligned, can't use flag.\n",
            static_cast<void*>(block));
        throw std::runtime_error(
            "CA:[allocate] new returned pointer is not 2 bytes aligned, can't use flag.");
    }
    mark_used(tagged, true);
    blocks.push_back(tagged);
    return block;
}

void CachedAllocator::deallocate(void* p) {
    const std::lock_guard lock(mutex);
    TaggedAddress* block = find_block(p);
    if (block == nullptr) {
        kelo::Log("CA:[dealloc] WARNING deallocate(0x%p) -> pointer not in current allocations!\n",
                  p);
        return;
    }
    if (!is_used(*block)) {
        kelo::Log(
            "CA:[dealloc] WARNING deallocate(0x%p) -> pointer was already marked as free, double "
            "deallocating?\n",
            p);
    }
    mark_used(*block, false);
}

std::unique_ptr<unsigned char[]> CachedAllocator::give_up(const void* p) {
    const std::lock_guard lock(mutex);
    for (auto& bin : allocations) {
        const auto block = std::find_if(bin.begin(), bin.end(),
                                        [=](TaggedAddress tagged) { return get_ptr(tagged) == p; });
        if (block == bin.end()) continue;
        std::unique_ptr<unsigned char[]> given(get_ptr(*block));
        bin.erase(block);
        return given;
    }
    kelo::Log("CA:[give_up] WARNING give_up(0x%p) -> pointer not in current allocations!\n", p);
    return nullptr;
}

void CachedAllocator::free_unused() {
    const std::lock_guard lock(mutex);
    for (auto& bin : allocations) {
        const auto first_free = std::stable_partition(bin.begin(), bin.end(), is_used);
        std::for_each(first_free, bin.end(),
                      [](TaggedAddress tagged) { delete[] get_ptr(tagged); });
        bin.erase(first_free, bin.end());
    }
}

CachedAllocator::TaggedAddress* CachedAllocator::find_block(const void* p) {
    for (auto& bin : allocations) {
        for (TaggedAddress& tagged : bin) {
            if (get_ptr(tagged) == p) return &tagged;
        }
    }
    return nullptr;
}

unsigned CachedAllocator::find_min_2_exp(size_t size) {
    const auto bits = static_cast<unsigned>(std::bit_width(size));
    return std::has_single_bit(size) ? bits - 1 : bits;
}

size_t CachedAllocator::get_bin(unsigned exponent) {
    return std::clamp(exponent, unsigned{CA_MIN_SIZE_SHIFT}, unsigned{CA_MAX_SIZE_SHIFT}) -
           CA_MIN_SIZE_SHIFT;
}

bool CachedAllocator::check_size(size_t size) {
    // Rejects 0, which wraps around, and what no 64-bit machine can have. Sizes above 2^31 pass and
    // get a block of 2^31 bytes: callers never ask for more.
    return uint64_t{size} - 1 <= 0xFFFFFFFF7FFFFFFFull;
}

unsigned char* CachedAllocator::get_ptr(TaggedAddress tagged) {
    return reinterpret_cast<unsigned char*>(tagged & ~TaggedAddress{CA_USED_FLAG});
}

void CachedAllocator::mark_used(TaggedAddress& tagged, bool used) {
    tagged = used ? tagged | CA_USED_FLAG : tagged & ~TaggedAddress{CA_USED_FLAG};
}
