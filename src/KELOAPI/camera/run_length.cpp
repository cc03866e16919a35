#include "run_length.h"

#include <cstdint>
#include <cstring>

#include "run_length_variants.h"

namespace {

constexpr uint8_t kEnd1 = 0x01;
constexpr uint8_t kEnd2 = 0x02;
constexpr uint8_t kZeroRun = 0x00;
constexpr uint8_t kFullRun = 0xFF;
constexpr int kNextToken = -1;

// Knows every rule; one token after the other.
class PlainDecoder {
public:
    explicit PlainDecoder(const RunLengthCursor& at) : at_(at) {}

    // The result code, or kNextToken.
    int DecodeToken() {
        const uint8_t value = *at_.input;
        if (value == kEnd1) return 1;
        if (value == kEnd2) return 2;
        *at_.output = value;
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
    int DecodeZeroRun() {
        if (at_.output_left == 0) return 3;
        if (at_.input_left <= 1) return 4;
        if (at_.input_left <= 2) return 5;
        if (at_.input_left <= 3) return 6;
        const size_t length = at_.input[1] + size_t{256} * at_.input[2] + 1;
        return FinishRun(3, kZeroRun, length) ? kNextToken : 7;
    }

    int DecodeFullRun() {
        if (at_.output_left == 0) return 8;
        if (at_.input_left <= 1) return 9;
        if (at_.input_left <= 2) return 10;
        const size_t length = at_.input[1] + size_t{1};
        return FinishRun(2, kFullRun, length) ? kNextToken : 11;
    }

    int FinishLiteral() {
        if (at_.output_left == 0) return 12;
        if (at_.input_left <= 1) return 13;
        Advance(1, 1);
        return kNextToken;
    }

    bool FinishRun(size_t token_bytes, uint8_t value, size_t length) {
        if (at_.output_left < length) return false;
        std::memset(at_.output, value, length);
        Advance(token_bytes, length);
        return true;
    }

    void Advance(size_t input, size_t output) {
        at_.input += input;
        at_.input_left -= input;
        at_.output += output;
        at_.output_left -= output;
    }

    RunLengthCursor at_;
};

}  // namespace

std::span<const RunLengthVariant> RunLengthVariants() {
#if defined(__x86_64__)
    static constexpr RunLengthVariant kVariants[] = {
        {"plain", nullptr}, {"sse2", DecodeRunLengthWithSse2}, {"avx2", DecodeRunLengthWithAvx2}};
    static const bool has_avx2 = __builtin_cpu_supports("avx2") != 0;
    return std::span(kVariants).first(has_avx2 ? 3 : 2);
#else
    static constexpr RunLengthVariant kVariants[] = {{"plain", nullptr}};
    return kVariants;
#endif
}

int DecodeRLE(void* pBuffer, const void* pRLEbuffer, int BufferSize, int RleMaxBufferSize) {
    return DecodeRLE(RunLengthVariants().back().loop, pBuffer, pRLEbuffer, BufferSize,
                     RleMaxBufferSize);
}

int DecodeRLE(RunLengthLoop loop, void* pBuffer, const void* pRLEbuffer, int BufferSize,
              int RleMaxBufferSize) {
    const auto output_size = static_cast<uint32_t>(BufferSize);
    if (RleMaxBufferSize < 0) return 0;
    if (RleMaxBufferSize == 0) {
        // No data at all stands for an empty image.
        if (output_size == 0) return 0;
        std::memset(pBuffer, 0, output_size);
        return 14;
    }
    RunLengthCursor at{static_cast<uint8_t*>(pBuffer), output_size,
                       static_cast<const uint8_t*>(pRLEbuffer),
                       static_cast<size_t>(RleMaxBufferSize)};
    // A negative size stands for one of 2^31 and more. Hardly anybody has so much memory: nothing
    // is touched there but what the tokens ask for.
    if (loop != nullptr && BufferSize >= 0) loop(at);
    PlainDecoder decoder(at);
    // Every token consumes input and reports its end, so the loop is bounded by the input.
    while (true) {
        const int result = decoder.DecodeToken();
        if (result != kNextToken) return result;
    }
}
