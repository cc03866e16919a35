#include "sampler.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kelo::soak {
namespace {

uint32_t CountEntries(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<uint32_t>(std::distance(begin(entries), end(entries)));
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Sorts the values; the one that the share of them does not exceed, 0 without any.
double Quantile(std::vector<double>& values, double share) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

}  // namespace

Usage MeasureUsage() {
    Usage usage;
    std::ifstream statm("/proc/self/statm");
    uint64_t pages = 0;
    statm >> pages >> pages;
    usage.resident_kb = pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
    statm.close();
    const struct mallinfo2 heap = mallinfo2();
    usage.heap_kb = (heap.uordblks + heap.hblkhd) / 1024;
    usage.descriptors = CountEntries("/proc/self/fd") - 1;  // the one that reads the folder
    usage.threads = CountEntries("/proc/self/task");
    return usage;
}

double ProcessorSeconds(pid_t other) {
    rusage own{};
    getrusage(RUSAGE_SELF, &own);
    std::ifstream file("/proc/" + std::to_string(other) + "/stat");
    std::string line;
    std::getline(file, line);
    // The fields behind the name, which may hold anything: user and system time are the 12th and
    // 13th.
    uint64_t user = 0;
    uint64_t system = 0;
    const size_t name_end = line.rfind(')');
    if (name_end != std::string::npos) {
        std::sscanf(line.c_str() + name_end + 1,
                    " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &system);
    }
    return soak::Seconds(own.ru_utime) + soak::Seconds(own.ru_stime) +
           static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

Sampler::Sampler(const std::string& path) : file_(std::fopen(path.c_str(), "we")) {
    if (file_ == nullptr) throw std::runtime_error("cannot write " + path);
    std::fputs(
        "seconds,at_rest,resident_kb,heap_kb,descriptors,threads,steps,disturbed,images,"
        "reads,read_p50_us,read_p99_us,read_max_us,wait_p50_us,wait_p99_us,wait_max_us\n",
        file_);
    // At once, so that the samples themselves do not make the heap grow.
    constexpr size_t kRests = 8192;
    constexpr size_t kLatencies = 4096;
    rests_.reserve(kRests);
    for (auto& values : latencies_)
        values.reserve(kLatencies);
    thread_ = std::thread([this] { Run(); });
}

Sampler::~Sampler() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
    std::fclose(file_);
}

double Sampler::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
}

void Sampler::Took(Latency what, std::chrono::steady_clock::duration time) {
    if (what == Latency::kRead) ++reads_;
    const std::lock_guard lock(mutex_);
    latencies_[static_cast<size_t>(what)].push_back(
        std::chrono::duration<double, std::micro>(time).count());
}

void Sampler::AtRest(const Usage& usage) {
    const Sample sample{.seconds = Seconds(), .at_rest = true, .usage = usage};
    rests_.push_back(sample);
    const std::lock_guard lock(mutex_);
    Write(sample);
}

void Sampler::Run() {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::seconds(1), [this] { return stop_; })) {
        Write({.seconds = Seconds(), .at_rest = false, .usage = MeasureUsage()});
    }
}

void Sampler::Write(const Sample& sample) {
    std::fprintf(file_, "%.3f,%d,%lu,%lu,%u,%u,%lu,%lu,%lu,%lu", sample.seconds,
                 sample.at_rest ? 1 : 0, sample.usage.resident_kb, sample.usage.heap_kb,
                 sample.usage.descriptors, sample.usage.threads, steps_.load(), disturbed_.load(),
                 images_.load(), reads_.load());
    for (auto& values : latencies_) {
        std::fprintf(file_, ",%.0f,%.0f,%.0f", Quantile(values, 0.5), Quantile(values, 0.99),
                     Quantile(values, 1));
        values.clear();
    }
    std::fputc('\n', file_);
    std::fflush(file_);
}

}  // namespace kelo::soak
