#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace kelo::bench {

// Bytes of memory that the process has now, and the most that it had since ForgetPeakMemory.
double MemoryNow();
double PeakMemory();
void ForgetPeakMemory();

// The largest receive buffer among the process's UDP sockets.
double LargestReceiveBuffer();

// Instructions that threads of this process execute, in user space and in the kernel.
class InstructionCounter {
public:
    explicit InstructionCounter(const std::vector<pid_t>& threads);
    ~InstructionCounter();
    InstructionCounter(const InstructionCounter&) = delete;
    InstructionCounter& operator=(const InstructionCounter&) = delete;

    // So far; not a number where the machine does not count them or does not let us.
    double Count() const;

private:
    std::vector<int> counters_;
};

// Looks at the memory and the page faults of the process while it works.
class MemorySampler {
public:
    MemorySampler(double interval_seconds, double duration_seconds);
    ~MemorySampler();
    MemorySampler(const MemorySampler&) = delete;
    MemorySampler& operator=(const MemorySampler&) = delete;

    // Ends it. The rest is valid afterwards.
    void Stop();
    double First() const { return samples_.empty() ? 0 : samples_.front(); }
    double Last() const { return samples_.empty() ? 0 : samples_.back(); }
    double Largest() const;
    // Minor faults since a third of the duration was over.
    double LateFaults() const { return late_faults_; }

private:
    void Run(double interval_seconds, double duration_seconds);

    std::atomic<bool> stop_{false};
    std::vector<double> samples_;
    double late_faults_ = 0;
    std::thread thread_;
};

// Minor page faults of the process so far.
double MinorFaults();

}  // namespace kelo::bench
