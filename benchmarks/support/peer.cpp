#include "peer.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_camera.h"
#include "cpu.h"

namespace kelo::bench {
namespace {

constexpr size_t MESSAGE_SIZE = 64;

// Until the parent closes its end.
void Serve(int channel, BenchCamera& camera, const OrderHandler& handle) {
    pollfd ready[] = {{channel, POLLIN, 0}, {camera.Socket(), POLLIN, 0}};
    while (true) {
        poll(ready, 2, -1);
        if (ready[1].revents != 0) camera.AnswerOne();
        if (ready[0].revents == 0) continue;
        std::byte order[MESSAGE_SIZE];
        std::byte answer[MESSAGE_SIZE] = {};
        const ssize_t size = recv(channel, order, sizeof order, 0);
        if (size <= 0) return;
        handle({order, static_cast<size_t>(size)}, answer);
        send(channel, answer, sizeof answer, MSG_NOSIGNAL);
    }
}

int RunPeer(int channel, int core, size_t frame_size,
            const std::function<OrderHandler(const BenchCamera&)>& make_handler) try {
    PinToCore(core);
    BenchCamera camera(static_cast<uint32_t>(frame_size));
    const OrderHandler handle = make_handler(camera);
    const std::byte ready[MESSAGE_SIZE] = {};
    send(channel, ready, sizeof ready, MSG_NOSIGNAL);
    Serve(channel, camera, handle);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "camera's process: %s\n", error.what());
    return 1;
}

}  // namespace

Peer::Peer(int core, size_t frame_size,
           const std::function<OrderHandler(const BenchCamera&)>& make_handler) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
        close(ends[0]);
        _exit(RunPeer(ends[1], core, frame_size, make_handler));
    }
    close(ends[1]);
    channel_ = ends[0];
    std::byte ready[MESSAGE_SIZE];
    WaitBytes(ready);
}

Peer::~Peer() {
    close(channel_);
    waitpid(pid_, nullptr, 0);
}

bool Peer::Done() const {
    pollfd ready = {channel_, POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
}

void Peer::BeginBytes(std::span<const std::byte> order) {
    if (send(channel_, order.data(), order.size(), MSG_NOSIGNAL) < 0) {
        throw std::runtime_error("the camera's process is gone");
    }
}

void Peer::WaitBytes(std::span<std::byte> answer) {
    // A longer message is cut to the answer's size.
    if (recv(channel_, answer.data(), answer.size(), 0) <= 0) {
        throw std::runtime_error("the camera's process is gone");
    }
}

}  // namespace kelo::bench
