#include "DatagramBatch.h"

#include <algorithm>
#include <cstring>

#include <netinet/udp.h>

namespace {

// The most that the kernel puts into one message.
constexpr size_t kMergedBytesMax = 65536;

// What one call may bring should stay in the processor's cache until it is handled.
constexpr size_t kBatchBytes = 128 << 10;
// Messages of 64 KiB lie this much farther apart than that: at a distance of a power of two all of
// them would compete for the same few lines of the cache.
constexpr size_t kStagger = 2368;

// How long each of the datagrams is that were merged into a message; the last may be shorter.
// Without a word from the kernel the message is one datagram.
size_t SegmentSize(msghdr header, size_t message_bytes) {
    for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
         control = CMSG_NXTHDR(&header, control)) {
        if (control->cmsg_level != IPPROTO_UDP || control->cmsg_type != UDP_GRO) continue;
        int size = 0;
        std::memcpy(&size, CMSG_DATA(control), sizeof(size));
        if (size > 0) return static_cast<size_t>(size);
    }
    return message_bytes;
}

}  // namespace

DatagramBatch::DatagramBatch(size_t messages, size_t datagram_bytes_max, bool merging)
    : datagram_bytes_max_(datagram_bytes_max),
      merging_(merging),
      message_bytes_(merging ? std::max(kMergedBytesMax, datagram_bytes_max) : datagram_bytes_max),
      memory_(std::make_unique_for_overwrite<std::byte[]>(messages * (message_bytes_ + kStagger))),
      messages_(messages),
      headers_(messages),
      recent_message_bytes_(message_bytes_),
      wanted_(messages),
      used_(messages) {
    datagrams_.reserve(messages);
    for (size_t i = 0; i < messages; ++i) {
        messages_[i].place = {.iov_base = memory_.get() + i * (message_bytes_ + kStagger),
                              .iov_len = message_bytes_};
    }
}

// Fewer messages while the kernel merges much into each.
size_t DatagramBatch::Wanted() const {
    const size_t fitting = kBatchBytes / std::max(recent_message_bytes_, size_t{1});
    return std::clamp(fitting, size_t{1}, headers_.size());
}

void DatagramBatch::Prepare(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        Message& message = messages_[i];
        msghdr& header = headers_[i].msg_hdr;
        header = {};
        header.msg_name = &message.sender;
        header.msg_namelen = sizeof(message.sender);
        header.msg_iov = &message.place;
        header.msg_iovlen = 1;
        if (!merging_) continue;
        header.msg_control = message.control.data();
        header.msg_controllen = message.control.size();
    }
}

int DatagramBatch::Receive(int socket) {
    Prepare(used_);
    wanted_ = Wanted();
    datagrams_.clear();
    bytes_ = 0;
    const int count =
        recvmmsg(socket, headers_.data(), static_cast<unsigned>(wanted_), MSG_WAITFORONE, nullptr);
    // A failed call may have begun to fill the first one.
    used_ = static_cast<size_t>(std::max(count, 1));
    for (size_t i = 0; i < static_cast<size_t>(std::max(count, 0)); ++i) {
        Unpack(messages_[i], headers_[i]);
    }
    if (count > 0) recent_message_bytes_ = bytes_ / used_;
    return count;
}

void DatagramBatch::Unpack(const Message& message, const mmsghdr& header) {
    const auto* bytes = static_cast<const std::byte*>(message.place.iov_base);
    const size_t length = header.msg_len;
    const size_t segment = std::max(SegmentSize(header.msg_hdr, length), size_t{1});
    size_t offset = 0;
    do {
        const size_t size = std::min({segment, length - offset, datagram_bytes_max_});
        bytes_ += size;
        datagrams_.push_back({.ip = ntohl(message.sender.sin_addr.s_addr),
                              .data = bytes + offset,
                              .length = static_cast<int>(size)});
        offset += segment;
    } while (offset < length);
}
