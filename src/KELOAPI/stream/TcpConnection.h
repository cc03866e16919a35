#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "FileDescriptor.h"

// Shuts the socket down in both directions, takes what has already arrived, and closes it. A peer
// that was still sending is told at once that nobody reads any more. -1 is no socket.
void gracefullyCloseTcpSocket(int socket);

// Waits up to limit_ms for a TCP connection to ip:port (host order) and looks every 10 ms whether
// it is still wanted. The socket is in non-blocking mode. Returns false with the socket in no
// useful state.
bool connectTcpSocket(const FileDescriptor& socket, uint32_t ip, uint16_t port, int limit_ms,
                      const std::function<bool()>& is_wanted);

// Receiving waits for data from here on, for timeout_ms at most: waiting in the call itself saves a
// second one for each piece of data.
void makeTcpSocketWait(const FileDescriptor& socket, int timeout_ms);

// The system's text for an error number; any thread.
std::string systemErrorText(int error);

// Owns one connected socket and closes it gracefully.
class TcpConnection {
public:
    TcpConnection() = default;
    explicit TcpConnection(FileDescriptor socket) : socket_(std::move(socket)) {}
    ~TcpConnection() { gracefullyCloseTcpSocket(socket_.Release()); }
    TcpConnection(TcpConnection&&) = default;
    TcpConnection& operator=(TcpConnection&& other) noexcept {
        std::swap(socket_, other.socket_);  // the other one closes what this one had
        return *this;
    }

    int Get() const { return socket_.Get(); }
    bool IsOpen() const { return socket_.IsOpen(); }

    // Wakes who waits for data. What has already arrived can still be read, then the end follows.
    void ShutDown() const;

private:
    FileDescriptor socket_;
};
