#pragma once

#include <cstddef>
#include <cstdint>

#include "run_length_variants.h"

// The vector loop of run-length decoding. Each width has a source file of its own, which may be
// compiled for a processor that others of the library must not need: so there is nothing in here
// that could be shared with them, not even inline functions of the standard library.
//
// Time goes into mispredicted branches: every row of literals and every run has another length. So
// there is one such branch per row of literals, where it ends, and none per short run:
//  - its kind and length are computed from the token;
//  - it takes as many stores as the longest short run needs. Those that a shorter one has no use
//    for are moved to its end, and the bytes that they spill over are put back afterwards.
// NOLINTNEXTLINE(cert-dcl59-cpp): nothing may be shared, see above
namespace {

// Vector: kWidth, kFillMax (the longest run that is not left to memset), Bytes; Load, Store,
// Fill(all bytes 0 or 0xFF), Specials(bit mask of the bytes that are no literals).
template <typename Vector>
class RunLengthVectorDecoder {
public:
    explicit RunLengthVectorDecoder(RunLengthCursor& at)
        : at_(at),
          output_(at.output),
          output_end_(at.output + at.output_left),
          input_(at.input),
          input_end_(at.input + at.input_left) {}

    void Decode() {
        while (HasSpace()) {
            const bool is_done =
                IsLiteral(*input_) ? !DecodeLiterals() : !DecodeRun<false>(0, Bytes{});
            if (is_done) break;
        }
        at_.output = output_;
        at_.output_left = static_cast<size_t>(output_end_ - output_);
        at_.input = input_;
        at_.input_left = static_cast<size_t>(input_end_ - input_);
    }

private:
    using Bytes = typename Vector::Bytes;
    static constexpr size_t kWidth = Vector::kWidth;
    // A token may begin at the last byte of a vector. Four bytes are loaded for one, so it never
    // is the input's last.
    static constexpr size_t kInputMin = kWidth + 3;
    static constexpr size_t kShortRunMax = 128;

    // 0xFF, 0, 1 and 2 become 0 to 3 when one is added, and all others stay above.
    static bool IsLiteral(uint8_t byte) { return static_cast<uint8_t>(byte + 1) > 3; }

    bool HasSpace() const {
        return static_cast<size_t>(input_end_ - input_) >= kInputMin &&
               static_cast<size_t>(output_end_ - output_) >= kWidth;
    }

    // With space for one at least.
    size_t VectorsLeft() const {
        const size_t input = static_cast<size_t>(input_end_ - input_ - kInputMin) / kWidth + 1;
        const size_t output = static_cast<size_t>(output_end_ - output_) / kWidth;
        return input < output ? input : output;
    }

    // A row of literals and the run behind it. False when the plain decoder must go on.
    bool DecodeLiterals() {
        const size_t vectors = VectorsLeft();
        for (size_t i = 0; i < vectors; ++i) {
            const Bytes row = Vector::Load(input_);
            const unsigned specials = Vector::Specials(row);
            if (specials != 0) {
                return DecodeRun<true>(static_cast<size_t>(__builtin_ctz(specials)), row);
            }
            Vector::Store(output_, row);
            input_ += kWidth;
            output_ += kWidth;
        }
        return false;
    }

    // A run and the literals in front of it, which are the first bytes of row. False when the plain
    // decoder must go on.
    template <bool kBehindLiterals>
    bool DecodeRun(size_t literals, Bytes row) {
        const uint8_t* token = input_ + literals;
        uint32_t word = 0;
        __builtin_memcpy(&word, token, sizeof(word));
        const auto value = static_cast<uint8_t>(word);
        if (value == 1 || value == 2) return false;
        // Two bytes of length behind 0x00, one behind 0xFF.
        const size_t length = ((word >> 8) & (0xFFFFu >> (value & 8u))) + 1;
        const size_t produced = literals + length;
        if (static_cast<size_t>(output_end_ - output_) < produced + kWidth) return false;

        uint8_t* const begin = output_;
        input_ = token + 3 - (value & 1u);
        output_ += produced;
        uint8_t* const run = begin + literals;
        const Bytes fill = Vector::Fill(value);
        if (length > kShortRunMax) {
            // Longer than what the row's store spills over.
            if constexpr (kBehindLiterals) Vector::Store(begin, row);
            FillLong(run, fill, value, length);
            return true;
        }
        const Bytes behind = Vector::Load(run + length);
        if constexpr (kBehindLiterals) Vector::Store(begin, row);
        for (size_t offset = 0; offset < kShortRunMax; offset += kWidth) {
            Vector::Store(run + (offset < length ? offset : length), fill);
        }
        Vector::Store(run + length, behind);
        return true;
    }

    static void FillLong(uint8_t* run, Bytes fill, uint8_t value, size_t length) {
        if (length > Vector::kFillMax) {
            __builtin_memset(run, value, length);
            return;
        }
        uint8_t* const last_block = run + length - kShortRunMax;
        while (run < last_block) {
            FillBlock(run, fill);
            run += kShortRunMax;
        }
        FillBlock(last_block, fill);
    }

    static void FillBlock(uint8_t* block, Bytes fill) {
        for (size_t offset = 0; offset < kShortRunMax; offset += kWidth)
            Vector::Store(block + offset, fill);
    }

    RunLengthCursor& at_;
    uint8_t* output_;
    uint8_t* const output_end_;
    const uint8_t* input_;
    const uint8_t* const input_end_;
};

}  // namespace
