#pragma once

// Helpers that every other part of the library uses: log lines, clock, text and locking helpers,
// byte order. All functions may be called from any thread.

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include "Str.h"
#include "StrArg.h"

// When false, log lines are counted but not printed.
extern std::atomic<bool> log_enable;
// The number of the last log line.
extern std::atomic<int> alog_counter;
// When non-zero, the next log line first ends the line on standard error. Nothing in the library
// sets it: it is there for a host that writes a progress mark without a line end.
extern std::atomic<int> amark_was_here;

// Wall-clock milliseconds. Ends the process with status 1 if the system has no time to give.
uint64_t vc_get_time_msec();

// Writes up to 256 frames of the calling thread's stack to standard output.
void print_backtrace();

// Unconditional byte swaps between the wire (big-endian) and the host (little-endian).
constexpr unsigned int kelo_ntohl(unsigned int value) {
    return __builtin_bswap32(value);
}
constexpr unsigned int kelo_htonl(unsigned int value) {
    return __builtin_bswap32(value);
}
constexpr unsigned short kelo_ntohs(unsigned short value) {
    return __builtin_bswap16(value);
}
constexpr unsigned short kelo_htons(unsigned short value) {
    return kelo_ntohs(value);
}

namespace kelo {

// Switches the printing of log lines on or off.
void Logging(bool enable);

// Prints one log line: the running number of the call, ": ", and the text, then flushes standard
// output. The number also counts the lines that are not printed, so that a gap tells how many were
// left out. The text ends with its own newline.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One log line "title: text".
void ShowMessage(StrArg title, StrArg text);

// A signal does not cut it short.
void Sleep(int ms);

// Names the calling thread for debuggers and system tools; at most 15 characters.
void NameThisThread(const char* name);

// Lets the calling thread's sleeps end when they should, where the system would otherwise add some
// 50 microseconds to gather timers.
void WakeThisThreadOnTime();

// Locks a recursive mutex for its own lifetime. The text labels the place for whoever looks at the
// process with a debugger. It is borrowed: a copy would need memory, and what closes a camera or
// ends a run must not fail for want of it.
class TScopedLock {
public:
    TScopedLock(std::recursive_mutex& mutex, StrArg text) : Mutex(&mutex), Text(text) {
        Mutex->lock();
    }
    ~TScopedLock() { Mutex->unlock(); }
    TScopedLock(const TScopedLock&) = delete;
    TScopedLock& operator=(const TScopedLock&) = delete;

private:
    std::recursive_mutex* Mutex;
    StrArg Text;
};

// Copies a wire record out of length bytes at data. What the bytes do not reach reads as zero, so
// that a short datagram never shows memory that does not belong to it.
template <typename Record>
Record CopyRecord(const void* data, size_t length) {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record{};
    // An empty datagram may come with no address at all.
    if (length > 0) std::memcpy(&record, data, length < sizeof(record) ? length : sizeof(record));
    return record;
}

}  // namespace kelo
