#include "process_usage.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <string>

#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "../support/cpu.h"

namespace kelo::bench {
namespace {

constexpr int DESCRIPTORS = 1024;

// A field of /proc/self/status that is given in kB, in bytes. The stream's buffer is on the stack:
// its own would be new pages again and again, among the page faults that are counted.
double StatusBytes(const std::string& name) {
    std::array<char, 4096> buffer;
    std::ifstream status;
    status.rdbuf()->pubsetbuf(buffer.data(), buffer.size());
    status.open("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1)) * 1024;
    }
    return 0;
}

int OpenInstructionCounter(pid_t thread) {
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_HARDWARE;
    attributes.config = PERF_COUNT_HW_INSTRUCTIONS;
    attributes.exclude_hv = 1;
    return static_cast<int>(
        syscall(SYS_perf_event_open, &attributes, thread, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

}  // namespace

double MemoryNow() {
    return StatusBytes("VmRSS");
}

double PeakMemory() {
    return StatusBytes("VmHWM");
}

void ForgetPeakMemory() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

double LargestReceiveBuffer() {
    int largest = 0;
    for (int fd = 0; fd < DESCRIPTORS; ++fd) {
        int type = 0;
        int domain = 0;
        int size = 0;
        socklen_t length = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_DGRAM)
            continue;
        getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length);
        if (domain != AF_INET) continue;
        getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
        largest = std::max(largest, size);
    }
    return largest;
}

double MinorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_minflt);
}

InstructionCounter::InstructionCounter(const std::vector<pid_t>& threads) {
    for (const pid_t thread : threads)
        counters_.push_back(OpenInstructionCounter(thread));
}

InstructionCounter::~InstructionCounter() {
    for (const int counter : counters_) {
        if (counter >= 0) close(counter);
    }
}

double InstructionCounter::Count() const {
    double sum = 0;
    for (const int counter : counters_) {
        uint64_t value = 0;
        if (counter < 0 || read(counter, &value, sizeof value) != sizeof value) {
            return std::numeric_limits<double>::quiet_NaN();
        }
        sum += static_cast<double>(value);
    }
    return sum;
}

MemorySampler::MemorySampler(double interval_seconds, double duration_seconds)
    : thread_([=, this] { Run(interval_seconds, duration_seconds); }) {}

MemorySampler::~MemorySampler() {
    Stop();
}

void MemorySampler::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

double MemorySampler::Largest() const {
    return samples_.empty() ? 0 : *std::max_element(samples_.begin(), samples_.end());
}

void MemorySampler::Run(double interval_seconds, double duration_seconds) {
    samples_.reserve(static_cast<size_t>(duration_seconds / interval_seconds) + 64);
    const double start = Now();
    double next = start + interval_seconds;
    double early_faults = -1;
    while (!stop_) {
        usleep(10'000);
        if (early_faults < 0 && Now() > start + duration_seconds / 3) early_faults = MinorFaults();
        if (Now() < next) continue;
        next += interval_seconds;
        samples_.push_back(MemoryNow());
    }
    late_faults_ = early_faults < 0 ? 0 : MinorFaults() - early_faults;
}

}  // namespace kelo::bench
