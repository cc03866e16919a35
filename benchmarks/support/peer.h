#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include "bench_camera.h"
#include "child_process.h"

namespace kelo::bench {

// Answers one order of the parent's; runs in the peer.
using OrderHandler =
    std::function<void(std::span<const std::byte> order, std::span<std::byte> answer)>;

// The other process: the camera's side of a measurement, pinned to a core of its own, so that
// processor time of this process is the client's alone. It answers control requests whenever it
// does not carry out an order, and ends when this object does.
class Peer {
public:
    // Forks, so call it before any thread exists. make_handler runs in the new process.
    Peer(int core, const CameraSetup& cameras,
         const std::function<OrderHandler(BenchCamera&)>& make_handler);

    pid_t Pid() const { return process_.Pid(); }

    template <typename Order>
    void Begin(const Order& order) {
        process_.Send(order);
    }
    // Whether the order is done, without waiting.
    bool Done() const { return process_.Ready(); }
    // Waits until the order is done.
    template <typename Answer>
    Answer Wait(double seconds = 60) {
        return process_.Receive<Answer>(seconds);
    }

private:
    ChildProcess process_;
};

}  // namespace kelo::bench
