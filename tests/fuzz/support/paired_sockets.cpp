// TCP connections that need no network, in place of the library's: each is a pair of sockets whose
// other end the target takes.

#include "paired_sockets.h"

#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TcpConnection.h"

namespace {

FileDescriptor newest_peer;

}  // namespace

FileDescriptor kelo::fuzz::TakePeer() {
    return std::exchange(newest_peer, FileDescriptor());
}

bool connectTcpSocket(const FileDescriptor& socket, uint32_t, uint16_t, int,
                      const std::function<bool()>&) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
    const FileDescriptor mine(pair[0]);
    newest_peer.Reset(pair[1]);
    // Takes the place of the TCP socket, under its number.
    return dup3(mine.Get(), socket.Get(), O_CLOEXEC) >= 0;
}

void makeTcpSocketWait(const FileDescriptor&, int) {}

void gracefullyCloseTcpSocket(int socket) {
    if (socket < 0) return;
    shutdown(socket, SHUT_RDWR);
    close(socket);
}

std::string systemErrorText(int) {
    return {};
}

void TcpConnection::ShutDown() const {
    if (IsOpen()) shutdown(socket_.Get(), SHUT_RDWR);
}
