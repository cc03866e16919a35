#pragma once

namespace kelo::test {

// How much is refused: one thing, or everything from there on.
enum class Extent { kOne, kAllFromThere };

// False with a sanitizer of clang's, which owns every way to memory.
bool MemoryCanBeRefused();

// For its own lifetime, the calling thread does not get the nth piece of memory, counted from 1,
// that it asks for. With a sanitizer, which has an allocator of its own, that goes for operator new
// only.
class NoMemory {
public:
    NoMemory(int nth, Extent extent);
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;

    // Whether it came to that.
    static bool Happened();
};

// For its own lifetime, no thread but the calling one gets any memory.
class NoMemoryForOthers {
public:
    NoMemoryForOthers();
    ~NoMemoryForOthers();
    NoMemoryForOthers(const NoMemoryForOthers&) = delete;
    NoMemoryForOthers& operator=(const NoMemoryForOthers&) = delete;

    // How many times something was refused.
    static int Count();
};

// For its own lifetime, the calling thread cannot start the nth thread.
class NoThread {
public:
    NoThread(int nth, Extent extent);
    ~NoThread();
    NoThread(const NoThread&) = delete;
    NoThread& operator=(const NoThread&) = delete;

    static bool Happened();
};

// For its own lifetime, every other call by which a thread sends, receives or waits on a
// descriptor, counted for each function, fails as if a signal had come.
class Interruptions {
public:
    Interruptions();
    ~Interruptions();
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    static int Count();
};

}  // namespace kelo::test
