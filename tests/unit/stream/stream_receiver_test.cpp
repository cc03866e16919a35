#include <deque>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StreamReceiver.h"
#include "in_time.h"
#include "log_capture.h"
#include "stream_wire.h"
#include "wait_for.h"
#include "waiting_call.h"

namespace kelo::test {
namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kCamera = 0x0A000001;

class StreamReceiverTest : public testing::Test {
protected:
    StreamReceiverTest() { Init(16); }

    void Init(uint32_t frame_size) { stream_.InitStream(0x24, 7, 0x1FF, frame_size); }
    void Send(const ImagePacket& packet) {
        const std::string bytes = packet.Bytes();
        stream_.OnRcv(kCamera, bytes.data(), static_cast<int>(bytes.size()), 0);
    }
    // Packets first to last of an image, each "x".
    void SendRange(uint32_t image, uint32_t first, uint32_t last, uint32_t count) {
        for (uint32_t number = first; number <= last; ++number) {
            Send({.image = image,
                  .number = static_cast<uint16_t>(number),
                  .count = static_cast<uint16_t>(count),
                  .payload = "x"});
        }
    }
    TOutlook Outlook() {
        const std::lock_guard lock(stream_.onrcv_mutex);
        return stream_.takeOutlook();
    }
    void Tick() { stream_.finishTransfersIfNeeded(); }
    // The stream finds no packet since the last tick.
    void LetTimePass() {
        Tick();
        Tick();
    }
    uint32_t Pending() { return stream_.GetPendingCount(); }
    // Takes the oldest image: its record, and its data in data_.
    BufferInfo Take() {
        BufferInfo* image = stream_.GetImage(0);
        if (image == nullptr) throw std::runtime_error("no image is finished");
        const BufferInfo copy = *image;
        data_ = Data(copy);
        stream_.PopImage(image);
        return copy;
    }

    LogCapture log_;
    StreamReceiver stream_{kCamera, 3};
    std::string data_;
};

// ---- Whole images

TEST_F(StreamReceiverTest, ImageWhosePacketsComeInOrderCompletesOnItsLast) {
    Send({.image = 9, .number = 0, .count = 3, .payload = "abcd"});
    Send({.image = 9, .number = 1, .count = 3, .payload = "efgh"});
    EXPECT_EQ(Pending(), 0u);
    Send({.image = 9, .number = 2, .count = 3, .payload = "ij"});
    ASSERT_EQ(Pending(), 1u);
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 10u);
    EXPECT_EQ(data_, "abcdefghij\0\0\0\0\0\0"s);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(StreamReceiverTest, RecordCarriesTheHeaderAndTheStreamsParameters) {
    Send({.image = 0x01020304, .count = 1, .payload = "abc", .width = 0x1122, .height = 0x3344});
    const BufferInfo image = Take();
    EXPECT_EQ(image.streamNumber, 3);
    EXPECT_EQ(image.streamFormat, 0x24);
    EXPECT_EQ(image.headerType, 7);
    EXPECT_EQ(image.headerSize, 0xFF);  // the low 8 bits
    EXPECT_EQ(image.imageWidth, 0x1122);
    EXPECT_EQ(image.imageHeight, 0x3344);
    EXPECT_EQ(image.allPacketsAmount, 1);
    EXPECT_EQ(image.imageNumber, 0x01020304u);
    EXPECT_EQ(image.bufferLength, 16u);
    EXPECT_EQ(image.bufferStatistics.errorFlag, 0);
    EXPECT_EQ(image.bufferStatistics.missingPackets, 0);
    EXPECT_EQ(image.bufferStatistics.bytesLost, 0u);
    EXPECT_EQ(image.streamStatistics.imagesReceived, 1u);
    EXPECT_EQ(image.streamStatistics.bytesReceived, 3u);
}

TEST_F(StreamReceiverTest, PacketsAreReorderedWithinAndAcrossImages) {
    Send({.image = 1, .number = 1, .count = 2, .payload = "CD"});
    Send({.image = 2, .number = 0, .count = 2, .payload = "ef"});
    Send({.image = 2, .number = 1, .count = 2, .payload = "gh"});
    EXPECT_EQ(Pending(), 0u);
    Send({.image = 1, .number = 0, .count = 2, .payload = "AB"});
    EXPECT_EQ(Pending(), 2u);
    EXPECT_EQ(Take().imageNumber, 1u);
    EXPECT_EQ(data_.substr(0, 4), "ABCD");
    EXPECT_EQ(Take().imageNumber, 2u);
    EXPECT_EQ(data_.substr(0, 4), "efgh");
}

TEST_F(StreamReceiverTest, BufferOfAPoppedImageIsUsedAgainAndCleared) {
    Send({.image = 1, .payload = "0123456789abcdef"});
    const BufferInfo first = Take();
    Send({.image = 2, .payload = "A"});
    const BufferInfo second = Take();
    EXPECT_EQ(second.buffer, first.buffer);
    EXPECT_EQ(data_, "A"s + std::string(15, '\0'));
}

TEST_F(StreamReceiverTest, LastPacketThatComesFirstIsMovedWhenAFullOneComes) {
    Send({.image = 1, .number = 2, .count = 3, .payload = "zz"});
    Send({.image = 1, .number = 0, .count = 3, .payload = "aaaa"});
    Send({.image = 1, .number = 1, .count = 3, .payload = "bbbb"});
    Take();
    EXPECT_EQ(data_, "aaaabbbbzz\0\0\0\0\0\0"s);
}

TEST_F(StreamReceiverTest, MovedSliceIsClippedAtBothPlaces) {
    Init(8);
    // "zzz" is placed at 6, where 2 bytes fit; then it belongs to 4. What it leaves stays.
    Send({.image = 1, .number = 2, .count = 3, .payload = "zzz"});
    Send({.image = 1, .number = 0, .count = 3, .payload = "aa"});
    LetTimePass();
    Take();
    EXPECT_EQ(data_, "aa\0\0zzzz"s);
    // Its place lies behind the frame before or after.
    Send({.image = 2, .number = 2, .count = 3, .payload = "zzzzz"});
    Send({.image = 2, .number = 0, .count = 3, .payload = "aaaaaa"});
    LetTimePass();
    Take();
    EXPECT_EQ(data_, "aaaaaa\0\0"s);
}

TEST_F(StreamReceiverTest, ImageOfOnePacketCompletesAtOnce) {
    Send({.image = 5, .number = 0, .count = 1, .payload = "one"});
    EXPECT_EQ(Take().imageNumber, 5u);
    EXPECT_EQ(data_.substr(0, 3), "one");
}

TEST_F(StreamReceiverTest, PayloadBehindTheFrameIsRefusedButCounted) {
    Init(8);
    for (uint16_t number : {0, 1, 2}) {
        Send({.image = 1, .number = number, .count = 3, .payload = "abcdef"});
    }
    const BufferInfo image = Take();
    EXPECT_EQ(data_, "abcdefab");
    EXPECT_EQ(image.bufferStatistics.bytesReceived, 18u);
    EXPECT_EQ(image.streamStatistics.bytesReceived, 18u);
}

TEST_F(StreamReceiverTest, PayloadFarBehindTheFrameIsRefused) {
    Send({.image = 1, .number = 65534, .count = 65535, .payload = std::string(16370, 'x')});
    Send({.image = 1, .number = 2047, .count = 65535, .payload = std::string(16370, 'x')});
    LetTimePass();
    EXPECT_EQ(Take().bufferStatistics.bytesReceived, 16370u);  // the first one was too new
}

// ---- The beginning of a stream, numbers that jump

TEST_F(StreamReceiverTest, FirstPacketMayBeAnyOfAnyImageAndCountsNoSkippedImages) {
    Send({.image = 77, .number = 2, .count = 4, .payload = "cc"});
    LetTimePass();
    const BufferInfo image = Take();
    EXPECT_EQ(image.imageNumber, 77u);
    EXPECT_EQ(image.streamStatistics.imagesSkipped, 0u);
    EXPECT_EQ(image.bufferStatistics.missingPackets, 3);
    EXPECT_EQ(image.bufferStatistics.bytesLost, 6u);
    EXPECT_EQ(image.bufferStatistics.errorFlag, 1);
    EXPECT_EQ(data_.substr(0, 6), "\0\0\0\0cc"s);
}

TEST_F(StreamReceiverTest, ImageNumbersJumpedOverCountAsSkipped) {
    Send({.image = 1});
    Send({.image = 5});
    Take();
    EXPECT_EQ(Take().streamStatistics.imagesSkipped, 3u);
}

TEST_F(StreamReceiverTest, ImageNumbersJumpedOverBehindAnImageUnderReceptionCountAsSkipped) {
    Send({.image = 1, .number = 1, .count = 2});
    Send({.image = 4});
    Send({.image = 1, .number = 0, .count = 2});
    EXPECT_EQ(Take().streamStatistics.imagesSkipped, 0u);
    EXPECT_EQ(Take().streamStatistics.imagesSkipped, 2u);
}

TEST_F(StreamReceiverTest, ImageNumberWrapsWithoutSkipping) {
    Send({.image = 0xFFFFFFFF});
    Send({.image = 0});
    Take();
    EXPECT_EQ(Take().streamStatistics.imagesSkipped, 0u);
}

TEST_F(StreamReceiverTest, LatePacketOfACompletedImageRestartsTheWindowThere) {
    Send({.image = 5});
    Send({.image = 5, .number = 1, .count = 3, .payload = "late"});
    LetTimePass();
    EXPECT_EQ(Take().imageNumber, 5u);
    const BufferInfo late = Take();
    EXPECT_EQ(late.imageNumber, 5u);
    EXPECT_EQ(late.bufferStatistics.missingPackets, 2);
    EXPECT_EQ(late.streamStatistics.imagesSkipped, 0xFFFFFFFFu);  // 5 - 6
}

// ---- Losses

TEST_F(StreamReceiverTest, GapIsWrittenOffOnceMoreThan409ArrivalsWaitBehindIt) {
    SendRange(7, 1, 409, 411);
    EXPECT_EQ(Pending(), 0u);
    Send({.image = 7, .number = 410, .count = 411, .payload = "x"});
    ASSERT_EQ(Pending(), 1u);
    const BufferInfo image = Take();
    EXPECT_EQ(image.bufferStatistics.missingPackets, 1);
    EXPECT_EQ(image.bufferStatistics.bytesLost, 1u);
    EXPECT_EQ(image.streamStatistics.missingPackets, 1u);
    EXPECT_EQ(image.streamStatistics.bytesLost, 1u);
}

TEST_F(StreamReceiverTest, GapStaysOpenWhile409ArrivalsWait) {
    SendRange(7, 1, 409, 410);
    EXPECT_EQ(Pending(), 0u);
    Send({.image = 7, .number = 0, .count = 410, .payload = "x"});
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 0);
}

TEST_F(StreamReceiverTest, PacketOfAPositionWrittenOffIsTooOld) {
    SendRange(7, 1, 410, 500);
    Send({.image = 7, .number = 0, .count = 500, .payload = "x"});
    EXPECT_THAT(log_.Lines(), ElementsAre("Invalid packet number (too old) 0 < 411 (sliding window "
                                          "position) (image nr 7)."));
}

TEST_F(StreamReceiverTest, DuplicateIsCopiedAndCountedAgain) {
    Send({.image = 1, .number = 1, .count = 2, .payload = "old"});
    Send({.image = 1, .number = 1, .count = 2, .payload = "new"});
    Send({.image = 1, .number = 0, .count = 2, .payload = "aaa"});
    const BufferInfo image = Take();
    EXPECT_EQ(data_.substr(0, 6), "aaanew");
    EXPECT_EQ(image.bufferStatistics.bytesReceived, 9u);
    EXPECT_EQ(image.streamStatistics.bytesReceived, 9u);
}

TEST_F(StreamReceiverTest, DuplicatesCountAsArrivalsBehindAGap) {
    for (int copy = 0; copy < 409; ++copy)
        SendRange(1, 1, 1, 2);
    EXPECT_EQ(Pending(), 0u);
    SendRange(1, 1, 1, 2);
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 1);
}

TEST_F(StreamReceiverTest, PacketNumberBehindTheCountLeavesAnEmptyImage) {
    Send({.image = 9, .number = 4, .count = 4, .payload = "abc"});
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Invalid packet number 4 >= 4 (all packets for image nr 9)."));
    LetTimePass();
    const BufferInfo image = Take();
    EXPECT_EQ(image.imageNumber, 9u);
    EXPECT_EQ(image.bufferStatistics.missingPackets, 4);
    EXPECT_EQ(image.bufferStatistics.bytesLost, 12u);
    EXPECT_EQ(image.bufferStatistics.bytesReceived, 0u);
    EXPECT_EQ(image.streamStatistics.bytesReceived, 0u);
}

// The last packet comes first, too far ahead to be placed: the first one makes sure how long they
// are, although it is just as long.
TEST_F(StreamReceiverTest, LengthThatTheFirstPacketMakesSureIsKept) {
    Send({.image = 1, .number = 2999, .count = 3000, .payload = "????"});
    Send({.image = 1, .number = 0, .count = 3000, .payload = "abcd"});
    Send({.image = 1, .number = 1, .count = 3000, .payload = "ef"});
    LetTimePass();
    Take();
    EXPECT_EQ(data_, "abcdef"s + std::string(10, '\0'));
}

TEST_F(StreamReceiverTest, CountOfZeroBeginsNoImage) {
    Send({.image = 1, .number = 0, .count = 2, .payload = "ab"});
    Send({.image = 2, .number = 0, .count = 0, .payload = "??"});
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Invalid packet number 0 >= 0 (all packets for image nr 2)."));
    Send({.image = 1, .number = 1, .count = 2, .payload = "cd"});
    Send({.image = 3});
    EXPECT_EQ(Take().bufferStatistics.errorFlag, 0);
    EXPECT_EQ(Take().imageNumber, 3u);
    EXPECT_EQ(Pending(), 0u);
}

TEST_F(StreamReceiverTest, CountThatChangesWithinAnImageDisturbsNothing) {
    Send({.image = 1, .number = 2, .count = 3, .payload = "z"});
    Send({.image = 1, .number = 0, .count = 9, .payload = "aa"});
    Send({.image = 2, .number = 0, .count = 1, .payload = "next"});
    Send({.image = 1, .number = 1, .count = 0, .payload = "bb"});
    EXPECT_EQ(Take().allPacketsAmount, 3);
    EXPECT_EQ(data_.substr(0, 6), "aabbz\0"s);
    EXPECT_EQ(Take().imageNumber, 2u);
    EXPECT_EQ(data_.substr(0, 4), "next");
}

// ---- Packets beyond the window

TEST_F(StreamReceiverTest, SixthTooNewPacketMovesTheWindowToItself) {
    SendRange(1, 0, 0, 3000);
    SendRange(1, 2049, 2053, 3000);  // the window reaches to 2048
    EXPECT_THAT(log_.Lines(), IsEmpty());
    SendRange(1, 2054, 2054, 3000);
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Too many too new packets received, recovering, moving sliding window.",
                            "Sliding window position: img nr 1, packet 2054."));
    SendRange(1, 2055, 2999, 3000);
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 2053);  // the five before it are lost
}

TEST_F(StreamReceiverTest, LastPositionOfTheWindowIsNotTooNew) {
    SendRange(1, 2047, 2047, 2048);
    LetTimePass();
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 2047);
}

TEST_F(StreamReceiverTest, MovementOfTheWindowForgetsTooNewPackets) {
    SendRange(1, 0, 0, 3000);
    SendRange(1, 2500, 2504, 3000);
    SendRange(1, 1, 1, 3000);
    SendRange(1, 2500, 2504, 3000);
    EXPECT_THAT(log_.Lines(), IsEmpty());
    SendRange(1, 2505, 2505, 3000);
    EXPECT_TRUE(log_.Contains("Sliding window position: img nr 1, packet 2505."));
}

TEST_F(StreamReceiverTest, RecoveryCompletesTheImagesThatItPasses) {
    SendRange(1, 0, 0, 2000);
    SendRange(2, 1, 1, 2000);
    for (int copy = 0; copy < 6; ++copy)
        SendRange(4, 3, 3, 10);
    ASSERT_EQ(Pending(), 2u);
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 1999);
    const BufferInfo second = Take();
    EXPECT_EQ(second.bufferStatistics.missingPackets, 1999);
    EXPECT_EQ(second.streamStatistics.missingPackets, 3998u + 0u);
    SendRange(4, 4, 9, 10);
    const BufferInfo moved_to = Take();
    EXPECT_EQ(moved_to.bufferStatistics.missingPackets, 3);
    EXPECT_EQ(moved_to.streamStatistics.imagesSkipped, 1u);
    EXPECT_TRUE(log_.Contains("Sliding window position: img nr 4, packet 3."));
}

TEST_F(StreamReceiverTest, ImagesOfTheLargestCountAreWrittenOffInFewSteps) {
    for (uint32_t image = 0; image < 20000; ++image) {
        SendRange(image, 65534, 65534, 65535);
        while (Pending() > 0)
            Take();
    }
    LetTimePass();
    BufferInfo last{};
    while (Pending() > 0)
        last = Take();
    EXPECT_EQ(last.imageNumber, 19999u);
    EXPECT_EQ(last.streamStatistics.imagesReceived, 20000u);
    EXPECT_EQ(last.streamStatistics.missingPackets +
                  last.streamStatistics.bytesReceived,  // a byte per packet that was not lost
              20000ull * 65535);
}

TEST_F(StreamReceiverTest, OldestImageMakesRoomWhenFarTooManyAreBegun) {
    for (uint32_t image = 1; image <= 512; ++image)
        SendRange(image, 1, 1, 1);
    EXPECT_EQ(Pending(), 0u);
    SendRange(513, 1, 1, 1);
    ASSERT_EQ(Pending(), 1u);
    EXPECT_EQ(Take().imageNumber, 1u);
    SendRange(514, 0, 0, 1);
    LetTimePass();
    ASSERT_EQ(Pending(), 513u);
    for (uint32_t image = 2; image <= 513; ++image) {
        EXPECT_EQ(Take().bufferStatistics.errorFlag, 1);
    }
    EXPECT_EQ(Take().bufferStatistics.errorFlag, 0);
}

// ---- Frames that no memory can be had for

class StreamReceiverFrameSizeTest : public StreamReceiverTest,
                                    public testing::WithParamInterface<uint32_t> {};

TEST_P(StreamReceiverFrameSizeTest, ImagesAreDroppedWithOneLineEach) {
    Init(GetParam());
    SendRange(1, 0, 2, 3);
    SendRange(2, 0, 2, 3);
    SendRange(1, 0, 2, 3);
    const std::string end =
        " dropped, no buffer of " + std::to_string(GetParam()) + " bytes can be had.";
    EXPECT_THAT(log_.Lines(), ElementsAre("Stream 3: image 1" + end, "Stream 3: image 2" + end));
    LetTimePass();
    EXPECT_EQ(Pending(), 0u);
    Init(16);
    SendRange(1, 0, 2, 3);
    EXPECT_EQ(Take().streamStatistics.imagesReceived, 1u);
}

INSTANTIATE_TEST_SUITE_P(SizesThatCannotBe, StreamReceiverFrameSizeTest,
                         testing::Values(0u, 0x80000001u, 0xFFFFFFFFu));

// ---- Time

TEST_F(StreamReceiverTest, SecondTickAfterTheLastPacketCompletesWhatIsThere) {
    SendRange(12, 0, 1, 3);
    SendRange(13, 1, 1, 2);
    Tick();
    EXPECT_EQ(Pending(), 0u);
    Tick();
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Image 12 completed (forcefully by timer - no new packets arrived).",
                            "Image 13 completed (forcefully by timer - no new packets arrived)."));
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 1);
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 1);
}

TEST_F(StreamReceiverTest, TicksBetweenPacketsCompleteNothing) {
    for (uint16_t number = 0; number < 5; ++number) {
        SendRange(1, number, number, 6);
        Tick();
    }
    SendRange(1, 5, 5, 6);
    EXPECT_EQ(Take().bufferStatistics.errorFlag, 0);
    LetTimePass();
    EXPECT_EQ(Pending(), 0u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(StreamReceiverTest, RestartCompletesPartialImagesAndKeepsTheOthersAndTheStatistics) {
    SendRange(1, 0, 0, 1);
    SendRange(2, 0, 0, 2);
    Init(32);
    EXPECT_THAT(log_.Lines(),
                ElementsAre("Image 2 completed (forcefully by timer - no new packets arrived)."));
    SendRange(40, 0, 0, 1);  // sets the window anew: nothing is skipped
    ASSERT_EQ(Pending(), 3u);
    EXPECT_EQ(Take().bufferLength, 16u);
    EXPECT_EQ(Take().bufferStatistics.missingPackets, 1);
    const BufferInfo image = Take();
    EXPECT_EQ(image.bufferLength, 32u);
    EXPECT_EQ(image.streamStatistics.imagesReceived, 3u);
    EXPECT_EQ(image.streamStatistics.imagesSkipped, 0u);
}

TEST_F(StreamReceiverTest, DatagramWithoutPayloadIsNoPacket) {
    Send({.payload = ""});
    LetTimePass();
    EXPECT_EQ(Pending(), 0u);
}

// ---- The queue

TEST_F(StreamReceiverTest, OldestImageIsReturnedAtOnceUntilItIsPopped) {
    SendRange(1, 0, 0, 1);
    SendRange(2, 0, 0, 1);
    BufferInfo* oldest = stream_.GetImage(60000);
    ASSERT_NE(oldest, nullptr);
    EXPECT_EQ(oldest->imageNumber, 1u);
    EXPECT_EQ(stream_.GetImage(60000), oldest);
    EXPECT_TRUE(stream_.PopImage(oldest));
    EXPECT_EQ(stream_.GetImage(60000)->imageNumber, 2u);
}

TEST_F(StreamReceiverTest, CopyOfARecordCannotBePopped) {
    SendRange(1, 0, 0, 1);
    BufferInfo copy = *stream_.GetImage(0);
    EXPECT_FALSE(stream_.PopImage(&copy));
    EXPECT_FALSE(stream_.PopImage(nullptr));
    EXPECT_EQ(log_.Count("PopImage: corresponding image buffer was not found, popimage failed"),
              2u);
    EXPECT_EQ(Pending(), 1u);
}

TEST_F(StreamReceiverTest, ImagesCanBePoppedInAnyOrder) {
    SendRange(1, 0, 0, 1);
    BufferInfo* first = stream_.GetImage(0);
    SendRange(2, 0, 0, 1);
    EXPECT_TRUE(stream_.PopImage(first));
    EXPECT_FALSE(stream_.PopImage(first));
    EXPECT_EQ(Take().imageNumber, 2u);
}

TEST_F(StreamReceiverTest, NothingQueuedIsNullAfterTheTime) {
    EXPECT_EQ(stream_.GetImage(0), nullptr);
    EXPECT_EQ(stream_.GetImage(-1), nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(stream_.GetImage(30), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

TEST_F(StreamReceiverTest, ImageThatCompletesEndsTheWait) {
    WaitingCall<BufferInfo*> wait([&] { return stream_.GetImage(60000); });
    wait.AwaitSleep();
    SendRange(4, 0, 0, 1);
    const BufferInfo* image = wait.Get();
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->imageNumber, 4u);
}

TEST_F(StreamReceiverTest, QueueStaysUsableWhileSomeoneWaits) {
    WaitingCall<BufferInfo*> wait([&] { return stream_.GetImage(60000); });
    wait.AwaitSleep();
    EXPECT_EQ(Pending(), 0u);
    stream_.ClearBuffer();
    EXPECT_FALSE(stream_.PopImage(nullptr));
    EXPECT_FALSE(wait.Returns(std::chrono::milliseconds(0)));
    stream_.EndWaits();
    EXPECT_EQ(wait.Get(), nullptr);
}

TEST_F(StreamReceiverTest, EndOfWaitsEndsAllOfThemForGood) {
    const auto get = [&] { return stream_.GetImage(60000); };
    WaitingCall<BufferInfo*> first(get);
    first.AwaitSleep();
    WaitingCall<BufferInfo*> behind_it(get);
    behind_it.AwaitSleep();
    stream_.EndWaits();
    EXPECT_EQ(first.Get(), nullptr);
    EXPECT_EQ(behind_it.Get(), nullptr);
    EXPECT_TRUE(IsNullAtOnce([&] { return stream_.GetImage(60000); }));
    SendRange(1, 0, 0, 1);
    EXPECT_NE(stream_.GetImage(60000), nullptr);
}

TEST_F(StreamReceiverTest, ClearingDropsFinishedImagesOnly) {
    SendRange(1, 0, 0, 1);
    SendRange(2, 0, 0, 1);
    SendRange(3, 0, 0, 2);
    EXPECT_FALSE(stream_.IsBufferEmpty());
    stream_.ClearBuffer();
    EXPECT_TRUE(stream_.IsBufferEmpty());
    SendRange(3, 1, 1, 2);
    EXPECT_EQ(Take().bufferStatistics.errorFlag, 0);
}

TEST_F(StreamReceiverTest, ResetOfStatisticsLeavesFinishedImagesAlone) {
    SendRange(1, 0, 0, 1);
    SendRange(9, 0, 0, 2);
    LetTimePass();
    stream_.ResetStatistics();
    SendRange(10, 0, 0, 1);
    EXPECT_EQ(Take().streamStatistics.imagesReceived, 1u);
    EXPECT_EQ(Take().streamStatistics.imagesSkipped, 7u);
    const StreamStatistics counted = Take().streamStatistics;
    EXPECT_EQ(counted.imagesReceived, 1u);
    EXPECT_EQ(counted.imagesSkipped, 0u);
    EXPECT_EQ(counted.missingPackets, 0u);
    EXPECT_EQ(counted.bytesReceived, 1u);
    EXPECT_EQ(counted.bytesLost, 0u);
}

TEST_F(StreamReceiverTest, NoImageIsEverDroppedBecauseNobodyTakesIt) {
    for (uint32_t image = 0; image < 5000; ++image)
        SendRange(image, 0, 0, 1);
    EXPECT_EQ(Pending(), 5000u);
    EXPECT_EQ(Take().imageNumber, 0u);
}

TEST_F(StreamReceiverTest, ThreadsMayReceiveTickReadAndResetAtTheSameTime) {
    std::atomic<bool> done{false};
    std::thread ticker([&] {
        while (!done) {
            Tick();
            stream_.ResetStatistics();
        }
    });
    uint32_t taken = 0;
    std::thread reader([&] {
        while (BufferInfo* image = stream_.GetImage(60000)) {
            taken += stream_.PopImage(image) ? 1u : 0u;
        }
    });
    for (uint32_t image = 0; image < 300; ++image)
        SendRange(image, 0, 1, 2);
    done = true;
    ticker.join();
    LetTimePass();
    WaitFor([&] { return Pending() == 0; });
    stream_.EndWaits();
    reader.join();
    EXPECT_GE(taken, 300u);
}

TEST(StreamReceiverLifeTest, DestructionGivesQueuedImagesBack) {
    const LogCapture log;
    {
        StreamReceiver stream(kCamera, 3);
        stream.InitStream(0, 0, 0, 16);
        const std::string bytes = ImagePacket{}.Bytes();
        stream.OnRcv(kCamera, bytes.data(), static_cast<int>(bytes.size()), 0);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// ---- An image that is nearly complete

class ExpectingStream : public StreamReceiver {
public:
    using StreamReceiver::isWaitedFor;
    using StreamReceiver::StreamReceiver;

    // An image whose last packet is still to come.
    void ReceiveNearlyAll(uint32_t image) {
        constexpr uint16_t kPackets = 1000;
        for (uint16_t number = 0; number < kPackets - 1; ++number)
            Send(image, number, kPackets);
        const std::lock_guard lock(onrcv_mutex);
        takeOutlook();
    }
    void ReceiveTheLast(uint32_t image) { Send(image, 999, 1000); }

private:
    void Send(uint32_t image, uint16_t number, uint16_t count) {
        const std::string bytes =
            ImagePacket{.image = image, .number = number, .count = count, .payload = "x"}.Bytes();
        OnRcv(kCamera, bytes.data(), static_cast<int>(bytes.size()), 0);
    }
};

class ImageIsDueTest : public testing::Test {
protected:
    ImageIsDueTest() { stream_.InitStream(0, 0, 0, 1000); }

    ExpectingStream stream_{kCamera, 3};
};

TEST_F(ImageIsDueTest, EndsNoWaitBeforeItIsThere) {
    WaitingCall<BufferInfo*> wait([&] { return stream_.GetImage(60000); });
    wait.AwaitSleep();
    stream_.ReceiveNearlyAll(1);
    wait.AwaitSleep();
    EXPECT_FALSE(wait.Returns(std::chrono::milliseconds(0)));
    stream_.ReceiveTheLast(1);
    const BufferInfo* image = wait.Get();
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->imageNumber, 1u);
}

TEST_F(ImageIsDueTest, LengthensNoWait) {
    const auto begin = std::chrono::steady_clock::now();
    WaitingCall<BufferInfo*> wait([&] { return stream_.GetImage(50); });
    wait.AwaitSleep();
    stream_.ReceiveNearlyAll(1);
    EXPECT_EQ(wait.Get(), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

TEST_F(ImageIsDueTest, IsToldToWhoeverWaits) {
    EXPECT_FALSE(stream_.isWaitedFor());
    WaitingCall<BufferInfo*> wait([&] { return stream_.GetImage(60000); });
    WaitFor([&] { return stream_.isWaitedFor(); });
    stream_.EndWaits();
    wait.Get();
    EXPECT_FALSE(stream_.isWaitedFor());
}

// One that was late is not watched for again so soon: that shows that it was watched for.
TEST_F(ImageIsDueTest, IsWatchedFor) {
    RepeatUntilInTime([] {
        ExpectingStream stream(kCamera, 3);
        stream.InitStream(0, 0, 0, 1000);
        const Stopwatch stopwatch;
        WaitingCall<BufferInfo*> wait([&] { return stream.GetImage(60000); });
        wait.AwaitSleep();
        stream.ReceiveNearlyAll(1);
        wait.AwaitSleep();
        stream.ReceiveTheLast(1);
        EXPECT_TRUE(stream.PopImage(wait.Get()));
        WaitingCall<BufferInfo*> next([&] { return stream.GetImage(60000); });
        next.AwaitSleep();
        const bool would_be_watched_for = stream.isWaitedFor();
        stream.EndWaits();
        next.Get();
        if (stopwatch.Elapsed() > std::chrono::milliseconds(150)) return false;
        EXPECT_FALSE(would_be_watched_for);
        return true;
    });
}

// ---- Whoever is woken for an image

TEST_F(StreamReceiverTest, NobodyIsWokenWhereNobodyWaits) {
    Send({.image = 1});
    EXPECT_FALSE(Outlook().wakes);
}

TEST_F(StreamReceiverTest, WhoeverWaitsIsSaidToBeWokenOnce) {
    WaitingCall<BufferInfo*> wait([&] { return stream_.GetImage(60000); });
    wait.AwaitSleep();
    EXPECT_FALSE(Outlook().wakes);
    Send({.image = 1});
    EXPECT_TRUE(Outlook().wakes);
    EXPECT_FALSE(Outlook().wakes);
    EXPECT_NE(wait.Get(), nullptr);
    Send({.image = 2});
    EXPECT_FALSE(Outlook().wakes);
}

// ---- The outlook

TEST_F(StreamReceiverTest, OutlookCountsThePacketsUpToTheImagesEnd) {
    const auto after = [&](uint32_t number) {
        SendRange(1, number, number, 10);
        return Outlook().until_wanted;
    };
    EXPECT_EQ(after(0), 9u);
    EXPECT_EQ(after(3), 6u) << "those before it may be lost";
    EXPECT_EQ(after(1), 6u);
    EXPECT_EQ(after(8), 1u);
    for (const uint32_t number : {2u, 4u, 5u, 6u, 7u})
        EXPECT_EQ(after(number), 1u);
    EXPECT_EQ(after(9), 0u);
}

TEST_F(StreamReceiverTest, OutlookIsNoneWithoutAnImageUnderReception) {
    EXPECT_EQ(Outlook().until_wanted, 0u);
    SendRange(1, 0, 9, 10);
    EXPECT_EQ(Outlook().until_wanted, 0u);
}

// Any packet may close the gap and complete the older one.
TEST_F(StreamReceiverTest, OutlookIsNoneWhileSeveralImagesAreUnderReception) {
    SendRange(1, 1, 9, 10);
    SendRange(2, 0, 1, 5);
    EXPECT_EQ(Outlook().until_wanted, 0u);
    SendRange(1, 0, 0, 10);
    EXPECT_EQ(Outlook().until_wanted, 3u);
}

// A late packet of a longer image says nothing of a shorter one's end.
TEST_F(StreamReceiverTest, OutlookIsNoneWhenItIsNotKnownHowFarTheImageIs) {
    SendRange(1, 0, 7, 10);
    SendRange(2, 0, 1, 5);
    SendRange(1, 8, 9, 10);
    EXPECT_EQ(Outlook().until_wanted, 0u);
}

TEST_F(StreamReceiverTest, OutlookTellsOnceThatAnImageHasBegun) {
    SendRange(1, 0, 1, 10);
    EXPECT_TRUE(Outlook().begins);
    EXPECT_FALSE(Outlook().begins);
    SendRange(1, 2, 3, 10);
    EXPECT_FALSE(Outlook().begins);
    SendRange(1, 4, 9, 10);
    SendRange(2, 0, 0, 10);
    EXPECT_TRUE(Outlook().begins);
}

TEST_F(StreamReceiverTest, PacketsToComeAreKnownWithoutALock) {
    EXPECT_EQ(stream_.packetsToCome(), UINT32_MAX) << "it has never sent anything";
    SendRange(1, 0, 1, 10);
    Outlook();
    EXPECT_EQ(stream_.packetsToCome(), 8u);
    SendRange(1, 2, 9, 10);
    Outlook();
    EXPECT_EQ(stream_.packetsToCome(), 10u) << "those of the next image";
    LetTimePass();
    EXPECT_EQ(stream_.packetsToCome(), UINT32_MAX) << "it has stopped";
}

}  // namespace
}  // namespace kelo::test
