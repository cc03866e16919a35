#include "UdpImageSender.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <netinet/udp.h>
#include <poll.h>

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif

namespace kelosim {
namespace {

constexpr uint32_t kIpAndUdpHeaders = 28;
constexpr uint32_t kMaxSegments = 64;        // the kernel's limit for one message
constexpr uint32_t kMaxMessageSize = 65000;  // as one IP packet has at most
constexpr uint32_t kMessagesPerBatch = 32;

}  // namespace

UdpImageSender::UdpImageSender(uint32_t address, bool keeps_sent)
    : socket_(BindUnfragmented(address)), keeps_sent_(keeps_sent) {
    // A batch should fit; what the system does not allow, it cuts down.
    const int size = 4 << 20;
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

uint32_t UdpImageSender::PayloadSize(uint32_t packet_size) {
    const uint32_t headers = kIpAndUdpHeaders + kImageHeaderSize;
    return packet_size > headers ? packet_size - headers : 1;
}

uint32_t UdpImageSender::PacketCount(uint64_t image_size, uint32_t payload_size) {
    const uint64_t count = std::max<uint64_t>(1, (image_size + payload_size - 1) / payload_size);
    return count > 0xFFFF ? 0 : static_cast<uint32_t>(count);
}

SendTally UdpImageSender::Send(std::span<const uint8_t> image, ImageHeader header,
                               const Route& route, const Faults& faults, bool small_batches,
                               const Pacer& pacer) {
    const uint32_t count = PacketCount(image.size(), PayloadSize(route.packet_size));
    if (count == 0) return {};
    header.all_packets = static_cast<uint16_t>(count);
    const bool touched = keeps_sent_ || !held_.empty() ||
                         route.packet_size > route.path_packet_size ||
                         TouchesImage(faults, header.stream, header.image_number);
    return touched ? SendWithFaults(image, header, route, faults, pacer)
                   : SendTruly(image, header, route, small_batches, pacer);
}

SendTally UdpImageSender::SendTruly(std::span<const uint8_t> image, ImageHeader header,
                                    const Route& route, bool small_batches, const Pacer& pacer) {
    SendTally tally;
    const uint32_t payload = PayloadSize(route.packet_size);
    const sockaddr_in to = ToSockaddr(route.to);
    const uint32_t count = header.all_packets;
    for (uint32_t first = 0; first < count;) {
        const uint32_t messages = small_batches ? 1 : kMessagesPerBatch;
        const uint32_t per_message = DatagramsPerMessage(payload + kImageHeaderSize);
        const uint32_t end = std::min(count, first + messages * per_message);
        BuildBatch(image, header, payload, first, end, to);
        const uint64_t bytes_before = tally.bytes;
        first_unsent_ = end;
        SendBatch(tally);
        first = first_unsent_;
        if (!pacer(tally.bytes - bytes_before)) break;
    }
    return tally;
}

uint32_t UdpImageSender::DatagramsPerMessage(uint32_t datagram_size) const {
    if (!segmentation_) return 1;
    return std::clamp(kMaxMessageSize / datagram_size, 1u, kMaxSegments);
}

void UdpImageSender::BuildBatch(std::span<const uint8_t> image, ImageHeader header,
                                uint32_t payload, uint32_t first, uint32_t end,
                                const sockaddr_in& to) {
    const uint32_t packets = end - first;
    const uint32_t per_message = DatagramsPerMessage(payload + kImageHeaderSize);
    const uint32_t messages = (packets + per_message - 1) / per_message;
    headers_.resize(packets);
    slices_.resize(size_t{packets} * 2);
    controls_.resize(messages);
    messages_.assign(messages, mmsghdr{});
    to_ = to;
    for (uint32_t i = 0; i < packets; ++i) {
        header.current_packet = static_cast<uint16_t>(first + i);
        header.Store(headers_[i].data());
        const size_t offset = size_t{first + i} * payload;
        const size_t length = std::min<size_t>(payload, image.size() - offset);
        slices_[size_t{i} * 2] = {headers_[i].data(), kImageHeaderSize};
        // The kernel only reads what it sends: NOLINTNEXTLINE(*-pro-type-const-cast)
        slices_[size_t{i} * 2 + 1] = {const_cast<uint8_t*>(image.data() + offset), length};
    }
    for (uint32_t i = 0; i < messages; ++i) {
        msghdr& message = messages_[i].msg_hdr;
        const uint32_t in_message = std::min(per_message, packets - i * per_message);
        message.msg_name = &to_;
        message.msg_namelen = sizeof(to_);
        message.msg_iov = &slices_[size_t{i} * per_message * 2];
        message.msg_iovlen = size_t{in_message} * 2;
        if (in_message == 1) continue;
        message.msg_control = controls_[i].bytes;
        message.msg_controllen = sizeof(controls_[i].bytes);
        cmsghdr* control = CMSG_FIRSTHDR(&message);
        control->cmsg_level = IPPROTO_UDP;
        control->cmsg_type = UDP_SEGMENT;
        control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
        const uint16_t segment = static_cast<uint16_t>(payload + kImageHeaderSize);
        std::memcpy(CMSG_DATA(control), &segment, sizeof(segment));
    }
}

bool UdpImageSender::SendBatch(SendTally& tally) {
    for (size_t next = 0; next < messages_.size();) {
        const int sent = sendmmsg(socket_.get(), &messages_[next],
                                  static_cast<unsigned>(messages_.size() - next), MSG_NOSIGNAL);
        if (sent > 0) {
            for (int i = 0; i < sent; ++i)
                CountMessage(messages_[next++].msg_hdr, true, tally);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN) {
            WaitWritable();
            continue;
        }
        const msghdr& failed = messages_[next].msg_hdr;
        if (failed.msg_controllen != 0) {
            // This kernel, or this way, does not segment. Go on with single datagrams from here.
            segmentation_ = false;
            const auto slice = static_cast<size_t>(failed.msg_iov - slices_.data());
            const uint8_t* index = headers_[slice / 2].data() + 6;
            first_unsent_ = uint32_t{index[0]} << 8 | index[1];
            return false;
        }
        CountMessage(messages_[next++].msg_hdr, false, tally);
    }
    return true;
}

void UdpImageSender::CountMessage(const msghdr& message, bool sent, SendTally& tally) const {
    for (size_t i = 0; i < message.msg_iovlen; i += 2) {
        if (!sent) {
            ++tally.dropped;
            continue;
        }
        ++tally.packets;
        tally.bytes += message.msg_iov[i + 1].iov_len;
    }
}

void UdpImageSender::WaitWritable() const {
    pollfd writable{socket_.get(), POLLOUT, 0};
    poll(&writable, 1, 50);
}

SendTally UdpImageSender::SendWithFaults(std::span<const uint8_t> image, ImageHeader header,
                                         const Route& route, const Faults& faults,
                                         const Pacer& pacer) {
    using Kind = PacketFault::Kind;
    SendTally tally;
    const uint32_t payload = PayloadSize(route.packet_size);
    std::vector<uint8_t> datagram;
    for (uint32_t packet = 0; packet < header.all_packets; ++packet) {
        header.current_packet = static_cast<uint16_t>(packet);
        const size_t offset = size_t{packet} * payload;
        const size_t length = std::min<size_t>(payload, image.size() - offset);
        datagram.resize(kImageHeaderSize + length);
        std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(offset), length,
                    datagram.begin() + kImageHeaderSize);
        ImageHeader told = header;
        const auto cut = ApplyLies(faults, told);
        told.Store(datagram.data());
        if (cut && *cut < datagram.size()) datagram.resize(*cut);

        const size_t held_before = held_.size();
        if (PacketHit(faults, Kind::kDrop, header)) {
            ++tally.dropped;
        } else if (PacketHit(faults, Kind::kDelay, header)) {
            held_.push_back({datagram, std::max(1u, faults.delay_packets)});
        } else if (PacketHit(faults, Kind::kReorder, header)) {
            held_.push_back({datagram, 1});
        } else {
            SendDatagram(datagram, route, tally);
            if (PacketHit(faults, Kind::kDuplicate, header)) SendDatagram(datagram, route, tally);
        }
        ReleaseHeld(route, held_before, tally);
        if (!pacer(length)) break;
    }
    return tally;
}

// One packet has passed: the first `count` held ones come a step nearer to being sent.
void UdpImageSender::ReleaseHeld(const Route& route, size_t count, SendTally& tally) {
    for (size_t i = 0; i < count; ++i)
        --held_[i].packets_left;
    for (auto held = held_.begin(); held != held_.end();) {
        if (held->packets_left > 0) {
            ++held;
            continue;
        }
        SendDatagram(held->datagram, route, tally);
        held = held_.erase(held);
    }
}

SendTally UdpImageSender::Flush(const Route& route) {
    SendTally tally;
    for (const Held& held : held_)
        SendDatagram(held.datagram, route, tally);
    held_.clear();
    return tally;
}

void UdpImageSender::SendDatagram(std::span<const uint8_t> datagram, const Route& route,
                                  SendTally& tally) {
    bool sent = false;
    if (datagram.size() + kIpAndUdpHeaders <= route.path_packet_size) {
        sent = SendTo(socket_.get(), datagram, route.to);
        while (!sent && (errno == EAGAIN || errno == EINTR)) {
            WaitWritable();
            sent = SendTo(socket_.get(), datagram, route.to);
        }
    }
    if (!sent) {
        ++tally.dropped;
        return;
    }
    ++tally.packets;
    if (keeps_sent_) tally.datagrams.emplace_back(datagram.begin(), datagram.end());
    tally.bytes += datagram.size() > kImageHeaderSize ? datagram.size() - kImageHeaderSize : 0;
}

}  // namespace kelosim
