#include "image_sender.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include <netinet/in.h>
#include <netinet/udp.h>
#include <unistd.h>

#include "../support/big_endian.h"
#include "../support/cpu.h"

namespace kelo::bench {
namespace {

// As many as fit into the 65507 bytes of a UDP message.
constexpr size_t DATAGRAMS_PER_MESSAGE = 65507 / DATAGRAM_SIZE;

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class ConnectedSocket {
public:
    explicit ConnectedSocket(uint16_t port) : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            Fail("image socket");
        }
    }
    ~ConnectedSocket() { close(fd); }
    ConnectedSocket(const ConnectedSocket&) = delete;
    ConnectedSocket& operator=(const ConnectedSocket&) = delete;

    const int fd;
};

}  // namespace

ImageSender::ImageSender(size_t image_size) : image_(image_size) {
    for (size_t i = 4; i < image_size; ++i)
        image_[i] = static_cast<std::byte>(i * 31 >> 3);
    BuildDatagrams();
    BuildMessages(DATAGRAMS_PER_MESSAGE);
}

void ImageSender::BuildDatagrams() {
    const uint32_t count = DatagramsPerImage(image_.size());
    headers_.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        std::byte* header = headers_[i].data();
        header[0] = std::byte{0xAC};
        header[1] = std::byte{0};
        Put16(header + 6, i);
        Put16(header + 8, count);
        Put16(header + 10, 1024);
        Put16(header + 12, static_cast<uint32_t>(image_.size() / 1024));
        const size_t offset = i * PAYLOAD_SIZE;
        slices_.push_back({header, IMAGE_HEADER_SIZE});
        slices_.push_back({image_.data() + offset, std::min(PAYLOAD_SIZE, image_.size() - offset)});
    }
}

void ImageSender::BuildMessages(size_t datagrams_per_message) {
    const size_t count = (headers_.size() + datagrams_per_message - 1) / datagrams_per_message;
    messages_.assign(count, {});
    controls_.assign(count, {});
    for (size_t i = 0; i < count; ++i) {
        const size_t first = i * datagrams_per_message;
        msghdr& message = messages_[i].msg_hdr;
        message.msg_iov = &slices_[2 * first];
        message.msg_iovlen = 2 * std::min(datagrams_per_message, headers_.size() - first);
        if (datagrams_per_message == 1) continue;
        message.msg_control = controls_[i].bytes;
        message.msg_controllen = sizeof controls_[i].bytes;
        cmsghdr* control = CMSG_FIRSTHDR(&message);
        control->cmsg_level = SOL_UDP;
        control->cmsg_type = UDP_SEGMENT;
        control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
        const uint16_t size = DATAGRAM_SIZE;
        std::memcpy(CMSG_DATA(control), &size, sizeof size);
    }
}

void ImageSender::SetImageNumber(uint32_t number) {
    Put32(image_.data(), number);
    for (auto& header : headers_)
        Put32(header.data() + 2, number);
}

void ImageSender::SendMessages(int fd, size_t first, size_t count) {
    while (count > 0) {
        const int sent = sendmmsg(fd, &messages_[first], static_cast<unsigned>(count), 0);
        if (sent > 0) {
            first += static_cast<size_t>(sent);
            count -= static_cast<size_t>(sent);
        } else if (messages_.size() != headers_.size() && (errno == EINVAL || errno == EIO)) {
            // A kernel or a device without segmentation: from now on one datagram per message. At
            // most the datagrams of this image go out twice.
            BuildMessages(1);
            first = 0;
            count = messages_.size();
        } else if (errno != ENOBUFS && errno != ECONNREFUSED && errno != EINTR) {
            Fail("sending images");
        }
    }
}

// Message by message, each at its own time, as a camera's packets are spread over the frame.
void ImageSender::SendPaced(int fd, double& due, double seconds_per_image) {
    for (size_t i = 0; i < messages_.size(); ++i) {
        while (Now() < due) {
        }
        due += seconds_per_image / static_cast<double>(messages_.size());
        SendMessages(fd, i, 1);
    }
}

double ImageSender::Send(const SendOrder& order) {
    const ConnectedSocket to(order.port);
    const double start = Now();
    double due = start;
    for (uint32_t i = 0; i < order.images; ++i) {
        SetImageNumber(order.first_image + i);
        if (order.bytes_per_second > 0) {
            SendPaced(to.fd, due, static_cast<double>(image_.size()) / order.bytes_per_second);
        } else {
            SendMessages(to.fd, 0, messages_.size());
        }
    }
    return Now() - start;
}

}  // namespace kelo::bench
