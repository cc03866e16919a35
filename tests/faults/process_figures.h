#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace kelo::test {

// What this process uses, as the kernel counts it.

// Threads whose name is the given one; of any name without it.
int CountThreads(const std::string& name = "");
// Milliseconds of processor time that the living threads of that name have used.
double ThreadCpuMs(const std::string& name);
int CountDescriptors();
int64_t ResidentKib();
// How many datagrams the UDP sockets on that local port have dropped since they were opened,
// because nobody took them in time.
uint64_t DatagramsDropped(uint16_t local_port);
// Bytes that wait in them.
uint64_t BytesWaiting(uint16_t local_port);

// ThreadSanitizer takes so long to begin a thread that a test with thousands of them takes a
// minute.
#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadsAreCostly = true;
#elif defined(__has_feature)
inline constexpr bool kThreadsAreCostly = __has_feature(thread_sanitizer);
#else
inline constexpr bool kThreadsAreCostly = false;
#endif

// Whether the long forms of tests are wanted, which the usual run leaves out.
inline bool Long() {
    return std::getenv("KELO_LONG_TESTS") != nullptr;
}

// Raises the limit of descriptors to what the system allows; whether that is at least so many.
bool AllowDescriptors(uint64_t count);

// A figure to be quoted, whose name says its unit: in the report of the test run, and on the
// terminal.
void State(const std::string& name, double value);

}  // namespace kelo::test
