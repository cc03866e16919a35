#include "TcpGathering.h"

#include <algorithm>

#include <sys/socket.h>

namespace {

// Where the system's receive buffers are large, longer pieces would only make the last one longer,
// whose segments wake the thread one by one.
constexpr size_t kPieceMax = size_t{1} << 20;
// The longest segment that the system merges is four times as long.
constexpr size_t kPieceMin = size_t{16} << 10;
// The system's own records of the segments take half of a receive buffer, and more where segments
// are small. A piece must fit in any case, or nobody is woken before the time-out.
constexpr size_t kBufferShare = 8;

size_t receiveBufferSize(int socket) {
    int size = 0;
    socklen_t length = sizeof(size);
    const bool is_known = getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, &length) == 0;
    return is_known && size > 0 ? static_cast<size_t>(size) : 0;
}

bool setLowWaterMark(int socket, size_t bytes) {
    const int value = static_cast<int>(bytes);
    return setsockopt(socket, SOL_SOCKET, SO_RCVLOWAT, &value, sizeof(value)) == 0;
}

}  // namespace

TcpGathering::TcpGathering(int socket, size_t length) : socket_(socket) {
    const size_t piece =
        std::min({kPieceMax, receiveBufferSize(socket) / kBufferShare, length / 2});
    if (piece >= kPieceMin && setLowWaterMark(socket, piece)) length_ = length - piece;
}

TcpGathering::~TcpGathering() {
    if (length_ > 0) setLowWaterMark(socket_, 1);
}
