#include "run_length.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

#include "literal_run.h"

namespace {

constexpr uint8_t kEnd1 = 0x01;
constexpr uint8_t kEnd2 = 0x02;
constexpr uint8_t kZeroRun = 0x00;
constexpr uint8_t kFullRun = 0xFF;
constexpr int kNextToken = -1;

// One decoding: where it stands in input and output. Sizes are unsigned: a size of 2^31 and more
// compares as what it is.
class Decoder {
public:
    Decoder(uint8_t* output, uint32_t output_size, std::span<const uint8_t> input)
        : output_(output), output_size_(output_size), input_(input) {}

    // The result code, or kNextToken.
    int DecodeToken() {
        // Runs follow each other in binary images: the search for literals is not begun there.
        if (IsLiteral(input_[consumed_])) TakeLiterals();
        const uint8_t value = input_[consumed_];
        if (value == kEnd1) return 1;
        if (value == kEnd2) return 2;
        output_[produced_++] = value;
        switch (value) {
            case kZeroRun:
                return DecodeZeroRun();
            case kFullRun:
                return DecodeFullRun();
            default:
                return FinishLiteral();
        }
    }

private:
    bool OutputExceeded() const { return output_size_ < produced_; }
    bool InputEndsAt(uint32_t position) const { return input_.size() <= position; }

    // Literals come in long rows: takes those that neither fill the output beyond its end nor are
    // the input's last byte, which have results of their own.
    void TakeLiterals() {
        const size_t room = output_size_ - produced_;
        const size_t left = input_.size() - 1 - consumed_;
        const size_t count =
            CopyLiterals(output_ + produced_, input_.data() + consumed_, std::min(room, left));
        produced_ += static_cast<uint32_t>(count);
        consumed_ += static_cast<uint32_t>(count);
    }

    int DecodeZeroRun() {
        if (OutputExceeded()) return 3;
        if (InputEndsAt(consumed_ + 1)) return 4;
        if (InputEndsAt(consumed_ + 2)) return 5;
        const uint32_t length = input_[consumed_ + 1] | uint32_t{input_[consumed_ + 2]} << 8;
        consumed_ += 3;
        if (InputEndsAt(consumed_)) return 6;
        return Fill(kZeroRun, length) ? kNextToken : 7;
    }

    int DecodeFullRun() {
        if (OutputExceeded()) return 8;
        if (InputEndsAt(consumed_ + 1)) return 9;
        const uint32_t length = input_[consumed_ + 1];
        consumed_ += 2;
        if (InputEndsAt(consumed_)) return 10;
        return Fill(kFullRun, length) ? kNextToken : 11;
    }

    int FinishLiteral() {
        if (OutputExceeded()) return 12;
        ++consumed_;
        return InputEndsAt(consumed_) ? 13 : kNextToken;
    }

    bool Fill(uint8_t value, uint32_t length) {
        if (output_size_ - produced_ < length) return false;
        std::memset(output_ + produced_, value, length);
        produced_ += length;
        return true;
    }

    uint8_t* output_;
    uint32_t output_size_;
    std::span<const uint8_t> input_;
    uint32_t consumed_ = 0;
    uint32_t produced_ = 0;
};

}  // namespace

int DecodeRLE(void* pBuffer, const void* pRLEbuffer, int BufferSize, int RleMaxBufferSize) {
    const auto output_size = static_cast<uint32_t>(BufferSize);
    if (RleMaxBufferSize < 0) return 0;
    if (RleMaxBufferSize == 0) {
        // No data at all stands for an empty image.
        if (output_size == 0) return 0;
        std::memset(pBuffer, 0, output_size);
        return 14;
    }
    Decoder decoder(
        static_cast<uint8_t*>(pBuffer), output_size,
        {static_cast<const uint8_t*>(pRLEbuffer), static_cast<size_t>(RleMaxBufferSize)});
    // Every token consumes input and reports its end, so the loop is bounded by the input.
    while (true) {
        const int result = decoder.DecodeToken();
        if (result != kNextToken) return result;
    }
}
