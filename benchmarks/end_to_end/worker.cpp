#include "worker.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>

#include <sys/resource.h>

#include "../support/cpu.h"
#include "process_usage.h"
#include "refuse_merging.h"

namespace kelo::bench {
namespace {

constexpr double READY_SECONDS = 30;
// Runs at least this long have their memory looked at.
constexpr double SAMPLED_SECONDS = 3;
constexpr double SAMPLES = 30;
constexpr double SAMPLE_INTERVAL_MAX = 10;

struct Answer {
    char error[400] = {};  // empty: none
    RunResult result;
};
static_assert(sizeof(Answer) <= Channel::MESSAGE_SIZE);

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// What the process and the receiving threads have used so far.
struct Usage {
    rusage process{};
    double thread_ns = 0;
    double instructions = 0;

    Usage(const std::vector<pid_t>& threads, const InstructionCounter& counter) {
        getrusage(RUSAGE_SELF, &process);
        for (const pid_t thread : threads)
            thread_ns += static_cast<double>(ThreadCpuNs(thread));
        instructions = counter.Count();
    }
};

void StoreUsage(const Usage& before, const Usage& after, RunResult& result) {
    result.thread_cpu_ns = after.thread_ns - before.thread_ns;
    result.instructions = after.instructions - before.instructions;
    result.user_seconds = Seconds(after.process.ru_utime) - Seconds(before.process.ru_utime);
    result.system_seconds = Seconds(after.process.ru_stime) - Seconds(before.process.ru_stime);
    result.minor_faults = static_cast<double>(after.process.ru_minflt - before.process.ru_minflt);
}

void StoreArrivals(const Received& received, const Latencies& latencies, RunResult& result) {
    result.seconds = std::max(received.seconds, result.sent.seconds);
    result.bytes = received.bytes;
    result.datagrams = received.datagrams;
    result.whole_images = received.whole_images;
    result.images_in_flight = received.images_in_flight;
    if (latencies.Empty()) return;
    result.latency_p50_us = latencies.QuantileUs(0.5);
    result.latency_p99_us = latencies.QuantileUs(0.99);
}

class Work {
public:
    Work(const std::string& name, const ReceiverSetup& setup, Peer& cameras)
        : cameras_(cameras), memory_before_(MemoryNow()), receiver_(MakeReceiver(name, setup)) {
        if (receiver_ == nullptr) throw std::invalid_argument("no such receiver: " + name);
    }

    RunResult Run(Order order) {
        order.to_port = receiver_->Port();
        order.to_address = order.to_port == 0 ? 0 : order.to_address;
        order.tcp_tag = receiver_->TcpTag();
        latencies_.Clear();
        const std::vector<pid_t> threads = receiver_->Threads();
        const InstructionCounter counter(threads);
        std::optional<MemorySampler> sampler;
        if (order.seconds >= SAMPLED_SECONDS) {
            sampler.emplace(std::min(order.seconds / SAMPLES, SAMPLE_INTERVAL_MAX), order.seconds);
        }
        const Usage before(threads, counter);
        cameras_.Begin(order);
        receiver_->Begin();
        const Received received = receiver_->Run([this] { return cameras_.Done(); }, latencies_);
        // Before the figures are worked out, which takes memory of its own.
        if (sampler) sampler->Stop();
        RunResult result;
        StoreUsage(before, Usage(threads, counter), result);
        result.sent = cameras_.Wait<Sent>();
        result.peak_bytes = PeakMemory() - memory_before_;
        StoreArrivals(received, latencies_, result);
        result.receive_buffer = LargestReceiveBuffer();
        if (sampler) StoreSamples(*sampler, result);
        return result;
    }

private:
    void StoreSamples(const MemorySampler& sampler, RunResult& result) const {
        result.rss_first = sampler.First() - memory_before_;
        result.rss_last = sampler.Last() - memory_before_;
        result.rss_max = sampler.Largest() - memory_before_;
        const double late_images = static_cast<double>(result.sent.images) * 2 / 3;
        result.late_faults_per_image = sampler.LateFaults() / std::max(late_images, 1.0);
    }

    Peer& cameras_;
    Latencies latencies_;
    const double memory_before_;
    const std::unique_ptr<Receiver> receiver_;
};

template <typename Function>
void AnswerWith(const Channel& channel, Function function) {
    Answer answer;
    try {
        function(answer);
    } catch (const std::exception& error) {
        std::snprintf(answer.error, sizeof answer.error, "%s", error.what());
    }
    channel.SendBytes(std::as_bytes(std::span(&answer, 1)));
}

void RunWorker(const Channel& channel, const std::string& name, const ReceiverSetup& setup,
               Peer& cameras) {
    std::unique_ptr<Work> work;
    AnswerWith(channel, [&](Answer&) { work = std::make_unique<Work>(name, setup, cameras); });
    Order order;
    while (channel.ReceiveBytes(std::as_writable_bytes(std::span(&order, 1)))) {
        AnswerWith(channel, [&](Answer& answer) { answer.result = work->Run(order); });
    }
}

}  // namespace

Worker::Worker(const std::string& name, const ReceiverSetup& setup, int core, Peer& cameras)
    : name_(name), process_(std::make_unique<ChildProcess>("receiver", [&](Channel& channel) {
          PinToCore(core);
          ForgetPeakMemory();
          if (!setup.merging) RefuseMerging();
          RunWorker(channel, name, setup, cameras);
      })) {
    Wait(READY_SECONDS);
}

RunResult Worker::Wait(double seconds) const {
    const auto answer = process_->Receive<Answer>(seconds);
    if (answer.error[0] != '\0') throw std::runtime_error(name_ + ": " + answer.error);
    return answer.result;
}

}  // namespace kelo::bench
