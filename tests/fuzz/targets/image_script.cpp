// Image packets as cameras and networks may send them, against the simple model of reassembly:
// every finished image, byte for byte, and every counter. The language is in image_script.h.

#include "image_script.h"

#include <array>
#include <cstring>
#include <optional>

#include "ImageStreamReceiverGeneric.h"
#include "TPacketCommunicatorUDPSocket.h"
#include "fuzz.h"
#include "input.h"
#include "reassembly_model.h"
#include "stream_wire.h"

using kelo::fuzz::Input;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;
using kelo::fuzz::ScriptOp;
using kelo::test::ImagePacket;
using kelo::test::ReassemblyModel;

namespace {

constexpr uint32_t kCameras[] = {0x0A000001, 0xC0A80001};
constexpr uint8_t kFirstStream = 3;
constexpr uint32_t kFrameSizes[] = {128, 1, 7, 64, 1000, 4096};
constexpr uint8_t kFormat = 0x24;
constexpr uint8_t kHeaderFormat = 5;
constexpr uint32_t kHeaderSize = 300;  // only the low 8 bits are told
// The model is slow: so many datagrams, and packets of images, it can do.
constexpr size_t kDatagramsMax = 2000;
constexpr size_t kPositionsMax = 70000;

// One stream: what its camera is about to send, and what the library should make of it.
struct Stream {
    uint32_t ip;
    uint8_t number;
    uint32_t image = 0;
    uint16_t packet = 0;
    uint16_t count = 4;
    uint8_t length = 8;
    uint8_t last_length = 8;
    std::optional<ReassemblyModel> model = std::nullopt;  // while it is initialised

    ImagePacket Next() const {
        const bool is_last = packet + 1 == count;
        return Make(packet, count, is_last ? last_length : length);
    }
    ImagePacket Make(uint16_t packet_number, uint16_t packets, uint8_t bytes) const {
        ImagePacket made{.image = image, .number = packet_number, .count = packets};
        made.stream = number;
        made.width = static_cast<uint16_t>(image);
        made.height = packets;
        made.payload.resize(bytes + size_t{1});
        for (size_t i = 0; i < made.payload.size(); ++i)
            made.payload[i] = static_cast<char>(image * 31 + packet_number * 7 + i + 1);
        return made;
    }
    void Advance(uint32_t packets) {
        const uint32_t target = packet + packets;
        if (target < count) {
            packet = static_cast<uint16_t>(target);
            return;
        }
        packet = 0;
        ++image;
    }
};

struct Arrival {
    Stream* stream;
    ImagePacket packet;
    std::vector<uint8_t> bytes;  // of exactly the right size, for the address sanitizer
    bool is_packet = true;
};

class Player {
public:
    explicit Player(Input input) : input_(input) {}

    void Play() {
        while (!input_.IsEmpty() && datagrams_ < kDatagramsMax && positions_ < kPositionsMax)
            Do(static_cast<ScriptOp>(input_.U8() % static_cast<uint8_t>(ScriptOp::Count)));
        Flush();
        for (int i = 0; i < 2; ++i)
            Tick();
        for (Stream& stream : streams_)
            while (PopOne(stream)) {
            }
    }

private:
    using Front = ImageStreamReceiverGeneric<TPacketCommunicatorUDPSocket>;

    void Do(ScriptOp op) {
        switch (op) {
            case ScriptOp::Select:
                current_ = &streams_[input_.U8() % streams_.size()];
                return;
            case ScriptOp::Image:
                current_->image = input_.U32();
                current_->packet = 0;
                return;
            case ScriptOp::SkipImages:
                current_->image += static_cast<uint32_t>(static_cast<int8_t>(input_.U8()));
                current_->packet = 0;
                return;
            case ScriptOp::Shape:
                current_->count = input_.U16();
                current_->length = input_.U8();
                current_->last_length = input_.U8();
                return;
            case ScriptOp::Seek:
                current_->packet = input_.U16();
                return;
            case ScriptOp::SkipPackets:
                current_->Advance(input_.U8() + 1u);
                return;
            default:
                Transport(op);
        }
    }

    void Transport(ScriptOp op) {
        switch (op) {
            case ScriptOp::Send:
                return Send(input_.U8() + 1u, arrived_);
            case ScriptOp::SendLong:
                return Send(input_.U16() + 1u, arrived_);
            case ScriptOp::Hold:
                return Send(input_.U8() + 1u, held_);
            case ScriptOp::Repeat:
                for (uint32_t i = input_.U8() + 1u; i > 0; --i)
                    Arrive(current_->Next(), arrived_);
                current_->Advance(1);
                return;
            case ScriptOp::ReleaseReversed:
                std::reverse(held_.begin(), held_.end());
                [[fallthrough]];
            case ScriptOp::Release:
                for (Arrival& late : held_)
                    arrived_.push_back(std::move(late));
                held_.clear();
                return FlushIfFull();
            case ScriptOp::Odd: {
                const uint16_t number = input_.U16();
                const uint16_t count = input_.U16();
                return Arrive(current_->Make(number, count, input_.U8()), arrived_);
            }
            case ScriptOp::Garbage:
                return Garbage(input_.U8());
            case ScriptOp::BatchSize:
                batch_size_ = input_.U8() % 64 + 1u;
                return;
            default:
                Flush();
                Application(op);
        }
    }

    void Application(ScriptOp op) {
        switch (op) {
            case ScriptOp::Tick:
                return Tick();
            case ScriptOp::InitStream:
                return InitStream(kFrameSizes[input_.U8() % std::size(kFrameSizes)]);
            case ScriptOp::Pop:
                PopOne(*current_);
                return;
            case ScriptOp::Clear:
                front_.ClearBuffer(current_->ip, current_->number);
                if (current_->model) current_->model->finished.clear();
                return;
            case ScriptOp::ResetStatistics:
                front_.ResetStatistics(current_->ip);
                for (Stream& stream : streams_)
                    if (stream.ip == current_->ip && stream.model) stream.model->ResetStatistics();
                return;
            case ScriptOp::ExitCamera:
                front_.ExitCamera(current_->ip);
                for (Stream& stream : streams_)
                    if (stream.ip == current_->ip) stream.model.reset();
                return;
            default:
                return;
        }
    }

    void InitStream(uint32_t frame_size) {
        front_.InitStream(current_->ip, current_->number, kFormat, kHeaderFormat, kHeaderSize,
                          frame_size);
        if (!current_->model) current_->model.emplace(frame_size);
        current_->model->Restart(frame_size);
    }

    void Send(uint32_t packets, std::vector<Arrival>& where) {
        for (; packets > 0 && datagrams_ < kDatagramsMax && positions_ < kPositionsMax; --packets) {
            Arrive(current_->Next(), where);
            current_->Advance(1);
        }
    }

    void Arrive(const ImagePacket& packet, std::vector<Arrival>& where) {
        ++datagrams_;
        if (std::exchange(last_image_, packet.image) != packet.image) positions_ += packet.count;
        const std::string bytes = packet.Bytes();
        where.push_back({current_, packet, {bytes.begin(), bytes.end()}});
        FlushIfFull();
    }

    // Shorter than a packet, or without the magic number.
    void Garbage(uint8_t kind) {
        std::vector<uint8_t> bytes(kind % 24, 0xAC);
        if (bytes.size() > sizeof(THeaderImage)) bytes[0] = static_cast<uint8_t>(kind & 0x7F);
        arrived_.push_back({current_, {}, std::move(bytes), false});
        FlushIfFull();
    }

    void FlushIfFull() {
        if (arrived_.size() >= batch_size_) Flush();
    }

    void Flush() {
        for (size_t begin = 0; begin < arrived_.size(); begin += batch_size_) {
            const size_t size = std::min(batch_size_, arrived_.size() - begin);
            Take(std::span(arrived_).subspan(begin, size));
        }
        arrived_.clear();
    }

    void Take(std::span<Arrival> batch) {
        std::vector<TDatagram> datagrams;
        for (Arrival& arrival : batch) {
            datagrams.push_back({.ip = arrival.stream->ip,
                                 .data = arrival.bytes.data(),
                                 .length = static_cast<int>(arrival.bytes.size())});
            if (arrival.is_packet && arrival.stream->model)
                arrival.stream->model->Receive(arrival.packet);
        }
        CheckOutlook(front_.OnRcvBatch(nullptr, datagrams, 0), batch);
        for (const Stream& stream : streams_)
            CheckCount(stream);
    }

    void CheckOutlook(const TOutlook& outlook, std::span<const Arrival> batch) {
        bool begins = false;
        for (Stream& stream : streams_) {
            if (!stream.model) continue;
            begins |= stream.model->TakeBegun();
            const bool is_involved = std::any_of(batch.begin(), batch.end(), [&](const auto& one) {
                return one.stream == &stream && one.is_packet;
            });
            // What a stream that waits for its next image says is a guess.
            if (!is_involved && stream.model->IsIdle()) continue;
            Require(outlook.until_wanted <= stream.model->PacketsToCome(),
                    "more packets are promised than are to come");
        }
        Require(outlook.begins == begins, "whether an image begins");
    }

    void Tick() {
        front_.finishTransfersIfNeeded();
        for (Stream& stream : streams_) {
            if (stream.model) stream.model->Tick();
            CheckCount(stream);
        }
    }

    void CheckCount(const Stream& stream) {
        const size_t expected = stream.model ? stream.model->finished.size() : 0;
        RequireEqual(front_.GetPendingCount(stream.ip, stream.number), expected, "images");
    }

    // False when there is none.
    bool PopOne(Stream& stream) {
        BufferInfo* image = front_.GetImage(0, stream.ip, stream.number);
        const bool is_expected = stream.model && !stream.model->finished.empty();
        RequireEqual(image != nullptr, is_expected, "an image");
        if (image == nullptr) return false;
        const auto& expected = stream.model->finished.front();
        CheckDescription(*image, expected, stream.number);
        CheckLosses(image->bufferStatistics, expected.losses);
        CheckCounters(image->streamStatistics, expected.counters);
        Require(kelo::test::Data(*image) == expected.data, "the image's data");
        // The application may write into it; the memory comes back for another image.
        std::memset(imageData(*image), '#', image->bufferLength);
        Require(front_.PopImage(stream.ip, stream.number, image), "the image can be popped");
        stream.model->finished.pop_front();
        return true;
    }

    static void CheckDescription(const BufferInfo& image, const ReassemblyModel::Image& expected,
                                 uint8_t stream_number) {
        RequireEqual(image.imageNumber, expected.number, "image number");
        RequireEqual(image.allPacketsAmount, expected.count, "packets of the image");
        RequireEqual(image.bufferLength, expected.data.size(), "frame size");
        RequireEqual(image.imageWidth, expected.number & 0xFFFF, "width");
        RequireEqual(image.imageHeight, expected.count, "height");
        RequireEqual(image.streamNumber, stream_number, "stream number");
        RequireEqual(image.streamFormat, kFormat, "format");
        RequireEqual(image.headerType, kHeaderFormat, "header format");
        RequireEqual(image.headerSize, kHeaderSize & 0xFF, "header size");
    }

    static void CheckLosses(const BufferStatistics& losses, const BufferStatistics& expected) {
        RequireEqual(losses.errorFlag, expected.errorFlag, "error flag");
        RequireEqual(losses.missingPackets, expected.missingPackets, "packets missing");
        RequireEqual(losses.bytesReceived, expected.bytesReceived, "bytes received");
        RequireEqual(losses.bytesLost, expected.bytesLost, "bytes lost");
    }

    static void CheckCounters(const StreamStatistics& counters, const StreamStatistics& expected) {
        RequireEqual(counters.imagesSkipped, expected.imagesSkipped, "images skipped");
        RequireEqual(counters.imagesReceived, expected.imagesReceived, "images received");
        RequireEqual(counters.missingPackets, expected.missingPackets, "the stream's missing");
        RequireEqual(counters.bytesReceived, expected.bytesReceived, "the stream's bytes received");
        RequireEqual(counters.bytesLost, expected.bytesLost, "the stream's bytes lost");
    }

    Input input_;
    Front front_;
    std::array<Stream, 4> streams_{
        Stream{.ip = kCameras[0], .number = kFirstStream},
        Stream{.ip = kCameras[0], .number = kFirstStream + 1},
        Stream{.ip = kCameras[1], .number = kFirstStream},
        Stream{.ip = kCameras[1], .number = kFirstStream + 1},
    };
    Stream* current_ = &streams_[0];
    std::vector<Arrival> arrived_;
    std::vector<Arrival> held_;
    size_t batch_size_ = 1;
    size_t datagrams_ = 0;
    size_t positions_ = 0;
    uint32_t last_image_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Player(Input(data, size)).Play();
    return 0;
}
