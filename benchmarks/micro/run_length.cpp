// What decoding a run-length coded image costs, beside the plain loop over its bytes.

#include "run_length.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kPixels = 2048 * 2048;

// Builds coded images of exactly kPixels.
class Coder {
public:
    bool IsFull() const { return pixels_ == kPixels; }
    void Zeros(uint32_t count) {
        count = Take(count);
        if (count == 0) return;
        coded_.insert(coded_.end(),
                      {0, static_cast<uint8_t>(count - 1), static_cast<uint8_t>((count - 1) >> 8)});
    }
    void Full(uint32_t count) {
        count = Take(std::min(count, 256u));
        if (count == 0) return;
        coded_.insert(coded_.end(), {0xFF, static_cast<uint8_t>(count - 1)});
    }
    void Literal(uint8_t value) {
        if (Take(1) == 1) coded_.push_back(value);
    }
    Bytes Finish() {
        coded_.push_back(1);
        return std::move(coded_);
    }

private:
    uint32_t Take(uint32_t count) {
        count = std::min(count, kPixels - pixels_);
        pixels_ += count;
        return count;
    }

    Bytes coded_;
    uint32_t pixels_ = 0;
};

template <typename AddSome>
Bytes Code(AddSome add_some) {
    std::mt19937 random(1);
    Coder coder;
    while (!coder.IsFull())
        add_some(coder, random);
    return coder.Finish();
}

uint8_t AnyLiteral(std::mt19937& random) {
    return static_cast<uint8_t>(3 + random() % 252);
}

Bytes GreyNoise() {
    return Code([](Coder& coder, std::mt19937& random) { coder.Literal(AnyLiteral(random)); });
}

Bytes LaserLine() {
    return Code([](Coder& coder, std::mt19937& random) {
        coder.Zeros(900 + random() % 200);
        for (int i = 0; i < 12; ++i)
            coder.Literal(AnyLiteral(random));
    });
}

Bytes BinaryBlobs() {
    return Code([](Coder& coder, std::mt19937& random) {
        coder.Zeros(20 + random() % 100);
        coder.Full(20 + random() % 100);
    });
}

Bytes Uniform() {
    return Code([](Coder& coder, std::mt19937& random) {
        const auto value = static_cast<uint8_t>(random());
        if (value == 0) {
            coder.Zeros(1 + random() % 100);
        } else if (value == 0xFF) {
            coder.Full(1 + random() % 100);
        } else {
            coder.Literal(std::max<uint8_t>(value, 3));
        }
    });
}

// The floor: the format's rules, byte by byte, with every check that the library makes.
int DecodePlainly(uint8_t* output, const uint8_t* input, uint32_t output_size,
                  uint32_t input_size) {
    uint32_t produced = 0;
    uint32_t consumed = 0;
    while (consumed < input_size) {
        const uint8_t value = input[consumed];
        if (value == 1 || value == 2) return value;
        if (output_size < produced + 1) return 12;
        output[produced++] = value;
        uint32_t run = 0;
        uint32_t token = 1;
        if (value == 0) {
            if (input_size <= consumed + 2) return 4;
            run = input[consumed + 1] | uint32_t{input[consumed + 2]} << 8;
            token = 3;
        } else if (value == 0xFF) {
            if (input_size <= consumed + 1) return 9;
            run = input[consumed + 1];
            token = 2;
        }
        consumed += token;
        if (input_size <= consumed) return 13;
        if (output_size - produced < run) return 7;
        for (uint32_t i = 0; i < run; ++i)
            output[produced + i] = value;
        produced += run;
    }
    return 0;
}

template <Bytes (*MakeImage)(), bool kPlain>
void Decode(benchmark::State& state) {
    const Bytes image = MakeImage();
    Bytes output(kPixels + 1);
    for ([[maybe_unused]] auto step : state) {
        const int result = kPlain
                               ? DecodePlainly(output.data(), image.data(), kPixels,
                                               static_cast<uint32_t>(image.size()))
                               : DecodeRLE(output.data(), image.data(), static_cast<int>(kPixels),
                                           static_cast<int>(image.size()));
        if (result != 1) state.SkipWithError("the image was not decoded whole");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kPixels});
}

BENCHMARK(Decode<GreyNoise, true>)->Name("decode grey noise, plain loop");
BENCHMARK(Decode<GreyNoise, false>)->Name("decode grey noise, library");
BENCHMARK(Decode<LaserLine, true>)->Name("decode laser line, plain loop");
BENCHMARK(Decode<LaserLine, false>)->Name("decode laser line, library");
BENCHMARK(Decode<BinaryBlobs, true>)->Name("decode binary blobs, plain loop");
BENCHMARK(Decode<BinaryBlobs, false>)->Name("decode binary blobs, library");
BENCHMARK(Decode<Uniform, true>)->Name("decode uniform bytes, plain loop");
BENCHMARK(Decode<Uniform, false>)->Name("decode uniform bytes, library");

}  // namespace
