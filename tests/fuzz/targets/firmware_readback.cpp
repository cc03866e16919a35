// Read-back replies after a firmware was sent, against a simple model of what is compared. The
// steps are in firmware_readback.h.

#include "firmware_readback.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "firmware_image.h"
#include "fuzz.h"
#include "input.h"
#include "kelo_fw_client.h"
#include "memory_file.h"

using kelo::fuzz::Input;
using kelo::fuzz::ReadBackStep;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;
using kelo::test::kEmblemOffset;
using kelo::test::kEmblemSize;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kPayloadMax = 512;
constexpr uint32_t kPieceMax = 0x100000;
constexpr size_t kHeader = 8;
constexpr int kStepsMax = 300;
constexpr size_t kCheckedSize = 1000;
constexpr size_t kPatternAround = 300;

// The camera's image: pattern at its begin and around the emblem, zeros between.
Bytes MakeLargeImage() {
    Bytes image = kelo::test::MakeImage(kCheckedSize, 0);
    image.resize(kEmblemOffset - kPatternAround);
    const Bytes pattern = kelo::test::MakeImage(2 * kPatternAround + kEmblemSize);
    image.insert(image.end(), pattern.begin(), pattern.end());
    return image;
}

// What is the same for all inputs.
struct Firmware {
    Bytes image = MakeLargeImage();
    kelo::fuzz::MemoryFile file;
    TKeloFWClient client{kPayloadMax, [] { return 1000u; }};
    bool is_open = false;  // the client has the file
    Bytes any_piece = Bytes(kHeader + 0x1000000);

    // Checking four megabytes takes long: the file is small, and has its emblem at the begin, until
    // it has been checked.
    void Open() {
        if (is_open) return;
        const std::span<const uint8_t> bytes(image);
        file.Set(bytes.first(kCheckedSize));
        client.StartProgramming(file.Path(), 0);
        file.Set(bytes.first(kCheckedSize));
        file.Append(kEmblemOffset - kPatternAround, bytes.last(2 * kPatternAround + kEmblemSize));
        is_open = true;
    }
};

class ReadBack {
public:
    ReadBack(Firmware& firmware, Input input) : firmware_(firmware), input_(input) {
        firmware_.Open();
        firmware_.client.StartReading(0);
        RequireEqual(GetPayload(), static_cast<int>(R_OK), "read prepare");
        RequireEqual(GetPayload(), static_cast<int>(R_READ), "read");
        state_ = State::Reading;
    }

    void Run() {
        for (int i = 0; i < kStepsMax && !input_.IsEmpty(); ++i)
            Do(static_cast<ReadBackStep>(input_.U8() % static_cast<uint8_t>(ReadBackStep::Count)));
    }

private:
    enum class State { Reading, Done, Idle };

    void Do(ReadBackStep step) {
        switch (step) {
            case ReadBackStep::Right:
                return Deliver(Reply(address_, CameraHolds(input_.U16())));
            case ReadBackStep::Wrong: {
                Bytes data = CameraHolds(input_.U16());
                const size_t at = input_.U16();
                const uint8_t wrong = input_.U8();
                if (!data.empty()) data[at % data.size()] ^= wrong;
                return Deliver(Reply(address_, data));
            }
            case ReadBackStep::Jump:
                return Jump(uint32_t{input_.U8()} << 16 | input_.U16());
            case ReadBackStep::Stale: {
                const uint32_t back = input_.U16() + 1u;
                return Deliver(Reply(address_ - back, CameraHolds(input_.U8())));
            }
            case ReadBackStep::Ahead: {
                const uint32_t ahead = input_.U16() + 1u;
                return Deliver(Reply(address_ + ahead, CameraHolds(input_.U8())));
            }
            case ReadBackStep::Lying: {
                const uint32_t claimed = input_.U32();
                Bytes reply = Reply(address_, CameraHolds(input_.U8()));
                kelo::test::StoreBigEndian(reply, 4, claimed);
                return Deliver(reply);
            }
            case ReadBackStep::Raw: {
                const auto bytes = input_.Bytes(input_.U8());
                return Deliver(Bytes(bytes.begin(), bytes.end()));
            }
            default:
                return AskForPayload();
        }
    }

    // What a camera reads back from the address on, up to the end of its image.
    Bytes CameraHolds(uint32_t length) const {
        const size_t begin = std::min<size_t>(address_, firmware_.image.size());
        const size_t end = std::min(begin + length, firmware_.image.size());
        Bytes data(firmware_.image.begin() + static_cast<ptrdiff_t>(begin),
                   firmware_.image.begin() + static_cast<ptrdiff_t>(end));
        for (size_t i = 0; i < data.size(); ++i)
            if (IsErased(begin + i)) data[i] = 0xFF;
        data.resize(length, 0xAA);  // what follows in its flash
        return data;
    }

    static bool IsErased(size_t offset) {
        return offset >= kEmblemOffset && offset < kEmblemOffset + kEmblemSize;
    }

    static Bytes Reply(uint32_t address, const Bytes& data) {
        Bytes reply(kHeader + data.size());
        kelo::test::StoreBigEndian(reply, 0, address);
        kelo::test::StoreBigEndian(reply, 4, static_cast<uint32_t>(data.size()));
        std::copy(data.begin(), data.end(), reply.begin() + kHeader);
        return reply;
    }

    // A large piece without its content, to come to the far places of the image at once.
    void Jump(uint32_t length) {
        kelo::test::StoreBigEndian(firmware_.any_piece, 0, address_);
        kelo::test::StoreBigEndian(firmware_.any_piece, 4, length);
        (void)Extract(firmware_.any_piece.data(), kHeader + length);
    }

    void Deliver(const Bytes& reply) {
        // A block of exactly the reply's size, for the address sanitizer.
        const auto bytes = std::make_unique<uint8_t[]>(reply.size());
        std::copy(reply.begin(), reply.end(), bytes.get());
        if (Extract(bytes.get(), reply.size())) Check();
    }

    // Whether a piece came of it.
    bool Extract(const uint8_t* reply, size_t length) {
        const void* data = nullptr;
        uint32_t address = 0;
        int count = 0;
        const TResult result =
            firmware_.client.ExtractReadData(reply, static_cast<int>(length), data, address, count);
        RequireEqual(static_cast<int>(result), static_cast<int>(ExpectReply(reply, length)),
                     "reply");
        if (result != R_OK) return false;
        RequireEqual(address, piece_address_, "address of the piece");
        RequireEqual(static_cast<uint32_t>(count), piece_length_, "length of the piece");
        Require(data == reply + kHeader, "the piece is in the reply");
        piece_ = reply + kHeader;
        return true;
    }

    TResult ExpectReply(const uint8_t* reply, size_t length) {
        is_stale_ = false;
        if (state_ != State::Reading || length < kHeader) return R_ERROR;
        Input header(reply, kHeader);
        const uint32_t address = header.U32();
        const uint32_t size = header.U32();
        if (address > address_ && address_ == 0) {
            Close();
            return R_END;
        }
        if (address > address_) return R_ERROR;
        is_stale_ = address < address_;
        if (size > length - kHeader) return R_ERROR;
        piece_address_ = address_;
        piece_length_ = size;
        address_ += size;
        return R_OK;
    }

    void Check() {
        const TResult expected = ExpectCheck();
        const TResult result =
            firmware_.client.CheckReadData(piece_, piece_address_, static_cast<int>(piece_length_));
        RequireEqual(static_cast<int>(result), static_cast<int>(expected), "comparison");
    }

    TResult ExpectCheck() {
        if (piece_length_ > kPieceMax) return R_ERROR;
        if (is_stale_) return R_OK;
        const Bytes& image = firmware_.image;
        size_t at = piece_address_;
        for (uint32_t i = 0; i < piece_length_ && at < image.size(); ++i, ++at) {
            const bool is_erased = IsErased(at) && piece_address_ < kEmblemOffset;
            if (piece_[i] != (is_erased ? 0xFF : image[at])) return R_ERROR;
        }
        if (uint64_t{piece_address_} + piece_length_ <= image.size()) return R_OK;
        if (piece_length_ == 0) return R_OK;
        Close();
        return R_END;
    }

    void Close() {
        firmware_.is_open = false;
        state_ = State::Idle;
    }

    int GetPayload() {
        uint8_t payload[kPayloadMax];
        int length = 0;
        int timeout = 0;
        return static_cast<int>(firmware_.client.GetNextPayload(payload, length, timeout));
    }

    void AskForPayload() {
        const int result = GetPayload();
        switch (state_) {
            case State::Reading:
                RequireEqual(result, static_cast<int>(R_READ), "payload while reading");
                state_ = State::Done;
                return;
            case State::Done:
                RequireEqual(result, static_cast<int>(R_OK), "payload when done");
                state_ = State::Idle;
                return;
            case State::Idle:
                RequireEqual(result, static_cast<int>(R_END), "payload when idle");
                Close();
                return;
        }
    }

    Firmware& firmware_;
    Input input_;
    State state_ = State::Idle;
    uint32_t address_ = 0;
    bool is_stale_ = false;
    uint32_t piece_address_ = 0;
    uint32_t piece_length_ = 0;
    const uint8_t* piece_ = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Firmware firmware;
    ReadBack(firmware, Input(data, size)).Run();
    return 0;
}
