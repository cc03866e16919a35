#pragma once

#include <cstddef>
#include <cstdint>

#include "sanitizers.h"

namespace kelo::test {

// The memory that operator new gives to this whole process, the library included: blocks of one
// size are counted, and blocks above a size can be refused.
class WatchedMemory {
public:
    // The thread sanitizer does not give its own operators away.
#if defined(KELO_WITH_THREAD_SANITIZER)
    static constexpr bool kAvailable = false;
#else
    static constexpr bool kAvailable = true;
#endif

    // Blocks of size bytes count from now on.
    static void Watch(size_t size);
    // How many of them are in use.
    static int64_t BlocksInUse();

    // For its lifetime there are no blocks of that size or larger to be had.
    class Refusal {
    public:
        explicit Refusal(size_t size);
        ~Refusal();
        Refusal(const Refusal&) = delete;
        Refusal& operator=(const Refusal&) = delete;
    };
};

}  // namespace kelo::test
