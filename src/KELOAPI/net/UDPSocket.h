#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/socket.h>
#include <sys/types.h>

#include "FileDescriptor.h"
#include "NetworkInterfaces.h"

// One IPv4 datagram socket. Addresses and ports in host order.
//
// Construction ignores failures: a socket that could not be made or bound shows by getPort() being
// 0. Operations may be called from any thread; nothing throws.
class UDPSocket {
public:
    using u16 = uint16_t;

    // Bound to port on every interface.
    explicit UDPSocket(u16 port);
    // Bound to ip:port, with address reuse and broadcast allowed. Port 0 gives a port of its own.
    UDPSocket(uint32_t ip, u16 port);

    void setReusePort();
    void setBroadcast();
    int bind(uint32_t ip, u16 port);

    // Fixes the peer. True whatever connect() says; the text form is false for anything but a
    // dotted IPv4 address, and then leaves the socket alone.
    bool setDestination(uint32_t ip, u16 port);
    bool setDestination(const char* ip, u16 port);

    // The SEND buffer: camera tools size it, while reception has its own operation below.
    int getBufferSize();
    void setBufferSize(int size);

    // How long a receive waits before it fails with EAGAIN.
    void setReceiveTimeout(int timeout_ms);
    // Lets the kernel hand over neighbouring datagrams of one sender in one message. False where it
    // does not know how.
    bool allowMerging();
    // Asks for a receive buffer of that many bytes, beyond the system's limit where the process
    // may, and silently takes less. Returns what it got, which the kernel has doubled for its own
    // bookkeeping; 0 when that is not known.
    int requestReceiveBuffer(int size);

    // All return the system's result: bytes or -1 with errno.
    ssize_t send(const void* data, size_t length);
    ssize_t sendto(const void* data, size_t length, uint32_t ip, uint16_t port);
    ssize_t sendBroadcast(const void* data, size_t length, uint16_t port);
    ssize_t sendmsg(const msghdr* message);
    // Stores the sender's address if ip is given, and its port if both are.
    ssize_t receive(void* buf, size_t len, uint32_t* ip, uint16_t* port);

    void setNonBlocking(bool non_blocking);
    // The local port, 0 when unknown.
    uint16_t getPort();
    int getNativeHandle() const { return fd.Get(); }

private:
    FileDescriptor fd;
};
