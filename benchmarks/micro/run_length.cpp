// What decoding a run-length coded image costs, beside the plain loop over its bytes.

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "plain_run_length.h"
#include "register.h"
#include "run_length_variants.h"

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

struct Image {
    const char* name;
    Bytes (*make)();
};

constexpr Image kImages[] = {{"grey noise", GreyNoise},
                             {"laser line", LaserLine},
                             {"binary blobs", BinaryBlobs},
                             {"uniform bytes", Uniform}};

template <typename Decoder>
void Decode(benchmark::State& state, const Image& image, Decoder decode) {
    const Bytes coded = image.make();
    Bytes output(kPixels + 1);
    for ([[maybe_unused]] auto step : state) {
        if (decode(output, coded) != 1) state.SkipWithError("the image was not decoded whole");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t{kPixels});
}

void Register(const Image& image) {
    const std::string name = std::string("decode ") + image.name + "/";
    Row(name + "plain loop", [image](benchmark::State& state) {
        Decode(state, image, [](Bytes& output, const Bytes& coded) {
            return DecodePlainly(output.data(), coded.data(), kPixels,
                                 static_cast<uint32_t>(coded.size()));
        });
    });
    // The last one is what the library chooses on this machine.
    for (const RunLengthVariant& variant : RunLengthVariants()) {
        Row(name + variant.name, [=](benchmark::State& state) {
            Decode(state, image, [=](Bytes& output, const Bytes& coded) {
                return DecodeRLE(variant.loop, output.data(), coded.data(),
                                 static_cast<int>(kPixels), static_cast<int>(coded.size()));
            });
        });
    }
}

[[maybe_unused]] const bool is_registered = [] {
    for (const Image& image : kImages)
        Register(image);
    return true;
}();

}  // namespace
