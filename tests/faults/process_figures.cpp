#include "process_figures.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kelo::test {
namespace {

namespace fs = std::filesystem;

// use(folder of the thread) for every thread of that name; threads may end meanwhile.
template <typename Use>
void ForEachThread(const std::string& name, const Use& use) {
    std::error_code gone;
    for (const auto& entry : fs::directory_iterator("/proc/self/task", gone)) {
        std::string comm;
        std::getline(std::ifstream(entry.path() / "comm"), comm);
        if (!comm.empty() && (name.empty() || comm == name)) use(entry.path());
    }
}

// use(dropped datagrams, bytes that wait) for every UDP socket on the port.
template <typename Use>
void ForEachSocket(uint16_t local_port, const Use& use) {
    std::ifstream table("/proc/self/net/udp");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        unsigned port = 0;
        unsigned waiting = 0;
        const bool parsed =
            sscanf(line.c_str(), " %*d: %*x:%x %*x:%*x %*x %*x:%x", &port, &waiting) == 2;
        if (!parsed || port != local_port) continue;
        // The last column.
        const size_t end = line.find_last_not_of(' ');
        use(std::stoull(line.substr(line.find_last_of(' ', end))), waiting);
    }
}

}  // namespace

int CountThreads(const std::string& name) {
    int count = 0;
    ForEachThread(name, [&](const fs::path&) { ++count; });
    return count;
}

double ThreadCpuMs(const std::string& name) {
    double ns = 0;
    ForEachThread(name, [&](const fs::path& folder) {
        double of_thread = 0;
        std::ifstream(folder / "schedstat") >> of_thread;
        ns += of_thread;
    });
    return ns / 1e6;
}

int CountDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd"))
        ++count;
    return count - 1;  // the folder's own
}

int64_t ResidentKib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6));
    }
    return 0;
}

uint64_t DatagramsDropped(uint16_t local_port) {
    uint64_t sum = 0;
    ForEachSocket(local_port, [&](uint64_t dropped, uint64_t) { sum += dropped; });
    return sum;
}

uint64_t BytesWaiting(uint16_t local_port) {
    uint64_t sum = 0;
    ForEachSocket(local_port, [&](uint64_t, uint64_t waiting) { sum += waiting; });
    return sum;
}

bool AllowDescriptors(uint64_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max >= count;
}

void State(const std::string& name, double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.6g", value);
    testing::Test::RecordProperty(name, text);
    // Standard output is what the library logs to, and is captured.
    fprintf(stderr, "[  FIGURE  ] %s: %s\n", name.c_str(), text);
}

}  // namespace kelo::test
