#include "utils.h"

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <execinfo.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include "SigpipeBlock.h"

std::atomic<bool> log_enable{true};
std::atomic<int> alog_counter{0};
std::atomic<int> amark_was_here{0};

uint64_t vc_get_time_msec() {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        perror("vc_get_time_msec: gettimeofday failed.");
        exit(1);
    }
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

void print_backtrace() {
    constexpr int kFramesMax = 256;
    std::array<void*, kFramesMax> frames{};
    const int count = backtrace(frames.data(), kFramesMax);
    fflush(stdout);
    backtrace_symbols_fd(frames.data(), count, STDOUT_FILENO);
}

namespace kelo {

void Logging(bool enable) {
    log_enable = enable;
}

void Log(const char* format, ...) {
    const bool behind_mark = amark_was_here.exchange(0) != 0;
    const int number = ++alog_counter;
    const bool print = log_enable;
    // To stand a lost reader takes system calls: none for a line that is not printed.
    if (!behind_mark && !print && __fpending(stdout) == 0) return;
    const SigpipeBlock output_may_be_gone;
    if (behind_mark) fputc('\n', stderr);
    if (print) {
        va_list arguments;
        va_start(arguments, format);
        // Held over both calls, so that no other thread's line falls in between.
        flockfile(stdout);
        printf("%d: ", number);
        vprintf(format, arguments);
        funlockfile(stdout);
        va_end(arguments);
    }
    fflush(stdout);
}

void ShowMessage(StrArg title, StrArg text) {
    Log("%s: %s\n", title.c_str(), text.c_str());
}

void Sleep(int ms) {
    if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void NameThisThread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

void WakeThisThreadOnTime() {
    constexpr unsigned long kSlackNs = 1000;
    prctl(PR_SET_TIMERSLACK, kSlackNs, 0, 0, 0);
}

}  // namespace kelo
