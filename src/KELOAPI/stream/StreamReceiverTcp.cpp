#include "StreamReceiverTcp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <memory>
#include <span>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "TcpGathering.h"
#include "kelo_protocol.h"
#include "utils.h"

namespace {

constexpr int kConnectAttempts = 20;
constexpr int kConnectLimitMs = 1000;
// Only a fallback: a reader that has to leave is woken by the shutdown of its socket.
constexpr int kReceiveTimeoutMs = 100;
// A connection is given up when that many receives fail one after the other: after a first error
// the system usually reports the end of the connection.
constexpr int kReceiveFailuresMax = 2;
// What a peer claims to send is thrown away in pieces of this size, whatever the claim.
constexpr size_t kTempBufferBytes = 65536;

// A new connection has room for a few bytes: they go at once or not at all.
bool sendAtOnce(int socket, std::span<const uint8_t> bytes) {
    ssize_t count = 0;
    do {
        count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    } while (count < 0 && errno == EINTR);
    return count >= 0;
}

}  // namespace

StreamReceiverTcp::StreamReceiverTcp(uint32_t ip, uint8_t number)
    : ip_address(ip),
      stream_number(number),
      temp_buffer(kTempBufferBytes),
      streamReaderThread([this] { streamReaderThreadFunction(); }) {}

StreamReceiverTcp::~StreamReceiverTcp() {
    EndWaits();
    {
        const std::lock_guard lock(mutexSocketReady);
        streamReaderThreadQuit = true;
        tcp_socket.ShutDown();
    }
    cvSocketReady.notify_one();
    streamReaderThread.join();
}

void StreamReceiverTcp::InitStream(uint8_t stream_format, uint8_t header_format,
                                   uint32_t header_size, uint32_t frame_size_max) {
    const std::lock_guard lock(onrcv_mutex);
    headerSize = header_size;
    streamFormat = stream_format;
    headerFormat = header_format;
    maxFrameSize = frame_size_max;
}

void StreamReceiverTcp::ensureTcpConnection(uint16_t port) {
    const std::lock_guard one_at_a_time(mutex_connect);
    if (isConnectionUp()) return;
    const std::array<uint8_t, 2> opening{KELO_IMAGE_MAGIC, stream_number};
    for (int attempt = 1; attempt <= kConnectAttempts; ++attempt) {
        if (WaitsEnded()) return;
        kelo::Log("ensureTcpConnection(): connect TCP, attempt %d/%d\n", attempt, kConnectAttempts);
        TcpConnection connection = tcp_connect(ip_address, port);
        if (!connection.IsOpen()) continue;
        if (sendAtOnce(connection.Get(), opening)) {
            handOver(std::move(connection));
            return;
        }
        kelo::Log("ensureTcpConnection(): send() failed, connection failed to establish.\n");
    }
    if (WaitsEnded()) return;
    kelo::Log("ensureTcpConnection(): connection not up after %d attempts, giving up\n",
              kConnectAttempts);
}

bool StreamReceiverTcp::isConnectionUp() {
    const std::lock_guard lock(mutexSocketReady);
    const TcpConnection& newest = handed_over.empty() ? tcp_socket : handed_over.back();
    if (!newest.IsOpen() || !is_tcp_connected(newest.Get(), stream_number)) return false;
    // The system still takes a message for a peer that has closed. No image comes from such a peer:
    // the reader is about to notice.
    pollfd state{newest.Get(), POLLRDHUP, 0};
    int ready = 0;
    do {
        ready = poll(&state, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready == 0;
}

bool StreamReceiverTcp::is_tcp_connected(int socket, uint8_t stream) {
    const TTcpStreamPacketHeader probe{
        .magicNumber = KELO_IMAGE_MAGIC,
        .streamNumber = stream,
        .type = kelo_htonl(TCP_SYNC_MESSAGE),
        .size = 0,
    };
    // Without waiting: the peer need not read what the library sends.
    if (send(socket, &probe, sizeof(probe), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return true;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
    kelo::Log("is_tcp_connected: TCP socket not alive, send failed (%s)\n",
              systemErrorText(errno).c_str());
    return false;
}

TcpConnection StreamReceiverTcp::tcp_connect(uint32_t ip, uint16_t port) {
    kelo::Log("tcp_connect: Opening TCP socket...\n");
    FileDescriptor socket(AboveStandardStreams(
        ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP)));
    if (!socket.IsOpen()) {
        kelo::Log("tcp_connect: ERROR opening socket\n");
        return {};
    }
    if (!connectTcpSocket(socket, ip, port, kConnectLimitMs, [this] { return !WaitsEnded(); })) {
        kelo::Log("tcp_connect: ERROR connecting TCP socket.\n");
        return {};
    }
    kelo::Log("tcp_connect: connected\n");
    makeTcpSocketWait(socket, kReceiveTimeoutMs);
    return TcpConnection(std::move(socket));
}

void StreamReceiverTcp::handOver(TcpConnection connection) {
    {
        const std::lock_guard lock(mutexSocketReady);
        handed_over.push_back(std::move(connection));
        // The earlier ones are dead. The reader still takes what they hold, but must not wait.
        tcp_socket.ShutDown();
        std::for_each(handed_over.begin(), handed_over.end() - 1,
                      [](const TcpConnection& earlier) { earlier.ShutDown(); });
    }
    cvSocketReady.notify_one();
}

void StreamReceiverTcp::streamReaderThreadFunction() {
    kelo::NameThisThread("kelo-tcp");
    while (takeConnection()) {
        try {
            readConnection();
        } catch (const std::exception& e) {
            kelo::Log("TCP: stream %d: Reading ended: %s\n", stream_number, e.what());
        }
        dropConnection();
    }
}

// Waits for the next connection. False when the thread has to end.
bool StreamReceiverTcp::takeConnection() {
    std::unique_lock lock(mutexSocketReady);
    cvSocketReady.wait(lock, [this] { return streamReaderThreadQuit || !handed_over.empty(); });
    if (streamReaderThreadQuit) return false;
    tcp_socket = std::move(handed_over.front());
    handed_over.pop_front();
    return true;
}

void StreamReceiverTcp::dropConnection() {
    TcpConnection ended;
    const std::lock_guard lock(mutexSocketReady);
    ended = std::move(tcp_socket);
}

void StreamReceiverTcp::readConnection() {
    receive_failures = 0;
    while (receive_failures < kReceiveFailuresMax && readMessage()) {
    }
}

bool StreamReceiverTcp::readMessage() {
    TTcpStreamPacketHeader header{};
    switch (tcpReceiveAll(&header, sizeof(header))) {
        case Received::Ended:
            return false;
        case Received::Failed:
            kelo::Log("TCP: stream %d: Failed to transfer TCP transfer header.\n", stream_number);
            return true;
        case Received::Complete:
            break;
    }
    const uint32_t size = kelo_ntohl(header.size);
    if (header.magicNumber == KELO_IMAGE_MAGIC && kelo_ntohl(header.type) == TCP_IMAGE_MESSAGE) {
        return receiveImage(size);
    }
    return skip(size) != Received::Ended;
}

bool StreamReceiverTcp::receiveImage(uint32_t size) {
    THeaderImage header{};
    // A message too short for the header is passed over, so that the next one is read in step.
    const bool is_too_short = size < sizeof(header);
    const Received received =
        is_too_short ? Received::Failed : tcpReceiveAll(&header, sizeof(header));
    if (received == Received::Ended) return false;
    if (received == Received::Failed) {
        kelo::Log("TCP: stream %d: Failed to transfer image header through TCP\n", stream_number);
        return is_too_short ? skip(size) != Received::Ended : true;
    }

    const uint32_t length = size - uint32_t{sizeof(header)};
    BufferInfo image = describeImage(header);
    unsigned char* data = allocateImage(image.bufferLength);
    if (data == nullptr) {
        kelo::Log("TCP: stream %d: image %u dropped, no buffer of %u bytes can be had.\n",
                  stream_number, image.imageNumber, image.bufferLength);
        return skip(length) != Received::Ended;
    }
    image.buffer = reinterpret_cast<uintptr_t>(data);
    const auto give_back = [this](unsigned char* unused) { ca.deallocate(unused); };
    std::unique_ptr<unsigned char, decltype(give_back)> memory(data, give_back);
    if (!receiveImageData(image, length)) return false;
    const std::lock_guard lock(onrcv_mutex);
    (void)memory.release();
    finish(image);
    return true;
}

BufferInfo StreamReceiverTcp::describeImage(const THeaderImage& header) {
    const std::lock_guard lock(onrcv_mutex);
    BufferInfo image{};
    image.streamNumber = stream_number;
    image.streamFormat = streamFormat;
    image.headerType = headerFormat;
    image.headerSize = static_cast<uint8_t>(headerSize);
    image.imageWidth = kelo_ntohs(header.NS_image_width);
    image.imageHeight = kelo_ntohs(header.NS_image_height);
    image.allPacketsAmount = kelo_ntohs(header.NS_all_packets);
    image.imageNumber = kelo_ntohl(header.NL_image_number);
    image.bufferLength = maxFrameSize;
    return image;
}

// What does not fit into the image is passed over. An image that could not be read whole is queued
// all the same, with no bytes counted.
bool StreamReceiverTcp::receiveImageData(BufferInfo& image, uint32_t length) {
    const uint32_t fitting = std::min(length, image.bufferLength);
    const size_t remaining = length - fitting;
    if (remaining > 0) {
        kelo::Log("TCP: stream %d: Allocated buffer to small for incoming TCP transfer.\n",
                  stream_number);
    }
    size_t received = 0;
    const Received result = receiveGathered(imageData(image), fitting, received);
    // The memory may still hold another image.
    clearImage(image, received, image.bufferLength);
    switch (result) {
        case Received::Ended:
            return false;
        case Received::Failed:
            kelo::Log("TCP: stream %d: Failed to transfer %u bytes for the image\n", stream_number,
                      fitting);
            break;
        case Received::Complete:
            image.bufferStatistics.bytesReceived = fitting;
            break;
    }
    const Received rest = skip(remaining);
    if (rest == Received::Failed) {
        kelo::Log("TCP: stream %d: Failed to transfer %zu bytes for the remaining data\n",
                  stream_number, remaining);
    }
    return rest != Received::Ended;
}

StreamReceiverTcp::Received StreamReceiverTcp::skip(size_t length) {
    while (length > 0) {
        const size_t piece = std::min(length, temp_buffer.size());
        const Received received = tcpReceiveAll(temp_buffer.data(), piece);
        if (received != Received::Complete) return received;
        length -= piece;
    }
    return Received::Complete;
}

// A time-out ends a wait for a piece too, so a slow peer's bytes are taken as they come.
StreamReceiverTcp::Received StreamReceiverTcp::receiveGathered(void* buffer, size_t length,
                                                               size_t& received) {
    {
        const TcpGathering gathering(tcp_socket.Get(), length);
        const Received result = tcpReceiveAll(buffer, gathering.Length(), received);
        if (result != Received::Complete) return result;
    }
    return tcpReceiveAll(buffer, length, received);
}

StreamReceiverTcp::Received StreamReceiverTcp::tcpReceiveAll(void* buffer, size_t length,
                                                             size_t& received) {
    auto* bytes = static_cast<std::byte*>(buffer);
    while (received < length) {
        const ssize_t count =
            recv(tcp_socket.Get(), bytes + received, length - received, MSG_WAITALL);
        const int error = errno;
        if (streamReaderThreadQuit) return Received::Ended;
        if (count > 0) {
            received += static_cast<size_t>(count);
            receive_failures = 0;
        } else if (count == 0) {
            kelo::Log("TCP: stream %d: Connection closed.\n", stream_number);
            return Received::Ended;
        } else if (error != EAGAIN && error != EWOULDBLOCK && error != EINTR) {
            kelo::Log("TCP: stream %d: error recv %d (%s)\n", stream_number,
                      static_cast<int>(count), systemErrorText(error).c_str());
            ++receive_failures;
            return Received::Failed;
        }
    }
    return Received::Complete;
}

StreamReceiverTcp::Received StreamReceiverTcp::tcpReceiveAll(void* buffer, size_t length) {
    size_t received = 0;
    return tcpReceiveAll(buffer, length, received);
}
