#include "message_batch.h"

#include <cstring>

#include <netinet/udp.h>

namespace kelo::bench {

MessageBatch::MessageBatch(size_t messages, size_t message_bytes)
    : message_bytes_(message_bytes),
      memory_(messages * message_bytes),
      messages_(messages),
      headers_(messages),
      used_(messages) {
    for (size_t i = 0; i < messages; ++i) {
        messages_[i].place = {&memory_[i * message_bytes], message_bytes};
        msghdr& header = headers_[i].msg_hdr;
        header.msg_name = &messages_[i].sender;
        header.msg_iov = &messages_[i].place;
        header.msg_iovlen = 1;
        header.msg_control = messages_[i].control.data();
    }
}

size_t MessageBatch::Receive(int fd) {
    for (size_t i = 0; i < used_; ++i) {
        headers_[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
        headers_[i].msg_hdr.msg_controllen = messages_[i].control.size();
    }
    const int count = recvmmsg(fd, headers_.data(), static_cast<unsigned>(headers_.size()),
                               MSG_WAITFORONE, nullptr);
    used_ = count > 0 ? static_cast<size_t>(count) : 1;
    return count > 0 ? static_cast<size_t>(count) : 0;
}

size_t MessageBatch::SegmentSize(size_t i) const {
    const msghdr& header = headers_[i].msg_hdr;
    if (header.msg_controllen < CMSG_LEN(sizeof(int))) return Size(i);
    const cmsghdr* control = CMSG_FIRSTHDR(&header);
    if (control->cmsg_level != IPPROTO_UDP || control->cmsg_type != UDP_GRO) return Size(i);
    int size = 0;
    std::memcpy(&size, CMSG_DATA(control), sizeof size);
    return static_cast<size_t>(size);
}

}  // namespace kelo::bench
