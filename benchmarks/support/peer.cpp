#include "peer.h"

#include <cstdint>

#include <poll.h>

#include "cpu.h"

namespace kelo::bench {
namespace {

// Until the parent closes its end.
void Serve(const Channel& channel, BenchCamera& camera, const OrderHandler& handle) {
    pollfd ready[] = {{channel.Descriptor(), POLLIN, 0}, {camera.Socket(), POLLIN, 0}};
    while (true) {
        poll(ready, 2, -1);
        if (ready[1].revents != 0) camera.AnswerOne();
        if (ready[0].revents == 0) continue;
        std::byte order[Channel::MESSAGE_SIZE];
        std::byte answer[Channel::MESSAGE_SIZE] = {};
        if (!channel.ReceiveBytes(order)) return;
        handle(order, answer);
        channel.SendBytes(answer);
    }
}

}  // namespace

Peer::Peer(int core, const CameraSetup& cameras,
           const std::function<OrderHandler(BenchCamera&)>& make_handler)
    : process_("camera's process", [&](Channel& channel) {
          PinToCore(core);
          BenchCamera camera(cameras);
          const OrderHandler handle = make_handler(camera);
          const std::byte ready[1] = {};
          channel.SendBytes(ready);
          Serve(channel, camera, handle);
      }) {
    process_.Receive<std::byte>(10);
}

}  // namespace kelo::bench
