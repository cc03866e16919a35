// Streams over TCP, against a camera's side that the test plays itself on real loopback sockets.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "FileDescriptor.h"
#include "ImageStreamReceiverTcp.h"
#include "in_time.h"
#include "log_capture.h"
#include "stream_wire.h"
#include "thread_state.h"
#include "utils.h"
#include "wait_for.h"
#include "waiting_call.h"

namespace {

// That many calls fail: sends with EPIPE, new sockets with EMFILE.
std::atomic<int> sends_to_fail{0};
std::atomic<int> sockets_to_fail{0};

}  // namespace

// These take the place of the system's: some failures cannot be had from a real peer at will.
extern "C" ssize_t send(int socket, const void* data, size_t length, int flags) {
    if (sends_to_fail > 0) {
        --sends_to_fail;
        errno = EPIPE;
        return -1;
    }
    return syscall(SYS_sendto, socket, data, length, flags, nullptr, 0);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (sockets_to_fail > 0) {
        --sockets_to_fail;
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

namespace kelo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kCamera = INADDR_LOOPBACK;
constexpr uint8_t kStream = 3;
constexpr uint32_t kFrameSize = 16;
constexpr int kLongMs = 60000;

// The camera's end of one connection.
class Peer {
public:
    explicit Peer(FileDescriptor socket) : socket_(std::move(socket)) {
        const int on = 1;
        setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }

    Peer& Send(const std::string& bytes) {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = syscall(SYS_sendto, socket_.Get(), bytes.data() + sent,
                                          bytes.size() - sent, MSG_NOSIGNAL, nullptr, 0);
            if (count < 0) throw std::runtime_error("the peer cannot send");
            sent += static_cast<size_t>(count);
        }
        return *this;
    }
    // Sends until the other end is gone.
    void SendEndlessly(const std::string& bytes) {
        while (syscall(SYS_sendto, socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL, nullptr,
                       0) > 0) {
        }
    }
    std::string Receive(size_t length) {
        std::string bytes(length, '\0');
        const ssize_t count = recv(socket_.Get(), bytes.data(), length, MSG_WAITALL);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }
    void Close() { socket_.Reset(); }
    void Reset() {
        const linger at_once{1, 0};
        setsockopt(socket_.Get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
        Close();
    }

private:
    FileDescriptor socket_;
};

// The camera's listening port.
class Listener {
public:
    explicit Listener(int backlog = 16) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = Address(0);
        void* untyped = &address;
        socklen_t length = sizeof(address);
        if (bind(socket_.Get(), static_cast<sockaddr*>(untyped), length) != 0 ||
            listen(socket_.Get(), backlog) != 0 ||
            getsockname(socket_.Get(), static_cast<sockaddr*>(untyped), &length) != 0) {
            throw std::runtime_error("the peer cannot listen");
        }
        port_ = ntohs(address.sin_port);
    }

    uint16_t Port() const { return port_; }
    bool IsConnectionWaiting(int timeout_ms = 0) const {
        pollfd waiting{socket_.Get(), POLLIN, 0};
        return poll(&waiting, 1, timeout_ms) == 1;
    }
    Peer Accept() {
        if (!IsConnectionWaiting(kLongMs)) throw std::runtime_error("nobody connects");
        return Peer(FileDescriptor(accept(socket_.Get(), nullptr, nullptr)));
    }
    // Connections that nobody accepts, until further ones are not answered.
    void FillUp() {
        for (int i = 0; i < 4; ++i) {
            fillers_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            sockaddr_in address = Address(port_);
            const void* untyped = &address;
            connect(fillers_.back().Get(), static_cast<const sockaddr*>(untyped), sizeof(address));
        }
    }
    void Close() { socket_.Reset(); }

private:
    static sockaddr_in Address(uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        return address;
    }

    FileDescriptor socket_;
    uint16_t port_ = 0;
    std::vector<FileDescriptor> fillers_;
};

size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

size_t ResidentMiB() {
    size_t total = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) >> 20;
}

// An image message whose data is the text.
std::string ImageMessage(uint32_t image, const std::string& data) {
    return TcpMessage{.body = ImagePacket{.image = image, .count = 9, .payload = data}.Bytes()}
        .Bytes();
}

class TcpStreamTest : public testing::Test {
protected:
    TcpStreamTest() { front_->InitCamera(kCamera, 1, 1, listener_.Port()); }
    ~TcpStreamTest() override { sends_to_fail = sockets_to_fail = 0; }

    void InitStream(uint32_t frame_size = kFrameSize, uint8_t stream = kStream) {
        front_->InitStream(kCamera, stream, 0x11, 0x22, 0x133, frame_size);
    }
    // The connection that InitStream makes. When the machine stands still for an attempt's whole
    // second, the attempt is given up, and its connection is there all the same: it ends without an
    // opening.
    Peer InitStreamAndAccept(uint32_t frame_size = kFrameSize, uint8_t stream = kStream) {
        const std::string given_up = "tcp_connect: ERROR connecting TCP socket.";
        const size_t before = log_.Count(given_up);
        InitStream(frame_size, stream);
        for (size_t i = before; i < log_.Count(given_up); ++i)
            EXPECT_EQ(listener_.Accept().Receive(2), "");
        return listener_.Accept();
    }
    // A stream with its connection, whose opening has been read.
    Peer Connect(uint32_t frame_size = kFrameSize, uint8_t stream = kStream) {
        Peer peer = InitStreamAndAccept(frame_size, stream);
        EXPECT_EQ(peer.Receive(2), std::string(Wire().U8(0xAC).U8(stream)));
        return peer;
    }
    // Takes the next image: its record, and its data in data_.
    BufferInfo Take() {
        BufferInfo* image = front_->GetImage(kLongMs, kCamera, kStream);
        if (image == nullptr) throw std::runtime_error("no image comes");
        const BufferInfo copy = *image;
        data_ = Data(copy);
        front_->PopImage(kCamera, kStream, image);
        return copy;
    }
    bool AwaitLines(const std::string& line, size_t count = 1) {
        return WaitFor([&] { return log_.Count(line) >= count; });
    }
    // The stream reads on after what was sent before.
    void ExpectInStep(Peer& peer) {
        peer.Send(ImageMessage(4711, "in step"));
        EXPECT_EQ(Take().imageNumber, 4711u);
        EXPECT_EQ(data_.substr(0, 7), "in step");
    }

    static std::string Line(const std::string& text) { return "TCP: stream 3: " + text; }

    LogCapture log_;
    Listener listener_;
    std::unique_ptr<ImageStreamReceiverTcp> front_ = std::make_unique<ImageStreamReceiverTcp>();
    std::string data_;
};

// ---- Connecting

TEST_F(TcpStreamTest, FirstInitStreamConnectsAndOpensTheStream) {
    EXPECT_TRUE(front_->Init());
    EXPECT_EQ(front_->GetStreamPort(), 0);
    Connect();
    EXPECT_THAT(
        log_.Lines(),
        testing::IsSupersetOf({"ensureTcpConnection(): connect TCP, attempt 1/20",
                               "tcp_connect: Opening TCP socket...", "tcp_connect: connected"}));
    front_->Exit();
}

TEST_F(TcpStreamTest, CameraWithoutAPortFailsWithTheMapsText) {
    try {
        front_->InitStream(kCamera + 1, 0, 0, 0, 0, 16);
        FAIL() << "nothing is thrown";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "map::at");
    }
}

TEST_F(TcpStreamTest, EachStreamHasAConnectionOfItsOwn) {
    Peer first = Connect(kFrameSize, 0);
    Peer second = Connect(kFrameSize, 1);
    second.Send(ImageMessage(2, "b"));
    first.Send(ImageMessage(1, "a"));
    EXPECT_EQ(front_->GetImage(kLongMs, kCamera, 1)->imageNumber, 2u);
    EXPECT_EQ(front_->GetImage(kLongMs, kCamera, 0)->imageNumber, 1u);
    EXPECT_EQ(front_->GetImage(0, kCamera, 1)->streamNumber, 1);
}

TEST_F(TcpStreamTest, RefusedConnectionIsTriedTwentyTimesWithoutLosingADescriptor) {
    listener_.Close();
    const size_t before = OpenDescriptors();
    InitStream();
    std::vector<std::string> expected;
    for (int attempt = 1; attempt <= 20; ++attempt) {
        expected.push_back("ensureTcpConnection(): connect TCP, attempt " +
                           std::to_string(attempt) + "/20");
        expected.push_back("tcp_connect: Opening TCP socket...");
        expected.push_back("tcp_connect: ERROR connecting TCP socket.");
    }
    expected.push_back("ensureTcpConnection(): connection not up after 20 attempts, giving up");
    EXPECT_EQ(log_.Lines(), expected);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
}

TEST_F(TcpStreamTest, SocketThatCannotBeMadeIsLogged) {
    sockets_to_fail = 19;
    InitStream();
    listener_.Accept();
    EXPECT_EQ(log_.Count("tcp_connect: ERROR opening socket"), 19u);
}

TEST_F(TcpStreamTest, OpeningThatCannotBeSentIsTriedAgain) {
    sends_to_fail = 2;
    Peer first = InitStreamAndAccept();
    EXPECT_EQ(log_.Count("ensureTcpConnection(): send() failed, connection failed to establish."),
              2u);
    EXPECT_TRUE(log_.Contains("ensureTcpConnection(): connect TCP, attempt 3/20"));
    EXPECT_EQ(first.Receive(2), "");  // the failed ones are closed
    EXPECT_EQ(listener_.Accept().Receive(2), "");
    Peer peer = listener_.Accept();
    peer.Receive(2);
    ExpectInStep(peer);
}

TEST_F(TcpStreamTest, LiveConnectionIsProbedAndKept) {
    const std::string connecting = "tcp_connect: Opening TCP socket...";
    Peer peer = Connect();
    const size_t connected = log_.Count(connecting);
    InitStream();
    EXPECT_EQ(peer.Receive(10), std::string(Wire().U8(0xAC).U8(kStream).U32(0).U32(0)));
    EXPECT_FALSE(listener_.IsConnectionWaiting());
    EXPECT_EQ(log_.Count(connecting), connected);
    ExpectInStep(peer);
}

TEST_F(TcpStreamTest, SecondInitStreamFlushesNothingAndCountsForLaterImages) {
    Peer peer = Connect();
    peer.Send(ImageMessage(1, "first"));
    ASSERT_NE(front_->GetImage(kLongMs, kCamera, kStream), nullptr);
    front_->InitStream(kCamera, kStream, 1, 2, 3, 32);
    peer.Send(ImageMessage(2, "second"));
    EXPECT_EQ(Take().bufferLength, 16u);
    const BufferInfo second = Take();
    EXPECT_EQ(second.bufferLength, 32u);
    EXPECT_EQ(second.streamFormat, 1);
    EXPECT_EQ(second.headerType, 2);
    EXPECT_EQ(second.headerSize, 3);
    EXPECT_EQ(second.streamStatistics.imagesReceived, 2u);
}

TEST_F(TcpStreamTest, PeerThatDoesNotReadIsAlive) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const FileDescriptor own(ends[0]);
    FileDescriptor peer(ends[1]);
    const std::string block(4096, 'x');
    while (send(own.Get(), block.data(), block.size(), MSG_DONTWAIT) > 0) {
    }
    EXPECT_TRUE(StreamReceiverTcp::is_tcp_connected(own.Get(), kStream));
    EXPECT_THAT(log_.Lines(), IsEmpty());
    peer.Reset();
    EXPECT_FALSE(StreamReceiverTcp::is_tcp_connected(own.Get(), kStream));
    EXPECT_THAT(log_.Lines(),
                ElementsAre("is_tcp_connected: TCP socket not alive, send failed (Broken pipe)"));
}

// ---- Messages

TEST_F(TcpStreamTest, ImageMessageBecomesAnImage) {
    Peer peer = Connect();
    peer.Send(ImageMessage(0x01020304, "image data"));
    const BufferInfo image = Take();
    EXPECT_EQ(image.streamNumber, kStream);
    EXPECT_EQ(image.streamFormat, 0x11);
    EXPECT_EQ(image.headerType, 0x22);
    EXPECT_EQ(image.headerSize, 0x33);  // the low 8 bits
    EXPECT_EQ(image.imageWidth, 640);
    EXPECT_EQ(image.imageHeight, 480);
    EXPECT_EQ(image.allPacketsAmount, 9);
    EXPECT_EQ(image.imageNumber, 0x01020304u);
    EXPECT_EQ(image.bufferLength, kFrameSize);
    EXPECT_EQ(data_, "image data" + std::string(6, '\0'));
    EXPECT_EQ(image.bufferStatistics.bytesReceived, 10u);
    EXPECT_EQ(image.bufferStatistics.errorFlag, 0);
    // Of the stream's counters only this one is kept on TCP.
    EXPECT_EQ(image.streamStatistics.imagesReceived, 1u);
    EXPECT_EQ(image.streamStatistics.imagesSkipped, 0u);
    EXPECT_EQ(image.streamStatistics.missingPackets, 0u);
    EXPECT_EQ(image.streamStatistics.bytesReceived, 0u);
    EXPECT_EQ(image.streamStatistics.bytesLost, 0u);
}

TEST_F(TcpStreamTest, ResetOfStatisticsBeginsCountingAnew) {
    Peer peer = Connect();
    peer.Send(ImageMessage(1, "a"));
    EXPECT_EQ(Take().streamStatistics.imagesReceived, 1u);
    front_->ResetStatistics(kCamera);
    peer.Send(ImageMessage(2, "b"));
    EXPECT_EQ(Take().streamStatistics.imagesReceived, 1u);
}

TEST_F(TcpStreamTest, ImageThatFillsTheFrameIsWhole) {
    Peer peer = Connect();
    peer.Send(ImageMessage(1, "0123456789abcdef"));
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 16u);
    EXPECT_EQ(data_, "0123456789abcdef");
    peer.Send(ImageMessage(2, ""));
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 0u);
    EXPECT_EQ(data_, std::string(16, '\0'));
}

TEST_F(TcpStreamTest, ImageThatIsTooLargeIsTruncatedInStep) {
    Peer peer = Connect();
    peer.Send(ImageMessage(1, "0123456789abcdef" + std::string(200000, 'x')));
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 16u);
    EXPECT_EQ(data_, "0123456789abcdef");
    EXPECT_EQ(log_.Count(Line("Allocated buffer to small for incoming TCP transfer.")), 1u);
    ExpectInStep(peer);
}

struct SkippedMessage {
    std::string name;
    TcpMessage message;
    std::vector<std::string> lines;
};

class TcpSkippedMessageTest : public TcpStreamTest,
                              public testing::WithParamInterface<SkippedMessage> {};

TEST_P(TcpSkippedMessageTest, IsPassedOverInStep) {
    Peer peer = Connect();
    const size_t lines_before = log_.Lines().size();
    peer.Send(GetParam().message.Bytes());
    ExpectInStep(peer);
    auto lines = log_.Lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(lines_before));
    EXPECT_EQ(lines, GetParam().lines);
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
}

std::vector<SkippedMessage> SkippedMessages() {
    const std::string image = ImagePacket{}.Bytes();
    std::vector<SkippedMessage> messages{
        {"Sync", {.type = 0, .body = ""}, {}},
        {"SyncWithABody", {.type = 0, .body = "body"}, {}},
        {"UnknownType", {.type = 2, .body = std::string(100000, 'x')}, {}},
        {"HugeType", {.type = 0xFFFFFFFF, .body = "body"}, {}},
        {"WrongMagic", {.body = image, .magic = 0xAB}, {}},
        {"WrongMagicWithoutABody", {.body = "", .magic = 0}, {}},
    };
    for (size_t size = 0; size < 14; ++size) {
        messages.push_back({"ImageOfSize" + std::to_string(size),
                            {.body = image.substr(0, size)},
                            {"TCP: stream 3: Failed to transfer image header through TCP"}});
    }
    return messages;
}

INSTANTIATE_TEST_SUITE_P(Messages, TcpSkippedMessageTest, testing::ValuesIn(SkippedMessages()),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(TcpStreamTest, MessagesMayComeByteByByte) {
    Peer peer = Connect();
    for (const char byte : TcpMessage{.type = 0}.Bytes() + ImageMessage(5, "slow")) {
        peer.Send(std::string(1, byte));
    }
    EXPECT_EQ(Take().imageNumber, 5u);
    EXPECT_EQ(data_.substr(0, 4), "slow");
}

// Large enough for the system to be asked to gather its bytes.
std::string LargeImage() {
    std::mt19937 random(4711);
    std::string data(300000, '\0');
    std::generate(data.begin(), data.end(), [&] { return static_cast<char>(random()); });
    return data;
}

TEST_F(TcpStreamTest, LargeImagesMayComeInPiecesOfAnySize) {
    const std::string data = LargeImage();
    Peer peer = Connect(static_cast<uint32_t>(data.size()));
    const std::string messages = ImageMessage(1, data) + ImageMessage(2, data.substr(1));
    std::mt19937 random(1);
    for (size_t sent = 0; sent < messages.size();) {
        const size_t length = std::uniform_int_distribution<size_t>(1, 1 << random() % 17)(random);
        peer.Send(messages.substr(sent, length));
        sent += length;
    }
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, data.size());
    EXPECT_EQ(data_, data);
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, data.size() - 1);
    EXPECT_EQ(data_, data.substr(1) + '\0');
    ExpectInStep(peer);
}

TEST_F(TcpStreamTest, EndOfALargeImageIsNotHeldBackUntilTheNext) {
    const std::string data = LargeImage();
    Peer peer = Connect(static_cast<uint32_t>(data.size()));
    // Held back, each would come when a receive's time is over.
    RepeatUntilInTime([&] {
        const Stopwatch time;
        for (uint32_t number = 0; number < 20; ++number) {
            const std::string message = ImageMessage(number, data);
            constexpr size_t kEnd = 100;
            peer.Send(message.substr(0, message.size() - kEnd));
            EXPECT_TRUE(WaitFor([] { return ThreadState(ThreadNamed("kelo-tcp")) == 'S'; }));
            peer.Send(message.substr(message.size() - kEnd));
            EXPECT_EQ(Take().imageNumber, number);
            EXPECT_EQ(data_, data);
        }
        return time.Elapsed() < std::chrono::seconds(1);
    });
}

TEST_F(TcpStreamTest, PeerMayPauseWithinALargeImage) {
    const std::string data = LargeImage();
    const std::string message = ImageMessage(1, data);
    Peer peer = Connect(static_cast<uint32_t>(data.size()));
    // Too few for the system to wake the reader, which takes them all the same when its receive's
    // time is over.
    constexpr size_t kFew = 1000;
    peer.Send(message.substr(0, kFew));
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    peer.Send(message.substr(kFew));
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, data.size());
    EXPECT_EQ(data_, data);
}

TEST_F(TcpStreamTest, FrameThatNoMemoryCanBeHadForIsDroppedInStep) {
    Peer peer = Connect(0);
    peer.Send(ImageMessage(1, "nowhere"));
    EXPECT_TRUE(AwaitLines(Line("image 1 dropped, no buffer of 0 bytes can be had.")));
    InitStream(0x80000001);
    peer.Send(ImageMessage(2, "nowhere"));
    EXPECT_TRUE(AwaitLines(Line("image 2 dropped, no buffer of 2147483649 bytes can be had.")));
    InitStream(kFrameSize);
    ExpectInStep(peer);
}

// ---- Peers that end early

TEST_F(TcpStreamTest, PeerMayCloseAtEachByteOfAnImageMessage) {
    const std::string message = ImageMessage(1, "abcdef");
    const size_t before = OpenDescriptors();
    for (size_t length = 0; length < message.size(); ++length) {
        Peer peer = Connect();
        peer.Send(message.substr(0, length)).Close();
        ASSERT_TRUE(AwaitLines(Line("Connection closed."), length + 1));
        ASSERT_TRUE(WaitFor([&] { return OpenDescriptors() == before; }));
    }
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
    EXPECT_FALSE(log_.ContainsPrefix("TCP: stream 3: Failed"));
    Peer peer = Connect();
    ExpectInStep(peer);
}

TEST_F(TcpStreamTest, PeerMayCloseAtEachByteOfWhatIsPassedOver) {
    const std::string oversize = ImageMessage(1, "0123456789abcdef??");
    const std::string unknown = TcpMessage{.type = 7, .body = "abc"}.Bytes();
    size_t closed = 0;
    for (const std::string& message :
         {oversize.substr(0, 41), oversize.substr(0, 40), oversize.substr(0, 30),
          unknown.substr(0, 12), TcpMessage{.body = "short"}.Bytes().substr(0, 12)}) {
        Peer peer = Connect();
        peer.Send(message).Close();
        ASSERT_TRUE(AwaitLines(Line("Connection closed."), ++closed));
    }
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
}

class TcpResetTest : public TcpStreamTest {
protected:
    // Sends the bytes, breaks the connection, and waits until the reader has let go of it.
    void SendAndReset(const std::string& bytes, uint32_t frame_size = kFrameSize) {
        Peer peer = Connect(frame_size);
        peer.Send(bytes).Reset();
        EXPECT_TRUE(AwaitLines(Line("Connection closed.")));
        EXPECT_TRUE(log_.Contains(Line("error recv -1 (Connection reset by peer)")));
    }
};

TEST_F(TcpResetTest, BrokenHeaderIsLogged) {
    SendAndReset(ImageMessage(1, "abcdef").substr(0, 5));
    EXPECT_EQ(log_.Count(Line("Failed to transfer TCP transfer header.")), 1u);
}

TEST_F(TcpResetTest, BrokenImageHeaderIsLogged) {
    SendAndReset(ImageMessage(1, "abcdef").substr(0, 20));
    EXPECT_EQ(log_.Count(Line("Failed to transfer image header through TCP")), 1u);
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
}

TEST_F(TcpResetTest, BrokenImageIsQueuedAsFarAsItCame) {
    SendAndReset(ImageMessage(1, "abcdef").substr(0, 27));
    EXPECT_EQ(log_.Count(Line("Failed to transfer 6 bytes for the image")), 1u);
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 0u);
    EXPECT_EQ(data_, "abc" + std::string(13, '\0'));
}

TEST_F(TcpResetTest, BrokenLargeImageIsQueuedAsFarAsItCame) {
    const std::string data = LargeImage();
    const size_t came = 20000;
    SendAndReset(ImageMessage(1, data).substr(0, 24 + came), static_cast<uint32_t>(data.size()));
    EXPECT_EQ(log_.Count(Line("Failed to transfer 300000 bytes for the image")), 1u);
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 0u);
    EXPECT_EQ(data_, data.substr(0, came) + std::string(data.size() - came, '\0'));
}

TEST_F(TcpResetTest, BrokenRemainderOfATruncatedImageIsLogged) {
    SendAndReset(ImageMessage(1, "abcdefgh").substr(0, 30), 4);
    EXPECT_EQ(log_.Count(Line("Failed to transfer 4 bytes for the remaining data")), 1u);
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 4u);
    EXPECT_EQ(data_, "abcd");
}

TEST_F(TcpResetTest, TruncatedImageThatBreaksWithinTheFrameIsDroppedWithItsConnection) {
    SendAndReset(ImageMessage(1, "abcdefgh").substr(0, 26), 4);
    EXPECT_EQ(log_.Count(Line("Failed to transfer 4 bytes for the image")), 1u);
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
}

TEST_F(TcpResetTest, BrokenBodyOfAnUnknownMessageEndsTheConnectionOnly) {
    SendAndReset(TcpMessage{.type = 9, .body = "abcdef"}.Bytes().substr(0, 12));
    EXPECT_FALSE(log_.ContainsPrefix(Line("Failed")));
    Peer peer = Connect();
    ExpectInStep(peer);
}

// ---- One connection after the other

TEST_F(TcpStreamTest, DeadConnectionIsReadToItsEndBeforeTheNext) {
    Peer dead = Connect();
    dead.Send(ImageMessage(1, "one") + ImageMessage(2, "two") +
              ImageMessage(3, "three").substr(0, 26));
    // The reader is in the middle of the third.
    ASSERT_TRUE(WaitFor([&] { return front_->GetPendingCount(kCamera, kStream) == 2; }));
    sends_to_fail = 1;
    Peer next = InitStreamAndAccept();
    EXPECT_TRUE(log_.Contains("is_tcp_connected: TCP socket not alive, send failed (Broken pipe)"));
    next.Receive(2);
    next.Send(ImageMessage(4, "four"));
    EXPECT_EQ(Take().imageNumber, 1u);
    EXPECT_EQ(Take().imageNumber, 2u);
    EXPECT_EQ(Take().imageNumber, 4u);
    EXPECT_EQ(log_.Count(Line("Connection closed.")), 1u);
    EXPECT_EQ(dead.Receive(1), "");
}

TEST_F(TcpStreamTest, ConnectionsHandedOverInQuickSuccessionAreAllReadInOrder) {
    std::vector<Peer> peers;
    for (uint32_t number = 0; number < 20; ++number) {
        sends_to_fail = number == 0 ? 0 : 1;
        peers.push_back(InitStreamAndAccept());
        peers.back().Receive(2);
        peers.back().Send(ImageMessage(number, "x"));
    }
    for (uint32_t number = 0; number < 20; ++number)
        EXPECT_EQ(Take().imageNumber, number);
}

TEST_F(TcpStreamTest, PeerThatHasClosedIsReplacedBeforeTheReaderNotices) {
    for (int i = 0; i < 200; ++i) {
        Peer peer = Connect();
        peer.Close();
    }
    Peer peer = Connect();
    ExpectInStep(peer);
}

TEST_F(TcpStreamTest, TenThousandReconnectionsLoseNoDescriptor) {
    const size_t before = OpenDescriptors();
    Connect().Close();
    ASSERT_TRUE(AwaitLines(Line("Connection closed.")));
    kelo::Logging(false);
    for (int i = 0; i < 10000; ++i) {
        InitStream();
        Peer peer = listener_.Accept();
        if (i % 2 == 0) peer.Reset();
    }
    kelo::Logging(true);
    // Connections of attempts that were given up have put off the acceptance of later ones.
    while (listener_.IsConnectionWaiting())
        listener_.Accept();
    EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() == before; }));
}

// ---- Peers that would stall the library

class TcpStallTest : public TcpStreamTest {
protected:
    // Whatever the peer does, the camera is closed in a time that is far below a second's wait.
    bool EndsQuickly() {
        const Stopwatch time;
        front_->BeginClosing(kCamera);
        front_->ExitCamera(kCamera);
        front_->EndClosing(kCamera);
        return time.Elapsed() < kQuick;
    }

    static constexpr std::chrono::milliseconds kQuick{900};
};

TEST_F(TcpStallTest, PeerThatSendsNothing) {
    RepeatUntilInTime([&] {
        Peer peer = Connect();
        return EndsQuickly();
    });
    EXPECT_FALSE(log_.Contains(Line("Connection closed.")));
}

TEST_F(TcpStallTest, PeerThatStopsWithinAnImage) {
    RepeatUntilInTime([&] {
        Peer peer = Connect();
        peer.Send(ImageMessage(1, "abcdef").substr(0, 27));
        return EndsQuickly();
    });
}

TEST_F(TcpStallTest, PeerThatStopsWithinALargeImage) {
    const std::string data = LargeImage();
    RepeatUntilInTime([&] {
        Peer peer = Connect(static_cast<uint32_t>(data.size()));
        peer.Send(ImageMessage(1, data).substr(0, 20000));
        return EndsQuickly();
    });
}

TEST_F(TcpStallTest, PeerThatNeverConnects) {
    front_->InitCamera(kCamera, 1, 1, 1);
    RepeatUntilInTime([&] {
        InitStream();
        return EndsQuickly();
    });
}

class TcpFloodTest : public TcpStallTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(TcpFloodTest, BodyOfFourGigabytesIsPassedOverInBoundedMemory) {
    const std::string block(1 << 20, 'x');
    RepeatUntilInTime([&] {
        Peer peer = Connect();
        peer.Send(TcpMessage{.type = GetParam(), .size = 0xFFFFFFFF}.Bytes());
        if (GetParam() == 1) peer.Send(ImagePacket{}.Bytes());
        const size_t before = ResidentMiB();
        for (int i = 0; i < 64; ++i)
            peer.Send(block);
        EXPECT_LT(ResidentMiB(), before + 16);

        WaitingCall<bool> flood([&] {
            peer.SendEndlessly(block);
            return true;
        });
        const bool is_quick = EndsQuickly();
        EXPECT_TRUE(flood.Returns());
        return is_quick;
    });
}

INSTANTIATE_TEST_SUITE_P(Types, TcpFloodTest, testing::Values(1u, 7u), [](const auto& tested) {
    return tested.param == 1 ? "TooLargeImage" : "UnknownMessage";
});

class TcpUnansweredTest : public TcpStallTest {
protected:
    TcpUnansweredTest() {
        unanswering_.FillUp();
        front_->InitCamera(kCamera, 1, 1, unanswering_.Port());
    }

    // InitStream hangs in its first attempt; then it has to end by what the test does, before the
    // attempt's own time is over.
    void ExpectAbandoned(const std::function<void()>& end) {
        const std::string opening = "tcp_connect: Opening TCP socket...";
        RepeatUntilInTime([&] {
            front_ = std::make_unique<ImageStreamReceiverTcp>();
            front_->InitCamera(kCamera, 1, 1, unanswering_.Port());
            const size_t lines = log_.Count(opening);
            const size_t before = OpenDescriptors();
            const Stopwatch time;
            WaitingCall<bool> init([&] {
                InitStream();
                return true;
            });
            EXPECT_TRUE(AwaitLines(opening, lines + 1));
            const bool hangs = !init.Returns(std::chrono::milliseconds(30));
            end();
            init.Get();
            if (time.Elapsed() >= kQuick) return false;
            EXPECT_TRUE(hangs);
            EXPECT_EQ(log_.Count(opening), lines + 1);
            EXPECT_EQ(OpenDescriptors(), before);
            return true;
        });
        EXPECT_FALSE(log_.ContainsPrefix("ensureTcpConnection(): connection not up"));
    }

    Listener unanswering_{0};
};

TEST_F(TcpUnansweredTest, AttemptIsAbandonedWhenTheCameraCloses) {
    ExpectAbandoned([&] { front_->BeginClosing(kCamera); });
    front_->EndClosing(kCamera);
    // The stream was not listed: there is nothing that would have to be forgotten.
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kCamera, kStream); }));
}

TEST_F(TcpUnansweredTest, AttemptIsAbandonedWhenTheLibraryIsReleased) {
    ExpectAbandoned([&] { front_->EndAllWaits(); });
}

TEST_F(TcpUnansweredTest, AttemptOfAKnownStreamIsAbandonedWhenTheCameraIsForgotten) {
    const std::string opening = "tcp_connect: Opening TCP socket...";
    RepeatUntilInTime([&] {
        front_->InitCamera(kCamera, 1, 1, listener_.Port());
        const size_t closed = log_.Count(Line("Connection closed."));
        Connect().Close();
        EXPECT_TRUE(AwaitLines(Line("Connection closed."), closed + 1));
        front_->InitCamera(kCamera, 1, 1, unanswering_.Port());
        const size_t lines = log_.Count(opening);
        const Stopwatch time;
        WaitingCall<bool> init([&] {
            InitStream();
            return true;
        });
        EXPECT_TRUE(AwaitLines(opening, lines + 1));
        front_->ExitCamera(kCamera);
        EXPECT_TRUE(init.Returns());
        return time.Elapsed() < kQuick;
    });
}

TEST_F(TcpUnansweredTest, NoAttemptIsMadeWhileTheCameraCloses) {
    front_->InitCamera(kCamera, 1, 1, listener_.Port());
    front_->BeginClosing(kCamera);
    InitStream();
    EXPECT_THAT(log_.Lines(), IsEmpty());
    front_->EndClosing(kCamera);
    Peer peer = Connect();
    ExpectInStep(peer);
}

TEST_F(TcpUnansweredTest, AttemptIsGivenASecond) {
    const Stopwatch time;
    WaitingCall<bool> init([&] {
        InitStream();
        return true;
    });
    EXPECT_TRUE(AwaitLines("ensureTcpConnection(): connect TCP, attempt 2/20"));
    EXPECT_GE(time.Elapsed(), std::chrono::milliseconds(900));
    EXPECT_TRUE(log_.Contains("tcp_connect: ERROR connecting TCP socket."));
    front_->EndAllWaits();
}

// ---- Waiting for images

TEST_F(TcpStreamTest, ClosingAndForgettingEndTheWaitForAnImage) {
    Peer peer = Connect();
    const auto get = [&] { return front_->GetImage(60000, kCamera, kStream); };
    WaitingCall<BufferInfo*> closed(get);
    closed.AwaitSleep();
    front_->BeginClosing(kCamera);
    EXPECT_EQ(closed.Get(), nullptr);
    front_->ExitCamera(kCamera);
    front_->EndClosing(kCamera);

    Peer again = Connect();
    WaitingCall<BufferInfo*> forgotten(get);
    forgotten.AwaitSleep();
    front_->ExitCamera(kCamera);
    EXPECT_EQ(forgotten.Get(), nullptr);
    EXPECT_EQ(again.Receive(1), "");
}

TEST_F(TcpStreamTest, UnknownStreamsAnswerAsIfEmpty) {
    EXPECT_EQ(front_->GetPendingCount(kCamera, 9), 0u);
    EXPECT_TRUE(front_->PopImage(kCamera, 9, nullptr));
    EXPECT_TRUE(IsNullAtOnce([&] { return front_->GetImage(kLongMs, kCamera, 9); }));
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, 9));
}

TEST_F(TcpStreamTest, QueuedImagesCanBeCleared) {
    Peer peer = Connect();
    peer.Send(ImageMessage(1, "a") + ImageMessage(2, "b"));
    ASSERT_TRUE(WaitFor([&] { return front_->GetPendingCount(kCamera, kStream) == 2; }));
    front_->ClearBuffer(kCamera, kStream);
    EXPECT_TRUE(front_->IsBufferEmpty(kCamera, kStream));
    ExpectInStep(peer);
}

}  // namespace
}  // namespace kelo::test
