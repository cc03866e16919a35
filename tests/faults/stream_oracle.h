#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fault_fixture.h"
#include "reassembly_model.h"
#include "stream_wire.h"

namespace kelo::test {

// What a simulated camera said that it has sent, as the model takes it.
inline ImagePacket ParsePacket(const std::vector<uint8_t>& datagram) {
    const auto u16 = [&](size_t at) {
        return static_cast<uint16_t>(datagram.at(at) << 8 | datagram.at(at + 1));
    };
    ImagePacket packet{.image = uint32_t{u16(2)} << 16 | u16(4), .number = u16(6), .count = u16(8)};
    packet.stream = datagram.at(1);
    packet.width = u16(10);
    packet.height = u16(12);
    packet.payload.assign(datagram.begin() + 14, datagram.end());
    return packet;
}

// The images that must come of datagrams that arrive one after the other without a pause, followed
// by silence.
inline ReassemblyModel ModelOf(const std::vector<std::vector<uint8_t>>& datagrams,
                               uint32_t frame_size) {
    ReassemblyModel model(frame_size);
    model.Restart();
    for (const auto& datagram : datagrams)
        model.Receive(ParsePacket(datagram));
    for (int i = 0; i < 2; ++i)
        model.Tick();
    return model;
}

// Lines of the log by which reception tells what happened to it.
inline const std::vector<std::string> kReceptionLines = {
    "Invalid packet number", "Too many too new packets", "Sliding window position", "Image "};

inline std::vector<std::string> ForcedCompletions(std::vector<std::string> lines) {
    std::erase_if(lines, [](const std::string& line) { return line.rfind("Image ", 0) != 0; });
    return lines;
}

inline std::ptrdiff_t FirstDifference(const std::string& a, const std::string& b) {
    return std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
}

// An image with all of its memory. (The size that the library tells counts repeated packets again.)
struct WholeImage : Image {
    std::string memory;
};

inline WholeImage TakeWhole(CAM_HANDLE handle, uint8_t stream = 0, int timeout_ms = 20000) {
    IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(handle, stream, timeout_ms);
    if (image == nullptr) return {};
    WholeImage taken{{.arrived = true,
                      .number = keloGetImageNumber(image),
                      .bytes_lost = keloGetImageBytesLost(image),
                      .data = {},
                      .info = *static_cast<const BufferInfo*>(image)},
                     Data(*static_cast<const BufferInfo*>(image))};
    keloPopImage(handle, stream, image);
    return taken;
}

inline void ExpectImage(const WholeImage& image, const ReassemblyModel::Image& expected) {
    ASSERT_TRUE(image.arrived) << expected.number;
    SCOPED_TRACE("image " + std::to_string(expected.number));
    EXPECT_EQ(image.number, expected.number);
    EXPECT_EQ(image.memory.size(), expected.data.size());
    EXPECT_TRUE(image.memory == expected.data)
        << "pixels differ from " << FirstDifference(image.memory, expected.data);
    const BufferStatistics& losses = image.info.bufferStatistics;
    EXPECT_EQ(losses.errorFlag, expected.losses.errorFlag);
    EXPECT_EQ(losses.missingPackets, expected.losses.missingPackets);
    EXPECT_EQ(losses.bytesReceived, expected.losses.bytesReceived);
    EXPECT_EQ(losses.bytesLost, expected.losses.bytesLost);
    EXPECT_EQ(image.bytes_lost, static_cast<int>(expected.losses.bytesLost));
    const StreamStatistics& counters = image.info.streamStatistics;
    EXPECT_EQ(counters.imagesSkipped, expected.counters.imagesSkipped);
    EXPECT_EQ(counters.imagesReceived, expected.counters.imagesReceived);
    EXPECT_EQ(counters.missingPackets, expected.counters.missingPackets);
    EXPECT_EQ(counters.bytesReceived, expected.counters.bytesReceived);
    EXPECT_EQ(counters.bytesLost, expected.counters.bytesLost);
}

// Takes everything off a stream's queue that must be there, and nothing else may be.
inline void ExpectImages(CAM_HANDLE handle, uint8_t stream, const ReassemblyModel& model) {
    for (const ReassemblyModel::Image& expected : model.finished) {
        ExpectImage(TakeWhole(handle, stream), expected);
        if (testing::Test::HasFailure()) return;
    }
    EXPECT_EQ(keloIsBufferEmpty(handle, stream), 1);
}

}  // namespace kelo::test
