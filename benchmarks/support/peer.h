#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include <sys/types.h>

namespace kelo::bench {

// Answers one order of the parent's; runs in the peer.
using OrderHandler =
    std::function<void(std::span<const std::byte> order, std::span<std::byte> answer)>;

class BenchCamera;

// The other process: the camera's side of a measurement, pinned to a core of its own, so that
// processor time of this process is the client's alone. It answers control requests whenever it
// does not carry out an order, and ends when this object does.
class Peer {
public:
    // Forks, so call it before any thread exists. make_handler runs in the new process.
    Peer(int core, size_t frame_size,
         const std::function<OrderHandler(const BenchCamera&)>& make_handler);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    template <typename Order>
    void Begin(const Order& order) {
        BeginBytes(std::as_bytes(std::span(&order, 1)));
    }
    // Whether the order is done, without waiting.
    bool Done() const;
    // Waits until the order is done.
    template <typename Answer>
    Answer Wait() {
        Answer answer{};
        WaitBytes(std::as_writable_bytes(std::span(&answer, 1)));
        return answer;
    }

private:
    void BeginBytes(std::span<const std::byte> order);
    void WaitBytes(std::span<std::byte> answer);

    int channel_;
    pid_t pid_;
};

}  // namespace kelo::bench
