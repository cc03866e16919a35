// Run-length decoding by every loop that this processor can run, against a simple model.
// Input: size of the output, then the encoded bytes.

#include "run_length.h"

#include <cstring>
#include <memory>

#include "fuzz.h"
#include "input.h"
#include "run_length_model.h"
#include "run_length_variants.h"

using kelo::fuzz::Input;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;

namespace {

constexpr uint8_t kUntouched = 0xEE;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint32_t output_size = input.U16();
    // Blocks of exactly the documented sizes: the address sanitizer guards their ends.
    const auto rest = input.Rest();
    const auto encoded = std::make_unique<uint8_t[]>(rest.size());
    std::copy(rest.begin(), rest.end(), encoded.get());
    std::vector<uint8_t> expected(output_size + 1, kUntouched);
    const int result = kelo::fuzz::RunLengthModel(expected, output_size).Decode(rest);

    const auto output = std::make_unique<uint8_t[]>(output_size + 1);
    for (const RunLengthVariant& variant : RunLengthVariants()) {
        std::memset(output.get(), kUntouched, output_size + 1);
        RequireEqual(DecodeRLE(variant.loop, output.get(), encoded.get(),
                               static_cast<int>(output_size), static_cast<int>(rest.size())),
                     result, variant.name);
        Require(std::memcmp(output.get(), expected.data(), expected.size()) == 0, variant.name);
    }
    return 0;
}
