// The allocator's blocks come from operator new[], which the linker replaces (--wrap) in this
// executable: that shows the size of every block, makes blocks of 2 GiB cost nothing, and can hand
// out unusable addresses. Sanitizers keep their own operators behind it.

#include "CachedAllocator.h"

#include <cstdio>
#include <limits>
#include <new>
#include <optional>
#include <set>

#include "log_capture.h"

using kelo::test::LogCapture;
using testing::ElementsAre;

namespace {

struct Heap {
    enum class Mode { kReal, kTiny, kOdd, kExhausted };
    Mode mode = Mode::kReal;
    size_t allocations = 0;
    size_t last_size = 0;
    size_t releases = 0;
};

// Only the thread of a running test has one; all other allocations are plain.
thread_local Heap* heap = nullptr;

}  // namespace

// The system's operators: new[](size_t), delete[](void*), delete[](void*, size_t).
extern "C" void* __real__Znam(size_t size);
extern "C" void __real__ZdaPv(void* block);

extern "C" void* __wrap__Znam(size_t size) {
    if (heap == nullptr) return __real__Znam(size);
    if (heap->mode == Heap::Mode::kExhausted) throw std::bad_alloc();
    heap->last_size = size;
    ++heap->allocations;
    switch (heap->mode) {
        case Heap::Mode::kTiny:
            return __real__Znam(16);
        case Heap::Mode::kOdd:
            return static_cast<char*>(__real__Znam(16)) + 1;
        default:
            return __real__Znam(size);
    }
}

extern "C" void __wrap__ZdaPv(void* block) {
    if (heap != nullptr && block != nullptr) ++heap->releases;
    __real__ZdaPv(block);
}

// The size would be the one that was asked for, not that of the tiny block.
extern "C" void __wrap__ZdaPvm(void* block, size_t) {
    __wrap__ZdaPv(block);
}

namespace {

std::string Address(const void* pointer, ptrdiff_t offset = 0) {
    char text[64];
    snprintf(text, sizeof(text), "(0x%p)",
             static_cast<const void*>(static_cast<const char*>(pointer) + offset));
    return text;
}

class CachedAllocatorTest : public testing::Test {
protected:
    CachedAllocatorTest() {
        system.mode = Heap::Mode::kTiny;
        heap = &system;
    }
    ~CachedAllocatorTest() override {
        allocator.reset();
        heap = nullptr;
    }

    // The size of the new block that a request of this size takes.
    size_t BlockSizeFor(size_t size) {
        system.last_size = 0;
        allocator->allocate(size);
        return system.last_size;
    }
    // Destroys the allocator and returns what that logged.
    std::vector<std::string> LinesOfDestruction() {
        const LogCapture log;
        allocator.reset();
        return log.Lines();
    }

    Heap system;
    std::optional<CachedAllocator> allocator{std::in_place};
};

TEST_F(CachedAllocatorTest, SmallRequestsTakeABlockOf16Bytes) {
    EXPECT_EQ(16u, BlockSizeFor(1));
    EXPECT_EQ(16u, BlockSizeFor(2));
    EXPECT_EQ(16u, BlockSizeFor(15));
    EXPECT_EQ(16u, BlockSizeFor(16));
    LinesOfDestruction();
}

TEST_F(CachedAllocatorTest, RequestsAreRoundedUpToAPowerOfTwo) {
    EXPECT_EQ(32u, BlockSizeFor(17));
    EXPECT_EQ(4096u, BlockSizeFor(4096));
    EXPECT_EQ(8192u, BlockSizeFor(4097));
    LinesOfDestruction();
}

TEST_F(CachedAllocatorTest, EachOfThe28BinsHoldsBlocksOfItsOwnPowerOfTwo) {
    static_assert(CachedAllocator::CA_MIN_SIZE_SHIFT == 4);
    static_assert(CachedAllocator::CA_MAX_SIZE_SHIFT == 31);
    static_assert(CachedAllocator::CA_USED_FLAG == 1);
    for (unsigned exponent = 4; exponent <= 31; ++exponent) {
        const size_t block = size_t{1} << exponent;
        EXPECT_EQ(block, BlockSizeFor(block)) << exponent;
        EXPECT_EQ(block, BlockSizeFor(block / 2 + 1)) << exponent;
    }
    EXPECT_EQ(2u * 28, system.allocations) << "no block serves another bin";
    LinesOfDestruction();
}

TEST_F(CachedAllocatorTest, RequestsAboveTheLargestBinGetALargestBlock) {
    EXPECT_EQ(size_t{1} << 31, BlockSizeFor((size_t{1} << 31) + 1));
    EXPECT_EQ(size_t{1} << 31, BlockSizeFor(size_t{1} << 40));
    EXPECT_EQ(size_t{1} << 31, BlockSizeFor(0xFFFFFFFF80000000u)) << "the largest valid request";
    LinesOfDestruction();
}

TEST_F(CachedAllocatorTest, ABlockCanBeWrittenToItsEnd) {
    system.mode = Heap::Mode::kReal;
    unsigned char* block = allocator->allocate(1000);
    std::fill_n(block, 1024, static_cast<unsigned char>(0xA5));
    EXPECT_EQ(0xA5, block[1023]);
    allocator->deallocate(block);
}

class InvalidSizeTest : public CachedAllocatorTest, public testing::WithParamInterface<size_t> {};

TEST_P(InvalidSizeTest, IsLoggedAndThrown) {
    const LogCapture log;
    try {
        allocator->allocate(GetParam());
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("CA:[allocate] trying to allocate - invalid allocation size", error.what());
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre("CA:[allocate] trying to allocate " + std::to_string(GetParam()) +
                            " bytes, invalid allocation size"));
    EXPECT_EQ(0u, system.allocations);
}

INSTANTIATE_TEST_SUITE_P(Sizes, InvalidSizeTest,
                         testing::Values(0, 0xFFFFFFFF80000001u,
                                         std::numeric_limits<size_t>::max()));

TEST_F(CachedAllocatorTest, AFreedBlockServesTheNextRequestOfItsSize) {
    unsigned char* block = allocator->allocate(100);
    allocator->deallocate(block);
    EXPECT_EQ(block, allocator->allocate(128));
    EXPECT_EQ(1u, system.allocations);
    EXPECT_EQ(0u, system.releases);
    allocator->deallocate(block);
}

TEST_F(CachedAllocatorTest, TheOldestFreeBlockIsTakenFirst) {
    unsigned char* first = allocator->allocate(64);
    unsigned char* second = allocator->allocate(64);
    unsigned char* third = allocator->allocate(64);
    allocator->deallocate(third);
    allocator->deallocate(first);
    EXPECT_EQ(first, allocator->allocate(64));
    EXPECT_EQ(third, allocator->allocate(64));
    for (unsigned char* block : {first, second, third})
        allocator->deallocate(block);
}

TEST_F(CachedAllocatorTest, ABlockInUseIsNotGivenTwice) {
    std::set<unsigned char*> blocks;
    for (int i = 0; i < 20; ++i)
        blocks.insert(allocator->allocate(4096));
    EXPECT_EQ(20u, blocks.size());
    for (unsigned char* block : blocks)
        allocator->deallocate(block);
}

TEST_F(CachedAllocatorTest, SteadyUseAllocatesNothingMore) {
    for (int round = 0; round < 10; ++round) {
        unsigned char* one = allocator->allocate(5000);
        unsigned char* other = allocator->allocate(6000);
        allocator->deallocate(one);
        allocator->deallocate(other);
    }
    EXPECT_EQ(2u, system.allocations);
}

TEST_F(CachedAllocatorTest, DeallocatingAForeignPointerOnlyWarns) {
    unsigned char* block = allocator->allocate(16);
    int foreign = 0;
    {
        const LogCapture log;
        allocator->deallocate(&foreign);
        allocator->deallocate(block + 1);
        allocator->deallocate(nullptr);
        const std::string end = " -> pointer not in current allocations!";
        EXPECT_THAT(log.Lines(),
                    ElementsAre("CA:[dealloc] WARNING deallocate" + Address(&foreign) + end,
                                "CA:[dealloc] WARNING deallocate" + Address(block + 1) + end,
                                "CA:[dealloc] WARNING deallocate(0x(nil))" + end));
    }
    EXPECT_NE(block, allocator->allocate(16)) << "the block is still in use";
    EXPECT_EQ(2u, LinesOfDestruction().size());
}

TEST_F(CachedAllocatorTest, DeallocatingTwiceWarnsAndLeavesTheBlockFree) {
    unsigned char* block = allocator->allocate(16);
    const LogCapture log;
    allocator->deallocate(block);
    EXPECT_THAT(log.Lines(), ElementsAre());
    allocator->deallocate(block);
    EXPECT_THAT(log.Lines(),
                ElementsAre("CA:[dealloc] WARNING deallocate" + Address(block) +
                            " -> pointer was already marked as free, double deallocating?"));
    EXPECT_EQ(block, allocator->allocate(16));
    allocator->deallocate(block);
}

TEST_F(CachedAllocatorTest, DestructionWarnsOfABlockInUseByItsTaggedAddressAndFreesIt) {
    unsigned char* used = allocator->allocate(32);
    unsigned char* free_one = allocator->allocate(16);
    allocator->deallocate(free_one);
    system.releases = 0;
    EXPECT_THAT(LinesOfDestruction(), ElementsAre("CA destructor:WARNING allocation at " +
                                                  Address(used, 1) + " was not freed."));
    EXPECT_EQ(2u, system.releases);
}

TEST_F(CachedAllocatorTest, DestructionWarnsInTheOrderOfTheBins) {
    unsigned char* large = allocator->allocate(4096);
    unsigned char* small = allocator->allocate(16);
    unsigned char* second_small = allocator->allocate(16);
    const auto warning = [](const unsigned char* block) {
        return "CA destructor:WARNING allocation at " + Address(block, 1) + " was not freed.";
    };
    EXPECT_THAT(LinesOfDestruction(),
                ElementsAre(warning(small), warning(second_small), warning(large)));
}

TEST_F(CachedAllocatorTest, DestructionOfAnUnusedAllocatorSaysNothing) {
    EXPECT_THAT(LinesOfDestruction(), ElementsAre());
}

TEST_F(CachedAllocatorTest, FreeUnusedReleasesExactlyTheFreeBlocks) {
    unsigned char* used = allocator->allocate(64);
    unsigned char* free_one = allocator->allocate(64);
    unsigned char* free_large = allocator->allocate(1 << 20);
    allocator->deallocate(free_one);
    allocator->deallocate(free_large);
    system.releases = 0;
    allocator->free_unused();
    EXPECT_EQ(2u, system.releases);

    system.allocations = 0;
    unsigned char* fresh = allocator->allocate(64);
    EXPECT_EQ(1u, system.allocations);
    EXPECT_NE(used, fresh);
    allocator->deallocate(used);
    allocator->deallocate(fresh);
    EXPECT_THAT(LinesOfDestruction(), ElementsAre());
}

TEST_F(CachedAllocatorTest, ABlockThatIsGivenUpOutlivesTheAllocator) {
    unsigned char* block = allocator->allocate(16);
    block[15] = 7;
    const auto given = allocator->give_up(block);
    EXPECT_EQ(given.get(), block);
    {
        const LogCapture log;
        EXPECT_EQ(allocator->give_up(block), nullptr);
        EXPECT_THAT(log.Lines(), ElementsAre("CA:[give_up] WARNING give_up" + Address(block) +
                                             " -> pointer not in current allocations!"));
    }
    EXPECT_THAT(LinesOfDestruction(), ElementsAre());
    EXPECT_EQ(block[15], 7);
}

TEST_F(CachedAllocatorTest, AnOddAddressIsRefused) {
    system.mode = Heap::Mode::kOdd;
    const LogCapture log;
    try {
        allocator->allocate(16);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("CA:[allocate] new returned pointer is not 2 bytes aligned, can't use flag.",
                     error.what());
    }
    const std::string prefix = "CA:[allocate] new returned (0x0x";
    const auto lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(prefix, lines[0].substr(0, prefix.size()));
    const size_t end_of_address = lines[0].find(')');
    EXPECT_EQ(") pointer is not 2 bytes aligned, can't use flag.", lines[0].substr(end_of_address));
    // The block stays with the system's heap; nobody else could free it.
    const std::string digits = lines[0].substr(prefix.size(), end_of_address - prefix.size());
    __real__ZdaPv(reinterpret_cast<void*>(std::stoull(digits, nullptr, 16) - 1));
    EXPECT_EQ(0u, system.releases);
}

TEST_F(CachedAllocatorTest, ExhaustedMemoryIsThrownAndDisturbsNothing) {
    system.mode = Heap::Mode::kExhausted;
    EXPECT_THROW(allocator->allocate(1 << 20), std::bad_alloc);
    system.mode = Heap::Mode::kTiny;
    unsigned char* block = allocator->allocate(1 << 20);
    EXPECT_NE(nullptr, block);
    allocator->deallocate(block);
    EXPECT_THAT(LinesOfDestruction(), ElementsAre());
}

TEST_F(CachedAllocatorTest, ManyThreadsMayShareIt) {
    system.mode = Heap::Mode::kReal;
    std::vector<std::thread> threads;
    std::atomic<bool> torn{false};
    for (unsigned char id = 1; id <= 4; ++id) {
        threads.emplace_back([&, id] {
            for (int i = 0; i < 500; ++i) {
                unsigned char* block = allocator->allocate(64);
                std::fill_n(block, 64, id);
                if (std::any_of(block, block + 64,
                                [&](unsigned char byte) { return byte != id; })) {
                    torn = true;
                }
                allocator->deallocate(block);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(torn);
    EXPECT_THAT(LinesOfDestruction(), ElementsAre());
}

}  // namespace
