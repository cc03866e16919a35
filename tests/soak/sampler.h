#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace kelo::soak {

// What this process holds at one moment.
struct Usage {
    uint64_t resident_kb = 0;
    uint64_t heap_kb = 0;  // given out by malloc
    uint32_t descriptors = 0;
    uint32_t threads = 0;
};
Usage MeasureUsage();

// User and system time in seconds, of this process and of another.
double ProcessorSeconds(pid_t other);

struct Sample {
    double seconds = 0;
    bool at_rest = false;
    Usage usage;
};

// Writes a line of the CSV file per second, and one whenever the library is at rest. Keeps the
// latter for the verdict.
class Sampler {
public:
    explicit Sampler(const std::string& path);
    ~Sampler();
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;

    enum class Latency { kRead, kWait };
    void Took(Latency what, std::chrono::steady_clock::duration time);
    void CountImages(uint64_t images) { images_ += images; }
    void CountStep() { ++steps_; }
    void CountDisturbed() { ++disturbed_; }
    uint64_t Images() const { return images_; }
    uint64_t Steps() const { return steps_; }
    uint64_t Disturbed() const { return disturbed_; }
    uint64_t Reads() const { return reads_; }

    // Nothing of the library runs now.
    void AtRest(const Usage& usage);
    const std::vector<Sample>& Rests() const { return rests_; }
    double Seconds() const;

private:
    void Run();
    void Write(const Sample& sample);

    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::FILE* const file_;
    std::atomic<uint64_t> images_{0};
    std::atomic<uint64_t> steps_{0};
    std::atomic<uint64_t> disturbed_{0};
    std::atomic<uint64_t> reads_{0};
    std::vector<Sample> rests_;
    std::mutex mutex_;  // guards the file and the latencies
    std::condition_variable wake_;
    bool stop_ = false;
    std::array<std::vector<double>, 2> latencies_;  // since the last line, in microseconds
    std::thread thread_;                            // last: it uses the others
};

}  // namespace kelo::soak
