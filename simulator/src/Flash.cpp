#include "Flash.h"

#include <algorithm>

#include "Wire.h"

namespace kelosim {
namespace {

constexpr uint32_t kStartCommand = 0xFFFFFF00;
constexpr uint32_t kFinishCommand = 0xFFFFFF01;
constexpr uint32_t kReadPrepareCommand = 0xFFFFFF02;
constexpr uint8_t kErased = 0xFF;
constexpr size_t kPayloadWords = 128;
constexpr uint32_t kMaxPiece = kPayloadWords * 4 - 8;

// The bytes of a payload as a little-endian camera keeps them.
std::vector<uint8_t> ToBytes(std::span<const uint32_t> values) {
    std::vector<uint8_t> bytes;
    bytes.reserve(values.size() * 4);
    for (const uint32_t value : values) {
        for (int shift = 0; shift < 32; shift += 8)
            bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
    const size_t count = values.size();
    if (count < kPayloadWords) bytes.resize(std::min(count, bytes.size()));
    return bytes;
}

std::vector<uint32_t> ToValues(std::span<const uint8_t> bytes) {
    std::vector<uint32_t> values(kPayloadWords);
    for (size_t i = 0; i < bytes.size(); ++i)
        values[i / 4] |= uint32_t{bytes[i]} << (i % 4 * 8);
    return values;
}

}  // namespace

Flash::Result Flash::Write(std::span<const uint32_t> values, std::string& event) {
    using Step = FirmwareConfig::Step;
    const std::vector<uint8_t> payload = ToBytes(values);
    wire::Reader reader(payload);
    const uint32_t word = reader.U32();
    if (reader.Failed()) return Result::kRefused;
    switch (word) {
        case kStartCommand:
            if (config_.stop_at == Step::kStart) return Result::kNoAnswer;
            event = "firmware: flash erased";
            return Start();
        case kFinishCommand:
            if (config_.stop_at == Step::kFinish) return Result::kNoAnswer;
            return Finish(event);
        case kReadPrepareCommand:
            if (config_.stop_at == Step::kReadPrepare) return Result::kNoAnswer;
            event = "firmware: read-back begins";
            return PrepareRead(reader.U32());
        default: {
            const bool mute = config_.stop_at == Step::kData && word >= config_.stop_from_offset;
            if (mute) return Result::kNoAnswer;
            return Data(word, reader.Bytes(reader.Left()));
        }
    }
}

Flash::Result Flash::Start() {
    bytes_.clear();
    state_ = State::kProgramming;
    return Result::kDone;
}

Flash::Result Flash::Data(uint32_t offset, std::span<const uint8_t> data) {
    if (state_ != State::kProgramming || offset >= config_.flash_size) return Result::kRefused;
    const size_t length = std::min<size_t>(data.size(), config_.flash_size - offset);
    if (bytes_.size() < offset + length) bytes_.resize(offset + length, kErased);
    std::copy_n(data.begin(), length, bytes_.begin() + offset);
    return Result::kDone;
}

Flash::Result Flash::Finish(std::string& event) {
    if (state_ == State::kFinished) return Result::kFinished;  // the answer was lost, asked again
    if (state_ != State::kProgramming) return Result::kRefused;
    if (const auto length = ImageLength()) bytes_.resize(*length);
    state_ = State::kFinished;
    event = "firmware: " + std::to_string(bytes_.size()) + " bytes programmed";
    return Result::kFinished;
}

Flash::Result Flash::PrepareRead(uint32_t offset) {
    // A camera that cannot read back does not know the offset and answers with some other place.
    read_offset_ = config_.read_back ? offset : offset + kMaxPiece;
    state_ = State::kReading;
    return Result::kDone;
}

std::optional<std::vector<uint32_t>> Flash::Read() {
    const bool stopped = config_.stop_at == FirmwareConfig::Step::kReadBack;
    if (stopped && read_offset_ >= config_.stop_from_offset) return std::nullopt;
    const uint32_t length = PieceLength(read_offset_);
    std::vector<uint8_t> reply;
    wire::Writer writer(reply);
    writer.U32(read_offset_).U32(length);
    for (uint32_t i = 0; i < length; ++i)
        writer.U8(ReadBackByte(read_offset_ + i));
    read_offset_ += length;
    return ToValues(reply);
}

// Pieces are never cut inside the emblem, nor at its first byte: who compares them with a file
// masks the emblem only in a piece that begins in front of it and holds all of it.
uint32_t Flash::PieceLength(uint32_t offset) const {
    const uint32_t length = std::clamp<uint32_t>(config_.piece_size, 1, kMaxPiece);
    const uint32_t end = offset + length;
    const bool cuts_emblem = end >= kEmblemOffset && end < kEmblemOffset + kEmblemSize;
    if (!cuts_emblem || offset >= kEmblemOffset) return length;
    const uint32_t needed = kEmblemOffset + kEmblemSize - offset;
    return needed <= kMaxPiece ? needed : (kEmblemOffset - offset) / 2;
}

uint8_t Flash::ReadBackByte(uint32_t offset) const {
    const bool in_emblem = offset >= kEmblemOffset && offset < kEmblemOffset + kEmblemSize;
    uint8_t byte = offset < bytes_.size() && !in_emblem ? bytes_[offset] : kErased;
    if (config_.corrupt_offset == offset) byte ^= 0x01;
    return byte;
}

std::optional<uint32_t> Flash::ImageLength() const {
    if (bytes_.size() < kMinFirmwareSize) return std::nullopt;
    const std::span<const uint8_t> flash(bytes_);
    wire::Reader emblem(flash.subspan(kEmblemOffset, kEmblemSize));
    if (emblem.U32() != kEmblemMagic) return std::nullopt;
    const uint32_t length = emblem.U32();
    if (length < kMinFirmwareSize || length > bytes_.size()) return std::nullopt;
    return length;
}

std::vector<uint8_t> Flash::Contents(uint32_t length) const {
    std::vector<uint8_t> contents(length, kErased);
    std::copy_n(bytes_.begin(), std::min<size_t>(length, bytes_.size()), contents.begin());
    return contents;
}

}  // namespace kelosim
