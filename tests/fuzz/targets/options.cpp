// Lines of image options, which come from a file or from the application.

#include <cmath>
#include <memory>
#include <string_view>

#include "fuzz.h"
#include "image_options.h"

using kelo::fuzz::Require;

namespace {

constexpr std::string_view kSpace = " \t\n\v\f\r";

// The line's first word.
std::string_view FirstWord(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(kSpace), line.size()));
    return line.substr(0, line.find_first_of(kSpace));
}

// Whether a number may follow the first word: without one the factor is 1.
bool HasDigit(std::string_view line) {
    return line.find_first_of("0123456789") != std::string_view::npos ||
           line.find_first_of("nN") != std::string_view::npos;  // nan, inf
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto text = std::make_unique<char[]>(size + 1);
    std::copy(data, data + size, text.get());
    const std::string_view line(text.get());

    TImageOptions options;
    constexpr double kBefore = 7;
    options.KernelMemoryFactor = kBefore;
    options.Type = TImageOptions::TYPE_PCAP;
    const bool understood = options.Parse(text.get());

    const bool is_udp = FirstWord(line) == "UDP";
    Require((options.Type == TImageOptions::TYPE_UDP) == is_udp, "the type follows the word");
    Require(is_udp || !understood, "only UDP is understood");
    const double factor = options.KernelMemoryFactor;
    if (!understood) {
        Require(factor == kBefore, "what is not understood changes no factor");
        Require(!is_udp || HasDigit(line), "UDP alone is understood");
        return 0;
    }
    Require(!(factor < 0.3) && !(factor > 100), "the factor is in its range");
    Require(HasDigit(line) || factor == 1, "the factor is 1 when there is none");
    return 0;
}
