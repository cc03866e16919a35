#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "FinishedImageQueue.h"
#include "TcpConnection.h"
#include "img_common.h"

// Receives one camera's stream over a TCP connection of its own: a reader thread turns each image
// message into a finished image.
//
// A connection is made by the thread that starts the stream and handed over to the reader thread,
// which alone reads and closes it. Other threads touch the socket only under mutexSocketReady,
// where its number is valid: they probe it or shut it down to wake the reader. The reader reads a
// connection to its end, also when the next one is already waiting.
//
// No peer can stall it: connecting is limited in time, and a reader that waits for data leaves when
// the receiver is destroyed.
class StreamReceiverTcp : public FinishedImageQueue {
public:
    // ip in host order. Starts the reader thread, which waits for a connection.
    StreamReceiverTcp(uint32_t ip, uint8_t stream_number);
    ~StreamReceiverTcp();

    // Takes the parameters for the images to come. Nothing is flushed.
    void InitStream(uint8_t streamFormat, uint8_t headerFormat, uint32_t headerSize,
                    uint32_t maxFrameSize);

    // Sees to it that there is a connection to the camera's port. May take many attempts, which
    // EndWaits ends soon; the outcome shows in the log only.
    void ensureTcpConnection(uint16_t port);

    // Whether a liveness message can be sent on the socket. A peer that does not read is alive.
    static bool is_tcp_connected(int socket, uint8_t stream);

    const uint32_t ip_address;
    const uint8_t stream_number;

private:
    // How a receive of a given length ended.
    enum class Received {
        Complete,
        Failed,  // the system reported an error, which is logged
        Ended,   // nothing more comes: the peer closed, or the receiver is being destroyed
    };

    // The connecting side.
    bool isConnectionUp();
    TcpConnection tcp_connect(uint32_t ip, uint16_t port);
    void handOver(TcpConnection connection);

    // The reader thread. Those that return bool: false when the connection has ended.
    void streamReaderThreadFunction();
    bool takeConnection();
    void dropConnection();
    void readConnection();
    bool readMessage();
    bool receiveImage(uint32_t size);
    bool receiveImageData(BufferInfo& image, uint32_t length);
    BufferInfo describeImage(const THeaderImage& header);
    Received skip(size_t length);
    Received tcpReceiveAll(void* buffer, size_t length);
    // Goes on behind the received bytes of the buffer until it holds length, and counts on, also
    // when not all come.
    Received tcpReceiveAll(void* buffer, size_t length, size_t& received);
    // The same with few wake-ups.
    Received receiveGathered(void* buffer, size_t length, size_t& received);

    // Guarded by onrcv_mutex.
    uint8_t streamFormat = 0;
    uint8_t headerFormat = 0;
    uint32_t headerSize = 0;
    uint32_t maxFrameSize = 0;

    std::mutex mutex_connect;  // held while connecting, taken before the next one

    std::mutex mutexSocketReady;
    std::condition_variable cvSocketReady;
    TcpConnection tcp_socket;  // the one that is read; changed by the reader under mutexSocketReady
    std::deque<TcpConnection> handed_over;  // guarded by mutexSocketReady; the next ones, in order
    std::atomic<bool> streamReaderThreadQuit{false};  // set under mutexSocketReady

    // The reader thread's own.
    std::vector<std::byte> temp_buffer;  // takes what is thrown away; never grows
    int receive_failures = 0;            // one after the other
    std::thread streamReaderThread;
};
