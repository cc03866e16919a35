// Bytes of TCP image streams, against a simple reader of the same messages.
// Input: frame size, length of what the first connection carries; the rest comes over a second one.

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "StreamReceiverTcp.h"
#include "fuzz.h"
#include "input.h"
#include "paired_sockets.h"

using kelo::fuzz::Fail;
using kelo::fuzz::Input;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;

namespace {

constexpr uint32_t kFrameSizes[] = {64, 1, 13, 1000, 65536, 0, UINT32_MAX};
constexpr uint32_t kLargestFrame = uint32_t{1} << 31;
constexpr uint8_t kStream = 3;
constexpr uint8_t kFormat = 0x24;
constexpr uint8_t kHeaderFormat = 5;
constexpr uint32_t kHeaderSize = 300;  // only the low 8 bits are told

struct ExpectedImage {
    uint32_t number;
    uint16_t packets;
    uint16_t width;
    uint16_t height;
    std::vector<uint8_t> data;  // what was sent and fits
};

// What one connection brings: whole messages only.
void ReadMessages(std::span<const uint8_t> bytes, uint32_t frame_size,
                  std::vector<ExpectedImage>& images) {
    while (bytes.size() >= 10) {
        Input header(bytes.data(), 10);
        const uint8_t magic = header.U8();
        (void)header.U8();
        const uint32_t type = header.U32();
        const uint32_t size = header.U32();
        bytes = bytes.subspan(10);
        if (bytes.size() < size) return;
        Input body(bytes.data(), size);
        bytes = bytes.subspan(size);
        if (magic != 0xAC || type != 1 || size < 14) continue;
        if (frame_size == 0 || frame_size > kLargestFrame) continue;
        (void)body.U16();  // magic and stream
        ExpectedImage image{
            .number = body.U32(), .packets = 0, .width = 0, .height = 0, .data = {}};
        (void)body.U16();  // the packet's own number
        image.packets = body.U16();
        image.width = body.U16();
        image.height = body.U16();
        const auto data = body.Bytes(frame_size);
        image.data.assign(data.begin(), data.end());
        images.push_back(std::move(image));
    }
}

// Repeats a call that a signal interrupts: the fuzzer has a timer.
template <typename Call>
ssize_t Uninterrupted(const Call& call) {
    while (true) {
        const ssize_t result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

// Gives the bytes to the receiver over a new connection and returns when it has done with them.
void Carry(StreamReceiverTcp& receiver, std::span<const uint8_t> bytes) {
    receiver.ensureTcpConnection(1);
    const FileDescriptor peer = kelo::fuzz::TakePeer();
    Require(peer.IsOpen(), "a connection is made");
    uint8_t opening[2];
    const auto receive = [&] {
        return Uninterrupted([&] { return recv(peer.Get(), opening, sizeof(opening), 0); });
    };
    // They were sent in one piece.
    RequireEqual(receive(), static_cast<ssize_t>(sizeof(opening)), "bytes of the opening");
    Require(opening[0] == 0xAC && opening[1] == kStream, "the opening names the stream");
    while (!bytes.empty()) {
        const ssize_t sent = Uninterrupted(
            [&] { return send(peer.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); });
        if (sent <= 0) Fail("the receiver has hung up");
        bytes = bytes.subspan(static_cast<size_t>(sent));
    }
    shutdown(peer.Get(), SHUT_WR);
    // It closes its end when it has come to the end of this one.
    RequireEqual(receive(), ssize_t{0}, "bytes behind the opening");
}

void Compare(const BufferInfo& image, const ExpectedImage& expected, uint32_t frame_size,
             uint64_t index) {
    RequireEqual(image.imageNumber, expected.number, "image number");
    RequireEqual(image.allPacketsAmount, expected.packets, "packets");
    RequireEqual(image.imageWidth, expected.width, "width");
    RequireEqual(image.imageHeight, expected.height, "height");
    RequireEqual(image.bufferLength, frame_size, "frame size");
    RequireEqual(image.streamNumber, kStream, "stream");
    RequireEqual(image.streamFormat, kFormat, "format");
    RequireEqual(image.headerType, kHeaderFormat, "header format");
    RequireEqual(image.headerSize, kHeaderSize & 0xFF, "header size");
    RequireEqual(image.bufferStatistics.bytesReceived, expected.data.size(), "bytes received");
    RequireEqual(image.bufferStatistics.errorFlag, 0, "error flag");
    RequireEqual(image.streamStatistics.imagesReceived, index + 1, "images received");
    std::vector<uint8_t> data = expected.data;
    data.resize(frame_size);
    Require(std::memcmp(imageData(image), data.data(), frame_size) == 0, "data");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint32_t frame_size = kFrameSizes[input.U8() % std::size(kFrameSizes)];
    const auto first = input.Bytes(input.U16());
    const auto second = input.Rest();

    std::vector<ExpectedImage> expected;
    StreamReceiverTcp receiver(0x7F000001, kStream);
    receiver.InitStream(kFormat, kHeaderFormat, kHeaderSize, frame_size);
    for (const auto& bytes : {first, second}) {
        Carry(receiver, bytes);
        ReadMessages(bytes, frame_size, expected);
        RequireEqual(receiver.GetPendingCount(), expected.size(), "images");
    }
    for (size_t i = 0; i < expected.size(); ++i) {
        BufferInfo* image = receiver.GetImage(0);
        Compare(*image, expected[i], frame_size, i);
        // The application may write into it; the memory comes back for another image.
        std::memset(imageData(*image), '#', frame_size);
        Require(receiver.PopImage(image), "the image can be popped");
    }
    return 0;
}
