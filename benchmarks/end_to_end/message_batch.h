#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

namespace kelo::bench {

// Room for what one recvmmsg brings.
class MessageBatch {
public:
    MessageBatch(size_t messages, size_t message_bytes);

    // Waits for one as the socket's time-out says and takes what else is there. How many, 0 for
    // none.
    size_t Receive(int fd);

    size_t Capacity() const { return messages_.size(); }
    const std::byte* Bytes(size_t i) const { return &memory_[i * message_bytes_]; }
    size_t Size(size_t i) const { return headers_[i].msg_len; }
    // In host order.
    uint32_t Sender(size_t i) const { return ntohl(messages_[i].sender.sin_addr.s_addr); }
    // Bytes of each datagram that was merged into the message; the last may be shorter.
    size_t SegmentSize(size_t i) const;

private:
    struct Message {
        sockaddr_in sender;
        iovec place;
        alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(int))> control;
    };

    const size_t message_bytes_;
    std::vector<std::byte> memory_;
    std::vector<Message> messages_;
    std::vector<mmsghdr> headers_;
    size_t used_;
};

}  // namespace kelo::bench
