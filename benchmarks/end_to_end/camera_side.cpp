#include "camera_side.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "kelo_registers.h"
#include "tcp_sender.h"
#include "udp_sender.h"

namespace kelo::bench {
namespace {

class CameraSide {
public:
    CameraSide(BenchCamera& cameras, std::shared_ptr<TcpSender> tcp)
        : cameras_(cameras), tcp_(std::move(tcp)) {}

    Sent Send(Order order) {
        if (order.traffic.tcp) return tcp_->Send(order);
        if (udp_ == nullptr || !udp_->Fits(order.traffic, order.merge)) {
            udp_ = std::make_unique<UdpSender>(order.traffic, cameras_.Setup(), order.merge);
        }
        if (order.await_start) AwaitStart();
        if (order.to_address == 0) {
            order.to_address = cameras_.ClientAddress();
            order.to_port = static_cast<uint16_t>(cameras_.Register(REG_STREAMPORT));
        }
        return udp_->Send(order);
    }

private:
    void AwaitStart() {
        const uint32_t starts = cameras_.Starts();
        while (cameras_.Starts() == starts)
            cameras_.AnswerOne();
    }

    BenchCamera& cameras_;
    std::shared_ptr<TcpSender> tcp_;
    std::unique_ptr<UdpSender> udp_;
};

}  // namespace

OrderHandler MakeCameraSide(BenchCamera& cameras, std::shared_ptr<TcpSender> tcp) {
    auto side = std::make_shared<CameraSide>(cameras, std::move(tcp));
    return [side](std::span<const std::byte> bytes, std::span<std::byte> answer) {
        Order order{};
        std::memcpy(&order, bytes.data(), sizeof order);
        Sent sent{};
        try {
            sent = side->Send(order);
        } catch (const std::exception& error) {
            // The run shows that nothing was sent.
            std::fprintf(stderr, "camera's process: %s\n", error.what());
        }
        std::memcpy(answer.data(), &sent, sizeof sent);
    };
}

}  // namespace kelo::bench
