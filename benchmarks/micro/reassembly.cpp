// What putting an image together costs per packet, without any socket, beside the copy of its
// payload alone.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include <benchmark/benchmark.h>

#include "StreamReceiver.h"
#include "img_common.h"
#include "utils.h"

namespace {

constexpr uint32_t kImageBytes = 4 << 20;
constexpr size_t kBatch = 32;

// The packets of one image, as they would lie in the receive buffers.
class Packets {
public:
    explicit Packets(uint32_t payload_bytes) : payload_(payload_bytes) {
        const uint32_t count = (kImageBytes + payload_ - 1) / payload_;
        for (uint32_t number = 0; number < count; ++number) {
            const uint32_t bytes = std::min(payload_, kImageBytes - number * payload_);
            std::vector<uint8_t> packet(sizeof(THeaderImage) + bytes, 0x5A);
            const THeaderImage header{
                .magic = KELO_IMAGE_MAGIC,
                .stream_number = 0,
                .NL_image_number = 0,
                .NS_current_packet = kelo_htons(static_cast<uint16_t>(number)),
                .NS_all_packets = kelo_htons(static_cast<uint16_t>(count)),
                .NS_image_width = 0,
                .NS_image_height = 0};
            std::memcpy(packet.data(), &header, sizeof(header));
            bytes_.push_back(std::move(packet));
        }
        for (const auto& packet : bytes_) {
            datagrams_.push_back({1, packet.data(), static_cast<int>(packet.size())});
        }
    }

    void SetImageNumber(uint32_t number) {
        const uint32_t wire = kelo_htonl(number);
        for (auto& packet : bytes_) {
            std::memcpy(packet.data() + offsetof(THeaderImage, NL_image_number), &wire,
                        sizeof(wire));
        }
    }
    std::span<const TDatagram> Datagrams() const { return datagrams_; }
    uint32_t PayloadBytes() const { return payload_; }

private:
    const uint32_t payload_;
    std::vector<std::vector<uint8_t>> bytes_;
    std::vector<TDatagram> datagrams_;
};

void CountPackets(benchmark::State& state, const Packets& packets) {
    const auto count = static_cast<int64_t>(packets.Datagrams().size());
    state.SetItemsProcessed(state.iterations() * count);
    state.SetBytesProcessed(state.iterations() * int64_t{kImageBytes});
}

void Reassemble(benchmark::State& state) {
    Packets packets(static_cast<uint32_t>(state.range(0)));
    StreamReceiver stream(1, 0);
    stream.InitStream(0, 0, 0, kImageBytes);
    uint32_t number = 0;
    for ([[maybe_unused]] auto step : state) {
        packets.SetImageNumber(++number);
        auto left = packets.Datagrams();
        while (!left.empty()) {
            const size_t count = std::min(kBatch, left.size());
            stream.OnRcvBatch(left.first(count));
            left = left.subspan(count);
        }
        BufferInfo* image = stream.GetImage(0);
        if (image == nullptr) {
            state.SkipWithError("no image came of it");
            break;
        }
        stream.PopImage(image);
    }
    CountPackets(state, packets);
}

void CopyOnly(benchmark::State& state) {
    Packets packets(static_cast<uint32_t>(state.range(0)));
    std::vector<uint8_t> image(kImageBytes);
    uint32_t number = 0;
    for ([[maybe_unused]] auto step : state) {
        packets.SetImageNumber(++number);
        size_t offset = 0;
        for (const TDatagram& datagram : packets.Datagrams()) {
            const size_t bytes = static_cast<size_t>(datagram.length) - sizeof(THeaderImage);
            std::memcpy(image.data() + offset,
                        static_cast<const uint8_t*>(datagram.data) + sizeof(THeaderImage), bytes);
            offset += bytes;
        }
        benchmark::ClobberMemory();
    }
    CountPackets(state, packets);
}

// Payloads of packets of 1500 and of 9000 bytes.
BENCHMARK(CopyOnly)->Name("copy the payloads of 4 MiB, bytes each")->Arg(1458)->Arg(8958);
BENCHMARK(Reassemble)->Name("reassemble an image of 4 MiB, payload bytes")->Arg(1458)->Arg(8958);

}  // namespace
