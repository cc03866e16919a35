#pragma once

#include <cstddef>

// Lets the bytes of an image gather in the system, which then wakes the thread that waits for them
// once for a piece instead of once for each segment (SO_RCVLOWAT). Not for the last piece: nobody
// is woken for one that does not become whole, so that the end of an image would wait for the next
// one.
//
// Used by the thread that receives, while no other changes the socket's options.
class TcpGathering {
public:
    // length bytes are to be received next.
    TcpGathering(int socket, size_t length);
    // From here on each segment wakes who waits.
    ~TcpGathering();
    TcpGathering(const TcpGathering&) = delete;
    TcpGathering& operator=(const TcpGathering&) = delete;

    // The number of bytes to receive while this object lives: all but the last piece. 0 when it is
    // not worth while, or the system refuses.
    size_t Length() const { return length_; }

private:
    const int socket_;
    size_t length_ = 0;
};
