#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

// Hands out image buffers and takes them back without returning memory to the system: a request is
// rounded up to a power of two and served from the earlier blocks of that size. Image buffers are
// large and wanted at the frame rate, and fresh pages cost many times what a warm block costs.
//
// Owns every block until it is destroyed. All operations may be called from any thread.
class CachedAllocator {
public:
    // Blocks have 2^4 to 2^31 bytes; the flag marks the address of one that is handed out.
    enum : unsigned { CA_MIN_SIZE_SHIFT = 4, CA_MAX_SIZE_SHIFT = 31, CA_USED_FLAG = 1 };

    CachedAllocator() = default;
    ~CachedAllocator();
    CachedAllocator(const CachedAllocator&) = delete;
    CachedAllocator& operator=(const CachedAllocator&) = delete;

    // Returns a block of at least size bytes (at most 2^31), not cleared. Throws std::runtime_error
    // for a size of 0 and std::bad_alloc when the system has no memory.
    unsigned char* allocate(size_t size);

    // Marks the block free for the next request. A foreign pointer only gets a log line.
    void deallocate(void* p);

    // Gives a block up to the caller; null, with a log line, for a foreign pointer.
    std::unique_ptr<unsigned char[]> give_up(const void* p);

    // Gives the memory of every free block back to the system.
    void free_unused();

private:
    static constexpr size_t kBins = CA_MAX_SIZE_SHIFT - CA_MIN_SIZE_SHIFT + 1;

    // A block's address; its lowest bit tells whether the block is handed out.
    using TaggedAddress = uintptr_t;

    static unsigned find_min_2_exp(size_t size);
    static size_t get_bin(unsigned exponent);
    static size_t allocation_size(size_t bin) { return size_t{1} << (bin + CA_MIN_SIZE_SHIFT); }
    static bool check_size(size_t size);
    static bool is_used(TaggedAddress tagged) { return (tagged & CA_USED_FLAG) != 0; }
    static unsigned char* get_ptr(TaggedAddress tagged);
    static void mark_used(TaggedAddress& tagged, bool used);

    TaggedAddress* find_block(const void* p);

    // Bin b holds blocks of exactly 2^(b+4) bytes, in the order in which they were made.
    std::array<std::vector<TaggedAddress>, kBins> allocations;
    std::mutex mutex;  // guards allocations
};
