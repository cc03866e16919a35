#pragma once

#include <unistd.h>

#include "bound_socket.h"
#include "receiver.h"

namespace kelo::bench {

// A bare loop around a socket, in the thread that runs it.
class LoopReceiver : public Receiver {
public:
    uint16_t Port() const override { return socket_.Port(); }
    std::vector<pid_t> Threads() const override { return {gettid()}; }
    Received Run(const SenderDone& done, Latencies& latencies) override;

protected:
    // Waits for a datagram and takes in what has come; false when none came for QUIET_SECONDS.
    virtual bool Receive() = 0;
    virtual void BeginRun(Latencies& latencies) = 0;
    virtual const Received& Counts() const = 0;

    const BoundSocket socket_;
};

}  // namespace kelo::bench
