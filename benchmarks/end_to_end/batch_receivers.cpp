// The loops that take many datagrams with a system call.
#include <algorithm>
#include <ctime>

#include <sys/prctl.h>

#include "../support/cpu.h"
#include "frame_assembler.h"
#include "loop_receiver.h"
#include "message_batch.h"

namespace kelo::bench {
namespace {

// More would leave the cache between the kernel's copy and ours.
constexpr size_t MESSAGES = 32;
constexpr size_t DATAGRAM_MAX = 9216;
// Merged messages are larger, so fewer of them stay in the cache.
constexpr size_t MERGED_MESSAGES = 8;
constexpr size_t MERGED_MAX = 65536;

class DropReceiver final : public LoopReceiver {
public:
    DropReceiver() : batch_(MESSAGES, DATAGRAM_MAX) { socket_.SetReceiveTimeout(); }

private:
    void BeginRun(Latencies&) override { counts_ = {}; }
    const Received& Counts() const override { return counts_; }
    bool Receive() override {
        const size_t count = batch_.Receive(socket_.Get());
        for (size_t i = 0; i < count; ++i)
            counts_.bytes += batch_.Size(i) - IMAGE_HEADER_SIZE;
        counts_.datagrams += count;
        return count != 0;
    }

    MessageBatch batch_;
    Received counts_;
};

// Merged where the kernel merges, in batches, copied to the place. Nothing that we tried is better
// over all kinds of traffic.
class FloorReceiver : public LoopReceiver {
public:
    explicit FloorReceiver(const ReceiverSetup& setup) : frames_(setup), batch_(MakeBatch()) {
        socket_.SetReceiveTimeout();
    }

protected:
    void BeginRun(Latencies& latencies) override { frames_.Begin(latencies); }
    const Received& Counts() const override { return frames_.Counts(); }
    bool Receive() override { return TakeBatch() != 0; }

    size_t TakeBatch() {
        const size_t count = batch_.Receive(socket_.Get());
        for (size_t i = 0; i < count; ++i)
            TakeMessage(i);
        return count;
    }

    FrameAssembler frames_;
    MessageBatch batch_;

private:
    MessageBatch MakeBatch() const {
        return socket_.AllowMerging() ? MessageBatch(MERGED_MESSAGES, MERGED_MAX)
                                      : MessageBatch(MESSAGES, DATAGRAM_MAX);
    }
    void TakeMessage(size_t i) {
        const size_t size = batch_.Size(i);
        const size_t segment = batch_.SegmentSize(i);
        for (size_t at = 0; at < size; at += segment) {
            frames_.Take(batch_.Sender(i), batch_.Bytes(i) + at, std::min(segment, size - at));
        }
    }
};

// Having emptied the queue, it sleeps a moment when at least a few packets are due in that time and
// the image's end is farther away: fewer wake-ups where packets come one by one.
class ModeratedReceiver final : public FloorReceiver {
public:
    explicit ModeratedReceiver(const ReceiverSetup& setup) : FloorReceiver(setup) {
        // Timers of this thread are as exact as they can be.
        prctl(PR_SET_TIMERSLACK, 1);
    }

private:
    static constexpr double PAUSE_NS = 100e3;
    static constexpr double PACKETS_MIN = 4;

    bool Receive() override {
        const size_t count = TakeBatch();
        if (count == 0) return false;
        const uint32_t taken = frames_.PacketsTaken();
        if (taken < last_taken_ || taken == frames_.PacketsOfImage()) {
            begin_ns_ = 0;
        }
        last_taken_ = taken;
        if (count < batch_.Capacity() && PauseFits(taken)) Pause();
        return true;
    }

    // The rate is that of the image so far.
    bool PauseFits(uint32_t taken) {
        if (taken == frames_.PacketsOfImage()) return false;
        const auto now = static_cast<double>(NowNs());
        if (begin_ns_ == 0) {
            begin_ns_ = now;
            begin_taken_ = taken;
            return false;
        }
        if (taken <= begin_taken_) return false;
        const double interval_ns = (now - begin_ns_) / (taken - begin_taken_);
        const double left_ns = (frames_.PacketsOfImage() - taken) * interval_ns;
        return interval_ns * PACKETS_MIN <= PAUSE_NS && left_ns > PAUSE_NS;
    }

    static void Pause() {
        const timespec time = {0, static_cast<long>(PAUSE_NS)};
        nanosleep(&time, nullptr);
    }

    double begin_ns_ = 0;  // of the image; 0: not known
    uint32_t begin_taken_ = 0;
    uint32_t last_taken_ = 0;
};

// A socket that nobody reads: what sending costs by itself. Its buffer is full after a while, and
// stays so. Merged messages need not be split for it, as for any that takes them merged.
class UnreadReceiver final : public Receiver {
public:
    UnreadReceiver() { socket_.AllowMerging(); }
    uint16_t Port() const override { return socket_.Port(); }
    std::vector<pid_t> Threads() const override { return {gettid()}; }
    Received Run(const SenderDone& done, Latencies&) override {
        const timespec moment = {0, 10'000'000};
        while (!done())
            nanosleep(&moment, nullptr);
        return {};
    }

private:
    const BoundSocket socket_;
};

}  // namespace

std::unique_ptr<Receiver> MakeDropReceiver() {
    return std::make_unique<DropReceiver>();
}

std::unique_ptr<Receiver> MakeFloorReceiver(const ReceiverSetup& setup) {
    return std::make_unique<FloorReceiver>(setup);
}

std::unique_ptr<Receiver> MakeModeratedReceiver(const ReceiverSetup& setup) {
    return std::make_unique<ModeratedReceiver>(setup);
}

std::unique_ptr<Receiver> MakeUnreadReceiver() {
    return std::make_unique<UnreadReceiver>();
}

}  // namespace kelo::bench
