// Datagrams of any content at the image port. The same datagrams, taken many at a time and one by
// one, must give the same images and counters.
// Input: frame size, then per datagram a byte of flags, its length and its bytes.

#include <cstring>
#include <vector>

#include "ImageStreamReceiverGeneric.h"
#include "TPacketCommunicatorUDPSocket.h"
#include "fuzz.h"
#include "input.h"

using kelo::fuzz::Input;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;

namespace {

using Front = ImageStreamReceiverGeneric<TPacketCommunicatorUDPSocket>;

constexpr uint32_t kFrameSizes[] = {64, 1, 1000, 16384, 65536, 0, UINT32_MAX};
constexpr uint8_t kStreams = 3;
constexpr size_t kBatchMax = 64;
constexpr size_t kDatagramsMax = 3000;

// Flags of a datagram.
constexpr uint8_t kSender = 0x03;  // the last of them is a stranger
constexpr uint8_t kBatchEnds = 0x04;
constexpr uint8_t kTick = 0x08;
constexpr uint8_t kRestart = 0x10;
constexpr uint8_t kTakeImages = 0x20;

class Fronts {
public:
    explicit Fronts(uint32_t frame_size) : frame_size_(frame_size) { Start(); }

    void Start() {
        for (Front* front : {&batched_, &one_by_one_}) {
            for (uint32_t ip = 0; ip < kSender; ++ip)
                for (uint8_t stream = 0; stream < kStreams; ++stream)
                    front->InitStream(ip, stream, 1, 2, 3, frame_size_);
        }
    }

    void Add(uint32_t ip, std::span<const uint8_t> bytes) {
        pending_.emplace_back(ip, std::vector<uint8_t>(bytes.begin(), bytes.end()));
        if (pending_.size() == kBatchMax) EndBatch();
    }

    void EndBatch() {
        std::vector<TDatagram> datagrams;
        for (const auto& [ip, bytes] : pending_) {
            const TDatagram datagram{
                .ip = ip, .data = bytes.data(), .length = static_cast<int>(bytes.size())};
            datagrams.push_back(datagram);
            one_by_one_.OnRcv(nullptr, ip, datagram.data, datagram.length, 0);
        }
        batched_.OnRcvBatch(nullptr, datagrams, 0);
        pending_.clear();
    }

    void Tick() {
        EndBatch();
        batched_.finishTransfersIfNeeded();
        one_by_one_.finishTransfersIfNeeded();
    }

    void TakeImages() {
        EndBatch();
        for (uint32_t ip = 0; ip <= kSender; ++ip)
            for (uint8_t stream = 0; stream <= kStreams; ++stream)
                while (TakeOne(ip, stream)) {
                }
    }

private:
    bool TakeOne(uint32_t ip, uint8_t stream) {
        BufferInfo* image = batched_.GetImage(0, ip, stream);
        BufferInfo* other = one_by_one_.GetImage(0, ip, stream);
        RequireEqual(image != nullptr, other != nullptr, "an image");
        if (image == nullptr) return false;
        Compare(*image, *other);
        Require(batched_.PopImage(ip, stream, image), "the image can be popped");
        Require(one_by_one_.PopImage(ip, stream, other), "the image can be popped");
        return true;
    }

    static void Compare(const BufferInfo& image, const BufferInfo& other) {
        RequireEqual(image.imageNumber, other.imageNumber, "image number");
        RequireEqual(image.allPacketsAmount, other.allPacketsAmount, "packets");
        RequireEqual(image.bufferStatistics.bytesReceived, other.bufferStatistics.bytesReceived,
                     "bytes received");
        RequireEqual(image.bufferStatistics.missingPackets, other.bufferStatistics.missingPackets,
                     "packets missing");
        const StreamStatistics& counters = image.streamStatistics;
        Require(std::memcmp(&counters, &other.streamStatistics, sizeof(counters)) == 0, "counters");
        RequireEqual(image.bufferLength, other.bufferLength, "frame size");
        Require(std::memcmp(imageData(image), imageData(other), image.bufferLength) == 0, "data");
        Require(image.bufferStatistics.missingPackets <= image.allPacketsAmount,
                "no more packets are missing than the image has");
    }

    const uint32_t frame_size_;
    Front batched_;
    Front one_by_one_;
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> pending_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Fronts fronts(kFrameSizes[input.U8() % std::size(kFrameSizes)]);
    for (size_t i = 0; i < kDatagramsMax && !input.IsEmpty(); ++i) {
        const uint8_t flags = input.U8();
        const uint16_t length = input.U16();
        fronts.Add(flags & kSender, input.Bytes(length));
        if ((flags & kBatchEnds) != 0) fronts.EndBatch();
        if ((flags & kTick) != 0) fronts.Tick();
        if ((flags & kTakeImages) != 0) fronts.TakeImages();
        if ((flags & kRestart) != 0) {
            fronts.EndBatch();
            fronts.Start();
        }
    }
    fronts.Tick();
    fronts.Tick();
    fronts.TakeImages();
    return 0;
}
