// What putting an image together costs per packet, without any socket, beside the copy of the same
// payloads alone.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "StreamReceiver.h"
#include "img_common.h"
#include "register.h"
#include "utils.h"

namespace {

constexpr uint32_t kImageBytes = 4 << 20;
constexpr size_t kBatch = 32;
constexpr uint32_t kNetworkHeaderBytes = 28;

// The numbers of the packets of each image, in the order of their arrival.
using Script = std::vector<uint32_t>;

Script InOrder(uint32_t packets) {
    Script script(packets);
    std::iota(script.begin(), script.end(), 0u);
    return script;
}

Script OnePercentLost(uint32_t packets) {
    std::mt19937 random(1);
    Script script = InOrder(packets);
    std::erase_if(script, [&](uint32_t) { return random() % 100 == 0; });
    return script;
}

// Each packet up to 31 places away from its own.
Script Reordered(uint32_t packets) {
    std::mt19937 random(1);
    Script script = InOrder(packets);
    for (size_t first = 0; first < script.size(); first += kBatch) {
        const size_t count = std::min(kBatch, script.size() - first);
        std::shuffle(&script[first], &script[first] + count, random);
    }
    return script;
}

// But not the last one: behind a complete image it would begin another.
Script EveryPacketTwice(uint32_t packets) {
    Script script;
    for (uint32_t number = 0; number < packets; ++number)
        script.insert(script.end(), number + 1 < packets ? 2 : 1, number);
    return script;
}

// The datagrams of one image, as they would lie in the receive buffers.
class Packets {
public:
    Packets(uint32_t packet_bytes, Script (*make_script)(uint32_t))
        : payload_(packet_bytes - kNetworkHeaderBytes - uint32_t{sizeof(THeaderImage)}),
          packets_((kImageBytes + payload_ - 1) / payload_) {
        for (uint32_t number = 0; number < packets_.size(); ++number)
            packets_[number] = MakePacket(number);
        for (const uint32_t number : make_script(static_cast<uint32_t>(packets_.size()))) {
            const auto& packet = packets_[number];
            datagrams_.push_back({1, packet.data(), static_cast<int>(packet.size())});
            if (std::find(placed_.begin(), placed_.end(), number) == placed_.end()) {
                placed_.push_back(number);
            }
        }
    }

    void SetImageNumber(uint32_t number) {
        const uint32_t wire = kelo_htonl(number);
        for (auto& packet : packets_) {
            std::memcpy(packet.data() + offsetof(THeaderImage, NL_image_number), &wire,
                        sizeof(wire));
        }
    }
    std::span<const TDatagram> Datagrams() const { return datagrams_; }

    void CopyPayloads(uint8_t* image) const {
        for (const uint32_t number : placed_) {
            const auto& packet = packets_[number];
            std::memcpy(image + size_t{number} * payload_, packet.data() + sizeof(THeaderImage),
                        packet.size() - sizeof(THeaderImage));
        }
    }

private:
    std::vector<uint8_t> MakePacket(uint32_t number) const {
        const uint32_t bytes = std::min(payload_, kImageBytes - number * payload_);
        std::vector<uint8_t> packet(sizeof(THeaderImage) + bytes, 0x5A);
        const THeaderImage header{
            .magic = KELO_IMAGE_MAGIC,
            .stream_number = 0,
            .NL_image_number = 0,
            .NS_current_packet = kelo_htons(static_cast<uint16_t>(number)),
            .NS_all_packets = kelo_htons(static_cast<uint16_t>(packets_.size())),
            .NS_image_width = 0,
            .NS_image_height = 0};
        std::memcpy(packet.data(), &header, sizeof(header));
        return packet;
    }

    const uint32_t payload_;
    std::vector<std::vector<uint8_t>> packets_;
    std::vector<TDatagram> datagrams_;
    Script placed_;  // each packet of the script once, in its order
};

void CountPackets(benchmark::State& state, const Packets& packets) {
    using benchmark::Counter;
    const size_t count = packets.Datagrams().size();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
    state.counters["s/packet"] =
        Counter(static_cast<double>(count), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void CopyOnly(benchmark::State& state, Packets packets) {
    std::vector<uint8_t> image(kImageBytes);
    uint32_t number = 0;
    for ([[maybe_unused]] auto step : state) {
        packets.SetImageNumber(++number);
        packets.CopyPayloads(image.data());
        benchmark::ClobberMemory();
    }
    CountPackets(state, packets);
}

void Reassemble(benchmark::State& state, Packets packets) {
    kelo::Logging(false);
    StreamReceiver stream(1, 0);
    stream.InitStream(0, 0, 0, kImageBytes);
    uint32_t number = 0;
    uint32_t images = 0;
    for ([[maybe_unused]] auto step : state) {
        packets.SetImageNumber(++number);
        auto left = packets.Datagrams();
        while (!left.empty()) {
            const size_t count = std::min(kBatch, left.size());
            stream.OnRcvBatch(left.first(count));
            left = left.subspan(count);
        }
        // With losses an image is completed while a later one arrives.
        while (BufferInfo* image = stream.GetImage(0)) {
            stream.PopImage(image);
            ++images;
        }
    }
    if (number > 100 && images + 3 < number) state.SkipWithError("images are missing");
    CountPackets(state, packets);
}

void Register(const char* name, Script (*make_script)(uint32_t)) {
    for (const uint32_t packet_bytes : {1500u, 9000u}) {
        const std::string row =
            std::string("reassemble ") + name + ", packets of " + std::to_string(packet_bytes);
        Row(row + "/copy alone",
            [=](benchmark::State& state) { CopyOnly(state, Packets(packet_bytes, make_script)); });
        Row(row + "/library", [=](benchmark::State& state) {
            Reassemble(state, Packets(packet_bytes, make_script));
        });
    }
}

[[maybe_unused]] const bool is_registered = [] {
    Register("in order", InOrder);
    Register("1 % lost", OnePercentLost);
    Register("reordered", Reordered);
    Register("every packet twice", EveryPacketTwice);
    return true;
}();

}  // namespace
