// Waits for a piece of what comes, on a real connection over loopback.

#include <stdexcept>
#include <string>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "FileDescriptor.h"
#include "TcpGathering.h"
#include "wait_for.h"

namespace kelo::test {
namespace {

constexpr size_t kKiB = 1024;
constexpr size_t kMiB = 1024 * kKiB;
constexpr size_t kImage = 4 * kMiB;

class TcpGatheringTest : public testing::Test {
protected:
    TcpGatheringTest() {
        const FileDescriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        void* untyped = &address;
        socklen_t length = sizeof(address);
        if (bind(listener.Get(), static_cast<sockaddr*>(untyped), length) != 0 ||
            listen(listener.Get(), 1) != 0 ||
            getsockname(listener.Get(), static_cast<sockaddr*>(untyped), &length) != 0 ||
            connect(reader_.Get(), static_cast<sockaddr*>(untyped), length) != 0) {
            throw std::runtime_error("no connection");
        }
        sender_.Reset(accept(listener.Get(), nullptr, nullptr));
    }

    int Option(int name) const {
        int value = 0;
        socklen_t length = sizeof(value);
        EXPECT_EQ(getsockopt(reader_.Get(), SOL_SOCKET, name, &value, &length), 0);
        return value;
    }
    // The system doubles what is asked for, and bounds it.
    size_t BufferOf(size_t asked) const {
        const int value = static_cast<int>(asked);
        setsockopt(reader_.Get(), SOL_SOCKET, SO_RCVBUF, &value, sizeof(value));
        return static_cast<size_t>(Option(SO_RCVBUF));
    }
    size_t LowWaterMark() const { return static_cast<size_t>(Option(SO_RCVLOWAT)); }
    bool IsReady() const {
        pollfd waiting{reader_.Get(), POLLIN, 0};
        return poll(&waiting, 1, 0) == 1;
    }
    void Send(size_t length) const {
        const std::string bytes(length, 'x');
        ASSERT_EQ(send(sender_.Get(), bytes.data(), length, 0), static_cast<ssize_t>(length));
    }
    // Without taking them.
    bool HaveCome(size_t length) const {
        std::string bytes(length, '\0');
        return WaitFor([&] {
            return recv(reader_.Get(), bytes.data(), length, MSG_PEEK | MSG_DONTWAIT) ==
                   static_cast<ssize_t>(length);
        });
    }

    FileDescriptor reader_{::socket(AF_INET, SOCK_STREAM, 0)};
    FileDescriptor sender_;
};

TEST_F(TcpGatheringTest, APieceIsAnEighthOfTheBuffer) {
    const size_t piece = BufferOf(128 * kKiB) / 8;
    const TcpGathering gathering(reader_.Get(), kImage);
    EXPECT_EQ(gathering.Length(), kImage - piece);
    EXPECT_EQ(LowWaterMark(), piece);
}

TEST_F(TcpGatheringTest, APieceIsHalfOfTheImageAtMost) {
    BufferOf(192 * kKiB);
    const TcpGathering gathering(reader_.Get(), 64 * kKiB);
    EXPECT_EQ(gathering.Length(), 32 * kKiB);
    EXPECT_EQ(LowWaterMark(), 32 * kKiB);
}

TEST_F(TcpGatheringTest, APieceIsAMegabyteAtMost) {
    if (BufferOf(16 * kMiB) < 8 * kMiB) GTEST_SKIP() << "the system's limit for buffers is lower";
    const TcpGathering gathering(reader_.Get(), 16 * kMiB);
    EXPECT_EQ(gathering.Length(), 15 * kMiB);
}

TEST_F(TcpGatheringTest, SmallImagesAreNotGathered) {
    BufferOf(192 * kKiB);
    EXPECT_EQ(TcpGathering(reader_.Get(), 32 * kKiB - 1).Length(), 0u);
    EXPECT_EQ(TcpGathering(reader_.Get(), 0).Length(), 0u);
    EXPECT_EQ(TcpGathering(reader_.Get(), 32 * kKiB).Length(), 16 * kKiB);
}

TEST_F(TcpGatheringTest, SmallBuffersGatherNothing) {
    BufferOf(32 * kKiB);
    const TcpGathering gathering(reader_.Get(), kImage);
    EXPECT_EQ(gathering.Length(), 0u);
    EXPECT_EQ(LowWaterMark(), 1u);
}

TEST_F(TcpGatheringTest, NoSocketGathersNothing) {
    EXPECT_EQ(TcpGathering(-1, kImage).Length(), 0u);
}

TEST_F(TcpGatheringTest, NobodyIsWokenBeforeThePieceIsWhole) {
    BufferOf(128 * kKiB);
    const TcpGathering gathering(reader_.Get(), kImage);
    const size_t piece = kImage - gathering.Length();
    Send(piece - 1);
    ASSERT_TRUE(HaveCome(piece - 1));
    EXPECT_FALSE(IsReady());
    Send(1);
    EXPECT_TRUE(WaitFor([&] { return IsReady(); }));
}

TEST_F(TcpGatheringTest, TheEndOfTheConnectionWakesAtOnce) {
    BufferOf(128 * kKiB);
    const TcpGathering gathering(reader_.Get(), kImage);
    Send(1);
    ASSERT_TRUE(HaveCome(1));
    EXPECT_FALSE(IsReady());
    sender_.Reset();
    EXPECT_TRUE(WaitFor([&] { return IsReady(); }));
}

TEST_F(TcpGatheringTest, AfterwardsEachByteWakes) {
    BufferOf(128 * kKiB);
    { const TcpGathering gathering(reader_.Get(), kImage); }
    EXPECT_EQ(LowWaterMark(), 1u);
    Send(1);
    EXPECT_TRUE(WaitFor([&] { return IsReady(); }));
}

}  // namespace
}  // namespace kelo::test
