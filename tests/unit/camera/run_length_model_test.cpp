// Compares every way of run-length decoding with a model that is as simple as can be, on random
// inputs. KELO_RUN_LENGTH_INPUTS sets how many; input n is the same in every run.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "run_length.h"
#include "run_length_variants.h"

namespace {

constexpr size_t kOutputMax = 1 << 17;
constexpr size_t kInputMax = 1024;
constexpr size_t kGuard = 64;

class Random {
public:
    explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}
    uint32_t Below(uint32_t limit) { return Next() % limit; }
    template <typename Values>
    auto OneOf(const Values& values) {
        return values[Below(static_cast<uint32_t>(std::size(values)))];
    }
    uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>(state_ >> 32);
    }

private:
    uint64_t state_;
};

// Memory with a page behind it that nobody may touch.
class MemoryBeforeAWall {
public:
    explicit MemoryBeforeAWall(size_t size) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_ = (size + page - 1) / page * page;
        void* area =
            mmap(nullptr, size_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) std::abort();
        begin_ = static_cast<uint8_t*>(area);
        if (mprotect(begin_ + size_, page, PROT_NONE) != 0) std::abort();
        mapped_ = size_ + page;
    }
    ~MemoryBeforeAWall() { munmap(begin_, mapped_); }
    MemoryBeforeAWall(const MemoryBeforeAWall&) = delete;
    MemoryBeforeAWall& operator=(const MemoryBeforeAWall&) = delete;

    // The last bytes before the wall.
    uint8_t* Last(size_t bytes) { return begin_ + size_ - bytes; }

private:
    uint8_t* begin_ = nullptr;
    size_t size_ = 0;
    size_t mapped_ = 0;
};

// The format's description, step by step. Sizes are such that nothing overflows.
int DecodeByTheBook(uint8_t* out, uint32_t out_size, const uint8_t* in, uint32_t in_size) {
    uint32_t pixels = 0;
    uint32_t used = 0;
    const auto put = [&](uint8_t value, uint32_t times) {
        for (uint32_t i = 0; i < times; ++i)
            out[pixels - times + i] = value;
    };
    while (used < in_size) {
        const uint8_t value = in[used];
        if (value == 1 || value == 2) return value;
        ++pixels;
        put(value, 1);
        if (value == 0) {
            if (out_size < pixels) return 3;
            if (in_size <= used + 1) return 4;
            if (in_size <= used + 2) return 5;
            const uint32_t rest = in[used + 1] + 256u * in[used + 2];
            used += 3;
            if (in_size <= used) return 6;
            pixels += rest;
            if (out_size < pixels) return 7;
            put(0, rest);
        } else if (value == 0xFF) {
            if (out_size < pixels) return 8;
            if (in_size <= used + 1) return 9;
            const uint32_t rest = in[used + 1];
            used += 2;
            if (in_size <= used) return 10;
            pixels += rest;
            if (out_size < pixels) return 11;
            put(0xFF, rest);
        } else {
            if (out_size < pixels) return 12;
            used += 1;
            if (in_size <= used) return 13;
        }
    }
    if (pixels == out_size) return 0;
    std::memset(out + pixels, 0, out_size - pixels);
    return 14;
}

// What an input mostly consists of.
enum class Shape { AnyBytes, Literals, Runs, ShortTokens, AroundVectorWidths, Mixed };

constexpr Shape kShapes[] = {Shape::AnyBytes,    Shape::Literals,           Shape::Runs,
                             Shape::ShortTokens, Shape::AroundVectorWidths, Shape::Mixed};
constexpr uint32_t kEdges[] = {1,  2,  15, 16,  17,  31,  32,  33,  47,  48,  49,
                               63, 64, 65, 127, 128, 129, 130, 255, 256, 257, 600};

// An input and the output size that it is decoded into.
class Input {
public:
    explicit Input(uint64_t number) : random_(number) {
        const Shape shape = random_.OneOf(kShapes);
        const uint32_t size = random_.Below(random_.OneOf(kSizes)) + 1;
        while (size_ < size)
            AddSome(shape);
        Finish();
        ChooseOutputSize();
    }

    const uint8_t* Data() const { return bytes_.data(); }
    uint32_t Size() const { return size_; }
    uint32_t OutputSize() const { return output_size_; }

private:
    static constexpr uint32_t kSizes[] = {4, 40, 80, 200};

    void AddSome(Shape shape) {
        switch (shape) {
            case Shape::AnyBytes:
                return Add(static_cast<uint8_t>(random_.Next()));
            case Shape::Literals:
                return random_.Below(60) == 0 ? Run(1 + random_.Below(100)) : Literals(1);
            case Shape::Runs:
                return random_.Below(8) == 0 ? Literals(1) : Run(1 + random_.Below(200));
            case Shape::ShortTokens:
                return random_.Below(2) == 0 ? Literals(random_.Below(4))
                                             : Run(1 + random_.Below(4));
            case Shape::AroundVectorWidths:
                if (random_.Below(2) == 0) return Literals(std::min(random_.OneOf(kEdges), 130u));
                return Run(random_.OneOf(kEdges));
            case Shape::Mixed:
                return AddSome(random_.OneOf(kShapes));
        }
    }

    void Add(uint8_t byte) { bytes_.at(size_++) = byte; }
    void Literals(uint32_t count) {
        for (uint32_t i = 0; i < count; ++i)
            Add(static_cast<uint8_t>(3 + random_.Below(252)));
        pixels_ += count;
    }
    void Run(uint32_t length) {
        pixels_ += length;
        if (length <= 256 && random_.Below(2) == 0) {
            Add(0xFF);
            return Add(static_cast<uint8_t>(length - 1));
        }
        Add(0);
        Add(static_cast<uint8_t>(length - 1));
        Add(static_cast<uint8_t>((length - 1) >> 8));
    }

    // With an end marker, with further bytes behind it, with none, or cut anywhere.
    void Finish() {
        const uint32_t kind = random_.Below(8);
        if (kind == 0) {
            size_ = random_.Below(size_ + 1);
        } else if (kind > 1) {
            Add(static_cast<uint8_t>(1 + random_.Below(2)));
            for (uint32_t more = kind == 2 ? random_.Below(80) : 0; more > 0; --more)
                Add(static_cast<uint8_t>(random_.Next()));
        }
    }

    void ChooseOutputSize() {
        switch (random_.Below(8)) {
            case 0:
                output_size_ = random_.Below(5);
                break;
            case 1:
                output_size_ = random_.Below(pixels_ + 1);
                break;
            case 2:
            case 3:
                output_size_ = pixels_ + random_.Below(5) - std::min(pixels_, 2u);
                break;
            case 4:
                // Rarely, as it costs most of the time: room for all that bytes can ask for.
                output_size_ = random_.Below(200) == 0 ? kOutputMax - 1 - random_.Below(1000)
                                                       : pixels_ + random_.Below(2000);
                break;
            default:
                output_size_ = pixels_ + random_.Below(140);
        }
    }

    Random random_;
    std::array<uint8_t, kInputMax> bytes_;
    uint32_t size_ = 0;
    uint32_t pixels_ = 0;
    uint32_t output_size_ = 0;
};

// The output's memory, with guard bytes on both sides: the same content before each decoding, no
// two neighbours of it alike.
class Output {
public:
    Output() : memory_(kOutputMax + 2 * kGuard), blank_(kOutputMax + 2 * kGuard) {
        Random random(1);
        for (uint8_t& byte : blank_)
            byte = static_cast<uint8_t>(random.Next());
    }

    // With is_at_the_wall there are no guard bytes behind the output, but the wall.
    uint8_t* Prepare(uint32_t output_size, bool is_at_the_wall) {
        size_ = kGuard + output_size + 1 + (is_at_the_wall ? 0 : kGuard);
        std::memcpy(memory_.Last(size_), blank_.data(), size_);
        return memory_.Last(size_) + kGuard;
    }
    bool operator==(Output& other) {
        return size_ == other.size_ &&
               std::memcmp(memory_.Last(size_), other.memory_.Last(size_), size_) == 0;
    }

private:
    MemoryBeforeAWall memory_;
    std::vector<uint8_t> blank_;
    size_t size_ = 0;
};

uint64_t InputCount() {
    const char* text = std::getenv("KELO_RUN_LENGTH_INPUTS");
    return text != nullptr ? std::strtoull(text, nullptr, 10) : 100'000;
}

// What the library calls, and each of its variants.
struct Subject {
    std::string name;
    int (*chosen)(void*, const void*, int, int);
    RunLengthLoop loop;
    int operator()(void* output, const void* input, uint32_t output_size,
                   uint32_t input_size) const {
        const auto out = static_cast<int>(output_size);
        const auto in = static_cast<int>(input_size);
        return chosen != nullptr ? chosen(output, input, out, in)
                                 : DecodeRLE(loop, output, input, out, in);
    }
};

std::vector<Subject> Subjects() {
    std::vector<Subject> subjects{{"chosen", DecodeRLE, nullptr}};
    for (const RunLengthVariant& variant : RunLengthVariants())
        subjects.push_back({variant.name, nullptr, variant.loop});
    return subjects;
}

TEST(RunLengthModel, AllVariantsGiveTheModelsCodesAndBytesAndTouchNothingElse) {
    const std::vector<Subject> subjects = Subjects();
    Output expected;
    Output actual;
    MemoryBeforeAWall input_memory(kInputMax);
    std::array<uint64_t, 15> codes{};
    const uint64_t count = InputCount();
    for (uint64_t number = 0; number < count; ++number) {
        const Input input(number);
        uint8_t* const data = input_memory.Last(input.Size());
        std::memcpy(data, input.Data(), input.Size());
        const uint32_t size = input.OutputSize();
        const bool is_at_the_wall = number % 2 == 0;
        const int code =
            DecodeByTheBook(expected.Prepare(size, is_at_the_wall), size, data, input.Size());
        ++codes.at(static_cast<size_t>(code));
        for (const Subject& decode : subjects) {
            ASSERT_EQ(decode(actual.Prepare(size, is_at_the_wall), data, size, input.Size()), code)
                << decode.name << ", input " << number;
            ASSERT_TRUE(actual == expected) << decode.name << ", input " << number;
        }
    }
    // Otherwise the inputs do not ask what they should.
    for (size_t code = 0; count >= 100'000 && code < codes.size(); ++code)
        EXPECT_GT(codes[code], 0u) << "code " << code << " never came";
}

// Nobody would notice but by the time that it takes.
TEST(RunLengthVariants, TheVectorLoopsLeaveOnlyTheEndToThePlainDecoder) {
    Random random(3);
    std::vector<uint8_t> input;
    for (uint32_t row = 0; row < 200; ++row) {
        input.insert(input.end(), row, 0x7F);
        input.insert(input.end(), {0, static_cast<uint8_t>(random.Next()), 0});
        input.insert(input.end(), {0xFF, static_cast<uint8_t>(random.Next())});
    }
    std::vector<uint8_t> output(kOutputMax);
    for (const RunLengthVariant& variant : RunLengthVariants()) {
        if (variant.loop == nullptr) continue;
        RunLengthCursor at{output.data(), output.size(), input.data(), input.size()};
        variant.loop(at);
        EXPECT_LT(at.input_left, 40u) << variant.name;
    }
}

// A negative size stands for more memory than there is.
TEST(RunLengthVariants, WithANegativeOutputSizeNothingIsTouchedButWhatTokensAskFor) {
    std::vector<uint8_t> input(100, 0x7F);
    input.insert(input.end(), {0, 10, 0, 1});
    input.insert(input.end(), 100, 0x7F);
    MemoryBeforeAWall memory(4096);
    uint8_t* const output = memory.Last(111);
    EXPECT_EQ(DecodeRLE(output, input.data(), -1, static_cast<int>(input.size())), 1);
    EXPECT_EQ(output[99], 0x7F);
    EXPECT_EQ(output[110], 0);
}

}  // namespace
