#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

#include "TPacketCommunicator.h"

// Receives many datagrams with one system call, which is most of what a datagram costs.
//
// The kernel may also have merged neighbouring datagrams of one sender into one message (see
// UDPSocket::allowMerging); they are told apart again here. Nothing is allocated after the
// construction but for the list of merged datagrams, which soon has its final size.
class DatagramBatch {
public:
    // Up to messages at once; datagrams are cut to datagram_bytes_max each. merging makes room for
    // what the kernel merges.
    DatagramBatch(size_t messages, size_t datagram_bytes_max, bool merging);
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    // Waits for a datagram as the socket's mode and time-out say, and takes what else is there.
    // Messages received, or -1 with errno.
    int Receive(int socket);

    // What the last Receive brought, in the order of arrival; valid until the next.
    std::span<const TDatagram> Datagrams() const { return datagrams_; }
    // Their bytes, all together.
    size_t Bytes() const { return bytes_; }
    // Whether as many messages came as one Receive takes: there may be more.
    bool IsFull() const { return used_ == wanted_; }

private:
    struct Message {
        sockaddr_in sender;
        iovec place;
        alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(int))> control;
    };

    size_t Wanted() const;
    void Prepare(size_t count);
    void Unpack(const Message& message, const mmsghdr& header);

    const size_t datagram_bytes_max_;
    const bool merging_;
    const size_t message_bytes_;
    const std::unique_ptr<std::byte[]> memory_;  // what no message has reached costs nothing
    std::vector<Message> messages_;
    std::vector<mmsghdr> headers_;
    std::vector<TDatagram> datagrams_;
    size_t bytes_ = 0;
    size_t recent_message_bytes_;  // how long the last ones were; at first the longest possible
    size_t wanted_;                // messages that the last call could take
    size_t used_;                  // headers that it may have changed
};
