#include "udp_sender.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <netinet/in.h>
#include <netinet/udp.h>
#include <unistd.h>

#include "../support/big_endian.h"
#include "../support/cpu.h"

namespace kelo::bench {
namespace {

// What a UDP message may hold.
constexpr size_t MESSAGE_MAX = 65507;
// Whoever is later than this does not catch up: a camera would not send faster either.
constexpr double LAG_NS_MAX = 1e6;

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in Address(uint32_t ip, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(ip);
    return address;
}

}  // namespace

// From a camera's address to the receiver's.
class UdpSender::Socket {
public:
    Socket(uint32_t from_ip, const Order& order)
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in from = Address(from_ip, 0);
        const sockaddr_in to = Address(order.to_address, order.to_port);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
            connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
            Fail("image socket");
        }
    }
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Get() const { return fd_; }

private:
    int fd_;
};

UdpSender::UdpSender(const Traffic& traffic, const CameraSetup& cameras, bool merge)
    : traffic_(traffic),
      cameras_setup_(cameras),
      merge_(merge),
      datagrams_(traffic.Datagrams()),
      image_(traffic.ImageSize()),
      cameras_(traffic.cameras) {
    const size_t fitting = MESSAGE_MAX / traffic.datagram_size;
    burst_ = traffic.burst == 0 ? fitting : std::min<size_t>(traffic.burst, fitting);
    per_message_ = merge ? burst_ : 1;
    if (traffic.ImageSize() - traffic.StampOffset() < sizeof(int64_t)) {
        throw std::invalid_argument("an image's last datagram has no room for the time");
    }
    for (size_t i = 4; i < image_.size(); ++i)
        image_[i] = static_cast<std::byte>(i * 31 >> 3);
    for (Camera& camera : cameras_) {
        BuildDatagrams(camera);
        BuildMessages(camera);
    }
}

bool UdpSender::Fits(const Traffic& traffic, bool merge) const {
    Traffic wanted = traffic;
    wanted.bytes_per_second = traffic_.bytes_per_second;
    return wanted == traffic_ && merge == merge_;
}

void UdpSender::BuildDatagrams(Camera& camera) {
    camera.headers.resize(datagrams_);
    const size_t payload = traffic_.PayloadSize();
    for (uint32_t i = 0; i < datagrams_; ++i) {
        std::byte* header = camera.headers[i].data();
        header[0] = std::byte{0xAC};
        header[1] = std::byte{0};
        Put16(header + 6, i);
        Put16(header + 8, static_cast<uint32_t>(datagrams_));
        Put16(header + 10, traffic_.width);
        Put16(header + 12, traffic_.height);
        const size_t offset = i * payload;
        camera.slices.push_back({header, IMAGE_HEADER_SIZE});
        camera.slices.push_back({&image_[offset], std::min(payload, image_.size() - offset)});
    }
}

void UdpSender::BuildMessages(Camera& camera) {
    const size_t count = (datagrams_ + per_message_ - 1) / per_message_;
    camera.messages.assign(count, {});
    camera.controls.assign(count, {});
    for (size_t i = 0; i < count; ++i)
        BuildMessage(camera, i);
}

void UdpSender::BuildMessage(Camera& camera, size_t index) {
    const size_t first = index * per_message_;
    msghdr& message = camera.messages[index].msg_hdr;
    message.msg_iov = &camera.slices[2 * first];
    message.msg_iovlen = 2 * std::min(per_message_, datagrams_ - first);
    if (per_message_ == 1) return;
    message.msg_control = camera.controls[index].bytes;
    message.msg_controllen = sizeof camera.controls[index].bytes;
    cmsghdr* control = CMSG_FIRSTHDR(&message);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
    const auto size = static_cast<uint16_t>(traffic_.datagram_size);
    std::memcpy(CMSG_DATA(control), &size, sizeof size);
}

// The pixels are shared: the number is in them when the image's first message is sent.
void UdpSender::BeginImage(Camera& camera) {
    Put32(image_.data(), camera.number);
    for (auto& header : camera.headers)
        Put32(header.data() + 2, camera.number);
}

void UdpSender::StampEnd() {
    const int64_t now = NowNs();
    std::memcpy(&image_[traffic_.StampOffset()], &now, sizeof now);
}

void UdpSender::SendMessages(Camera& camera, int fd, size_t first, size_t count) {
    while (count > 0) {
        const int sent = sendmmsg(fd, &camera.messages[first], static_cast<unsigned>(count), 0);
        if (sent > 0) {
            first += static_cast<size_t>(sent);
            count -= static_cast<size_t>(sent);
        } else if (errno != ENOBUFS && errno != ECONNREFUSED && errno != EINTR) {
            Fail("sending images");
        }
    }
}

void UdpSender::SendStep(Camera& camera, int fd, size_t step) {
    const size_t messages_per_step = burst_ / per_message_;
    const size_t first = step * messages_per_step;
    SendMessages(camera, fd, first, std::min(messages_per_step, camera.messages.size() - first));
}

void UdpSender::SendImagesAtOnce(const std::vector<Socket>& sockets) {
    for (size_t i = 0; i < cameras_.size(); ++i) {
        BeginImage(cameras_[i]);
        StampEnd();
        SendMessages(cameras_[i], sockets[i].Get(), 0, cameras_[i].messages.size());
        ++cameras_[i].number;
    }
}

void UdpSender::WaitFor(int64_t due) const {
    while (NowNs() < due) {
    }
}

// Step by step, each camera's in turn, as packets of several cameras mix on their way.
void UdpSender::SendImagesPaced(const std::vector<Socket>& sockets, double bytes_per_second) {
    const size_t steps = Steps();
    const double image_ns = traffic_.ImageSize() / bytes_per_second * 1e9;
    const double step_ns = image_ns / static_cast<double>(datagrams_) * static_cast<double>(burst_);
    for (size_t step = 0; step < steps; ++step) {
        for (size_t i = 0; i < cameras_.size(); ++i) {
            WaitFor(static_cast<int64_t>(due_ns_));
            const int64_t begin = NowNs();
            if (step == 0) BeginImage(cameras_[i]);
            if (step + 1 == steps) StampEnd();
            SendStep(cameras_[i], sockets[i].Get(), step);
            const int64_t end = NowNs();
            work_ns_ += end - begin;
            due_ns_ = std::max(due_ns_ + step_ns, static_cast<double>(end) - LAG_NS_MAX);
        }
    }
    for (Camera& camera : cameras_)
        ++camera.number;
}

Sent UdpSender::Send(const Order& order) {
    std::vector<Socket> sockets;
    for (uint32_t i = 0; i < traffic_.cameras; ++i)
        sockets.emplace_back(cameras_setup_.first_address + i, order);
    const bool paced = order.traffic.bytes_per_second > 0;
    Sent sent{};
    const double cpu_start = CpuSeconds();
    const int64_t start = NowNs();
    const int64_t end = start + static_cast<int64_t>(order.seconds * 1e9);
    due_ns_ = static_cast<double>(start);
    work_ns_ = 0;
    while (order.images != 0 ? sent.images < uint64_t{order.images} * traffic_.cameras
                             : NowNs() < end) {
        if (paced) {
            SendImagesPaced(sockets, order.traffic.bytes_per_second);
        } else {
            SendImagesAtOnce(sockets);
        }
        sent.images += traffic_.cameras;
    }
    sent.datagrams = sent.images * datagrams_;
    sent.bytes = sent.images * traffic_.ImageSize();
    sent.seconds = static_cast<double>(NowNs() - start) / 1e9;
    sent.cpu_seconds = CpuSeconds() - cpu_start;
    sent.work_seconds = paced ? static_cast<double>(work_ns_) / 1e9 : sent.cpu_seconds;
    return sent;
}

}  // namespace kelo::bench
