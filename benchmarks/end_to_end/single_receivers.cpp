// The loops that take one datagram with a system call.
#include <poll.h>

#include "frame_assembler.h"
#include "loop_receiver.h"

namespace kelo::bench {
namespace {

// One recvfrom, and the payload to its place.
class SingleReceiver : public LoopReceiver {
public:
    explicit SingleReceiver(const ReceiverSetup& setup) : frames_(setup) {}

protected:
    void BeginRun(Latencies& latencies) override { frames_.Begin(latencies); }
    const Received& Counts() const override { return frames_.Counts(); }

    bool TakeOne(int flags) {
        sockaddr_in sender;
        socklen_t sender_size = sizeof sender;
        const ssize_t size = recvfrom(socket_.Get(), datagram_, sizeof datagram_, flags,
                                      reinterpret_cast<sockaddr*>(&sender), &sender_size);
        if (size < static_cast<ssize_t>(IMAGE_HEADER_SIZE)) return false;
        frames_.Take(ntohl(sender.sin_addr.s_addr), datagram_, static_cast<size_t>(size));
        return true;
    }

private:
    FrameAssembler frames_;
    std::byte datagram_[16384]{};
};

// Waits for each datagram before it takes it.
class PlainReceiver final : public SingleReceiver {
    using SingleReceiver::SingleReceiver;

    bool Receive() override {
        pollfd readable = {socket_.Get(), POLLIN, 0};
        return poll(&readable, 1, static_cast<int>(QUIET_SECONDS * 1e3)) > 0 &&
               TakeOne(MSG_DONTWAIT);
    }
};

// Waits in the receiving call itself.
class BlockingReceiver final : public SingleReceiver {
public:
    explicit BlockingReceiver(const ReceiverSetup& setup) : SingleReceiver(setup) {
        socket_.SetReceiveTimeout();
    }

private:
    bool Receive() override { return TakeOne(0); }
};

}  // namespace

std::unique_ptr<Receiver> MakePlainReceiver(const ReceiverSetup& setup) {
    return std::make_unique<PlainReceiver>(setup);
}

std::unique_ptr<Receiver> MakeBlockingReceiver(const ReceiverSetup& setup) {
    return std::make_unique<BlockingReceiver>(setup);
}

}  // namespace kelo::bench
