#include "TcpStreams.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "Wire.h"

namespace kelosim {
namespace {

constexpr uint32_t kSyncMessage = 0;
constexpr uint32_t kImageMessage = 1;
constexpr uint32_t kUnknownMessage = 7;

// Writes one message; cuts it into pieces and off where the faults say so.
class MessageWriter {
public:
    MessageWriter(TcpConnection& connection, const TcpFaults& faults)
        : connection_(connection), faults_(faults) {}

    void CloseAfter(uint64_t bytes) { left_ = bytes; }

    bool Write(std::span<const uint8_t> bytes) {
        while (!bytes.empty()) {
            if (left_ == 0) {
                connection_.Close();
                return false;
            }
            size_t piece = static_cast<size_t>(std::min<uint64_t>(bytes.size(), left_));
            if (faults_.split_bytes > 0) piece = std::min<size_t>(piece, faults_.split_bytes);
            if (!connection_.Write(bytes.first(piece))) return false;
            if (left_ != UINT64_MAX) left_ -= piece;
            bytes = bytes.subspan(piece);
            if (faults_.split_pause_us > 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(faults_.split_pause_us));
            }
        }
        return true;
    }
    bool Fill(uint32_t count, uint8_t value) {
        const std::vector<uint8_t> block(std::min<uint32_t>(count, 65536), value);
        for (uint32_t left = count; left > 0;) {
            const uint32_t part = std::min<uint32_t>(left, static_cast<uint32_t>(block.size()));
            if (!Write(std::span<const uint8_t>(block).first(part))) return false;
            left -= part;
        }
        return true;
    }
    // At the end of the message: whether the connection stays open.
    bool End() {
        if (left_ != 0) return true;
        connection_.Close();
        return false;
    }

private:
    TcpConnection& connection_;
    const TcpFaults& faults_;
    uint64_t left_ = UINT64_MAX;
};

std::vector<uint8_t> MessageHeader(uint8_t magic, uint8_t stream, uint32_t type, uint32_t size) {
    std::vector<uint8_t> header;
    wire::Writer(header).U8(magic).U8(stream).U32(type).U32(size);
    return header;
}

bool SendDecoys(TcpConnection& connection, uint8_t stream, const TcpFaults& faults) {
    MessageWriter writer(connection, faults);
    if (faults.sync_messages &&
        !writer.Write(MessageHeader(kImageMagic, stream, kSyncMessage, 0))) {
        return false;
    }
    if (faults.garbage_bytes > 0) {
        const auto header =
            MessageHeader(kImageMagic, stream, kUnknownMessage, faults.garbage_bytes);
        if (!writer.Write(header) || !writer.Fill(faults.garbage_bytes, 0xAC)) return false;
    }
    if (faults.wrong_magic_bytes > 0) {
        const auto header = MessageHeader(0xCA, stream, kImageMessage, faults.wrong_magic_bytes);
        if (!writer.Write(header) || !writer.Fill(faults.wrong_magic_bytes, 0xCA)) return false;
    }
    return true;
}

}  // namespace

bool TcpConnection::Write(std::span<const uint8_t> bytes) {
    while (!bytes.empty() && !closed_) {
        const ssize_t sent = send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            bytes = bytes.subspan(static_cast<size_t>(sent));
        } else if (errno == EAGAIN) {
            pollfd writable{fd(), POLLOUT, 0};
            poll(&writable, 1, 100);
        } else if (errno != EINTR) {
            closed_ = true;
        }
    }
    return bytes.empty();
}

void TcpConnection::Close() {
    if (closed_.exchange(true)) return;
    shutdown(fd(), SHUT_WR);
    // Bytes that nobody has read would turn the close into a reset.
    Drain();
    shutdown(fd(), SHUT_RD);
}

void TcpConnection::Reset() {
    const linger at_once{1, 0};
    setsockopt(fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    closed_ = true;
}

size_t TcpConnection::Read(uint8_t* bytes, size_t size) {
    const ssize_t got = recv(fd(), bytes, size, MSG_DONTWAIT);
    if (got > 0) return static_cast<size_t>(got);
    if (got == 0 || (errno != EAGAIN && errno != EINTR)) closed_ = true;
    return 0;
}

void TcpConnection::Drain() {
    uint8_t scratch[4096];
    for (int i = 0; i < 64 && Read(scratch, sizeof(scratch)) > 0; ++i) {
    }
}

bool SendTcpImage(TcpConnection& connection, std::span<const uint8_t> image,
                  const ImageHeader& header, const Faults& faults, SendTally& tally) {
    const TcpFaults& tcp = faults.tcp;
    if (!SendDecoys(connection, header.stream, tcp)) return false;
    MessageWriter writer(connection, tcp);
    for (const TcpClose& close : tcp.closes) {
        const bool here =
            close.image == header.image_number && (!close.stream || *close.stream == header.stream);
        if (here) writer.CloseAfter(close.after_bytes);
    }
    const uint64_t size = kImageHeaderSize + image.size() + tcp.oversize_bytes;
    std::vector<uint8_t> head =
        MessageHeader(kImageMagic, header.stream, kImageMessage,
                      tcp.claimed_size.value_or(static_cast<uint32_t>(size)));
    ImageHeader told = header;
    ApplyLies(faults, told);
    head.resize(head.size() + kImageHeaderSize);
    told.Store(head.data() + head.size() - kImageHeaderSize);
    if (!writer.Write(head) || !writer.Write(image) || !writer.Fill(tcp.oversize_bytes, 0xEE)) {
        return false;
    }
    tally.bytes += image.size();
    return writer.End();
}

uint16_t TcpStreams::Open(uint32_t address, uint16_t port, TcpFaults::Accept accept) {
    listener_.Reset();
    fillers_.clear();
    Fd listener = BindTcp({address, port});
    const Endpoint local = LocalEndpoint(listener.get());
    listener_ = std::move(listener);
    accept_ = accept;
    // A port that is bound but not listened on refuses connections and cannot be taken by others.
    if (accept == TcpFaults::Accept::kRefuse) return local.port;
    const bool hang = accept == TcpFaults::Accept::kHang;
    if (listen(listener_.get(), hang ? 0 : 64) != 0) {
        throw std::runtime_error("cannot listen on " + std::to_string(local.port) + ": " +
                                 std::generic_category().message(errno));
    }
    if (hang) FillAcceptQueue(local);
    return local.port;
}

// While connections wait to be accepted, up to the backlog, the kernel drops further attempts.
void TcpStreams::FillAcceptQueue(const Endpoint& local) {
    for (int i = 0; i < 3; ++i) {
        Fd filler(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const sockaddr_in address = ToSockaddr(local);
        // Never done at once; the kernel goes on with it.
        [[maybe_unused]] const int pending =
            connect(filler.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        fillers_.push_back(std::move(filler));
    }
}

void TcpStreams::Close() {
    CloseConnections();
    listener_.Reset();
    fillers_.clear();
}

void TcpStreams::CloseConnections() {
    for (const Client& client : clients_)
        client.connection->Close();
    clients_.clear();
}

void TcpStreams::AddPollFds(std::vector<pollfd>& fds) const {
    if (listener_ && accept_ == TcpFaults::Accept::kNormal) {
        fds.push_back({listener_.get(), POLLIN, 0});
    }
    for (const Client& client : clients_)
        fds.push_back({client.connection->fd(), POLLIN, 0});
}

void TcpStreams::Accept(uint32_t& resets) {
    while (listener_ && accept_ == TcpFaults::Accept::kNormal) {
        Fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) return;
        const int on = 1;
        setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        auto connection = std::make_shared<TcpConnection>(std::move(fd));
        if (resets > 0) {
            --resets;
            connection->Reset();
            continue;
        }
        clients_.push_back({std::move(connection), {}, 0});
    }
}

bool TcpStreams::ReadFrom(Client& client) {
    constexpr size_t kOpening = sizeof(client.opening);
    if (client.opening_bytes == kOpening) {
        client.connection->Drain();
        return false;
    }
    client.opening_bytes += client.connection->Read(client.opening + client.opening_bytes,
                                                    kOpening - client.opening_bytes);
    return client.opening_bytes == kOpening;
}

std::vector<TcpStreams::Opened> TcpStreams::Handle(uint32_t& resets, size_t streams) {
    Accept(resets);
    std::vector<Opened> opened;
    for (Client& client : clients_) {
        if (!ReadFrom(client)) continue;
        if (client.opening[0] != kImageMagic || client.opening[1] >= streams) {
            client.connection->Close();
            continue;
        }
        opened.push_back({client.opening[1], client.connection});
    }
    std::erase_if(clients_, [](const Client& client) {
        const bool closed = client.connection->closed();
        if (closed) client.connection->Close();
        return closed;
    });
    return opened;
}

}  // namespace kelosim
