#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <poll.h>

#include "FaultPlan.h"
#include "Sockets.h"
#include "UdpImageSender.h"

namespace kelosim {

// One TCP connection of a client. The camera's control thread reads from it, the thread of the
// stream that it named writes to it; whoever is last closes the descriptor.
class TcpConnection {
public:
    explicit TcpConnection(Fd fd) : fd_(std::move(fd)) {}

    int fd() const { return fd_.get(); }
    bool closed() const { return closed_; }

    // Waits until everything is written; false when the connection ended before.
    bool Write(std::span<const uint8_t> bytes);
    // Ends the connection behind what has been written. A Write that waits returns.
    void Close();
    // Ends it with a reset.
    void Reset();
    // Reads up to size bytes, without waiting; the count, 0 for none. Notices the peer's close.
    size_t Read(uint8_t* bytes, size_t size);
    // Reads and forgets.
    void Drain();

private:
    Fd fd_;
    std::atomic<bool> closed_{false};
};

using TcpConnectionPtr = std::shared_ptr<TcpConnection>;

// Sends one image with whatever the faults put around it. False when the connection ended.
bool SendTcpImage(TcpConnection& connection, std::span<const uint8_t> image,
                  const ImageHeader& header, const Faults& faults, SendTally& tally);

// The camera's listening socket and the connections that came through it. Used by one thread.
class TcpStreams {
public:
    struct Opened {
        uint8_t stream;
        TcpConnectionPtr connection;
    };

    // Listens (or not, as accept says) on the address. Port 0 lets the system choose. Returns the
    // port; throws std::runtime_error. Connections that exist stay.
    uint16_t Open(uint32_t address, uint16_t port, TcpFaults::Accept accept);
    void Close();
    void CloseConnections();

    void AddPollFds(std::vector<pollfd>& fds) const;
    // Accepts, reads what clients send and returns the connections that have named their stream.
    // The first `resets` new connections are reset; it counts down.
    std::vector<Opened> Handle(uint32_t& resets, size_t streams);

private:
    struct Client {
        TcpConnectionPtr connection;
        uint8_t opening[2] = {};
        size_t opening_bytes = 0;
    };

    void Accept(uint32_t& resets);
    // True when the client has just named its stream.
    static bool ReadFrom(Client& client);
    void FillAcceptQueue(const Endpoint& local);

    Fd listener_;
    TcpFaults::Accept accept_ = TcpFaults::Accept::kNormal;
    std::vector<Fd> fillers_;  // connections of our own that make others wait
    std::vector<Client> clients_;
};

}  // namespace kelosim
