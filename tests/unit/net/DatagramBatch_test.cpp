#include "DatagramBatch.h"

#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/udp.h>

#include "UDPSocket.h"
#include "network_namespace.h"

namespace {

constexpr uint32_t kLoopback = kelo::test::Address(127, 0, 0, 1);

class DatagramBatchTest : public testing::Test {
protected:
    DatagramBatchTest() { receiver.setReceiveTimeout(20000); }

    void Send(const std::string& text) {
        ASSERT_EQ(static_cast<ssize_t>(text.size()),
                  sender.sendto(text.data(), text.size(), kLoopback, receiver.getPort()));
    }
    // Leaves as one buffer that the kernel cuts into datagrams of segment bytes; on loopback it
    // arrives uncut where the receiver allows that.
    void SendSegmented(const std::string& text, int segment) {
        ASSERT_EQ(0, setsockopt(sender.getNativeHandle(), IPPROTO_UDP, UDP_SEGMENT, &segment,
                                sizeof(segment)));
        Send(text);
        segment = 0;
        setsockopt(sender.getNativeHandle(), IPPROTO_UDP, UDP_SEGMENT, &segment, sizeof(segment));
    }
    static std::vector<std::string> Texts(const DatagramBatch& batch) {
        std::vector<std::string> texts;
        for (const TDatagram& datagram : batch.Datagrams()) {
            texts.emplace_back(static_cast<const char*>(datagram.data),
                               static_cast<size_t>(datagram.length));
        }
        return texts;
    }
    // Everything up to the datagram "end", one batch after the other.
    std::vector<std::string> ReceiveAll(DatagramBatch& batch) {
        Send("end");
        std::vector<std::string> texts;
        while (texts.empty() || texts.back() != "end") {
            if (batch.Receive(receiver.getNativeHandle()) < 0) break;
            for (const std::string& text : Texts(batch))
                texts.push_back(text);
        }
        if (!texts.empty()) texts.pop_back();
        return texts;
    }

    UDPSocket receiver{kLoopback, 0};
    UDPSocket sender{kLoopback, 0};
};

TEST_F(DatagramBatchTest, TakesWhatWaitsWithOneCallInOrder) {
    DatagramBatch batch(8, 100, false);
    for (const char* text : {"one", "", "three"})
        Send(text);
    ASSERT_EQ(3, batch.Receive(receiver.getNativeHandle()));
    EXPECT_EQ(8u, batch.Bytes());
    EXPECT_FALSE(batch.IsFull());
    EXPECT_THAT(Texts(batch), testing::ElementsAre("one", "", "three"));
    EXPECT_EQ(kLoopback, batch.Datagrams().front().ip);
}

TEST_F(DatagramBatchTest, LeavesWhatDoesNotFitForTheNextCall) {
    DatagramBatch batch(2, 100, false);
    for (const char* text : {"one", "two", "three"})
        Send(text);
    ASSERT_EQ(2, batch.Receive(receiver.getNativeHandle()));
    EXPECT_TRUE(batch.IsFull());
    ASSERT_EQ(1, batch.Receive(receiver.getNativeHandle()));
    EXPECT_FALSE(batch.IsFull());
    EXPECT_THAT(Texts(batch), testing::ElementsAre("three"));
}

TEST_F(DatagramBatchTest, FailsWhenNothingComesInTime) {
    receiver.setReceiveTimeout(1);
    DatagramBatch batch(2, 100, false);
    EXPECT_EQ(-1, batch.Receive(receiver.getNativeHandle()));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_TRUE(batch.Datagrams().empty());
    EXPECT_EQ(0u, batch.Bytes());
}

TEST_F(DatagramBatchTest, CutsWhatIsTooLong) {
    DatagramBatch batch(2, 4, false);
    Send("too long");
    ASSERT_EQ(1, batch.Receive(receiver.getNativeHandle()));
    EXPECT_THAT(Texts(batch), testing::ElementsAre("too "));
}

class MergedDatagrams : public DatagramBatchTest, public testing::WithParamInterface<bool> {};

TEST_P(MergedDatagrams, AreToldApartAgainWhateverTheKernelMerges) {
    ASSERT_TRUE(!GetParam() || receiver.allowMerging());
    DatagramBatch batch(4, 16384, GetParam());
    std::string text;
    std::vector<std::string> expected;
    for (char c = 'a'; c < 'a' + 20; ++c) {
        expected.emplace_back(1000, c);
        text += expected.back();
    }
    expected.emplace_back("a short end");
    text += expected.back();
    SendSegmented(text, 1000);
    expected.emplace_back("alone");
    Send("alone");
    EXPECT_EQ(expected, ReceiveAll(batch));
}

// More would leave the cache before they are handled. Then come single ones again, many at once.
TEST_F(DatagramBatchTest, TakesFewerMessagesWhileEachHoldsMuch) {
    ASSERT_TRUE(receiver.allowMerging());
    receiver.requestReceiveBuffer(4 << 20);
    DatagramBatch batch(32, 16384, true);
    for (int i = 0; i < 20; ++i)
        SendSegmented(std::string(60000, 'a'), 1000);
    for (int i = 0; i < 40; ++i)
        Send("b");
    ASSERT_EQ(2, batch.Receive(receiver.getNativeHandle())) << "as if each held 64 KiB";
    for (int large = 18; large > 0; large -= 2) {
        ASSERT_EQ(2, batch.Receive(receiver.getNativeHandle())) << "of 60 KB each";
        EXPECT_TRUE(batch.IsFull());
    }
    ASSERT_EQ(2, batch.Receive(receiver.getNativeHandle())) << "not known yet to be small";
    ASSERT_EQ(32, batch.Receive(receiver.getNativeHandle()));
    ASSERT_EQ(6, batch.Receive(receiver.getNativeHandle()));
    EXPECT_FALSE(batch.IsFull());
}

TEST_P(MergedDatagrams, AreCutOneByOne) {
    ASSERT_TRUE(!GetParam() || receiver.allowMerging());
    DatagramBatch batch(4, 10, GetParam());
    SendSegmented(std::string(1000, 'a') + std::string(1000, 'b') + "c", 1000);
    EXPECT_THAT(ReceiveAll(batch),
                testing::ElementsAre(std::string(10, 'a'), std::string(10, 'b'), "c"));
}

INSTANTIATE_TEST_SUITE_P(Merging, MergedDatagrams, testing::Bool());

}  // namespace
