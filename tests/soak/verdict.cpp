#include "verdict.h"

namespace kelo::soak {
namespace {

// The first half is warm-up. Over the second one a line through the samples may rise by so much:
// below what one leaked image in ten rests would make of it in two hours, above what the system's
// allocator moves to and fro.
constexpr double kResidentGrowthKbMax = 4096;
constexpr double kHeapGrowthKbMax = 256;

}  // namespace

double Growth(const std::vector<Sample>& samples, uint64_t Usage::*member) {
    if (samples.size() < 2) return 0;
    const auto count = static_cast<double>(samples.size());
    double mean_x = 0;
    double mean_y = 0;
    for (const Sample& sample : samples) {
        mean_x += sample.seconds / count;
        mean_y += static_cast<double>(sample.usage.*member) / count;
    }
    double xy = 0;
    double xx = 0;
    for (const Sample& sample : samples) {
        const double x = sample.seconds - mean_x;
        xy += x * (static_cast<double>(sample.usage.*member) - mean_y);
        xx += x * x;
    }
    return xx > 0 ? xy / xx * (samples.back().seconds - samples.front().seconds) : 0;
}

std::vector<std::string> JudgeRests(const std::vector<Sample>& rests) {
    std::vector<std::string> wrong;
    const auto expect = [&](bool holds, const std::string& text) {
        if (!holds) wrong.push_back(text);
    };
    expect(rests.size() >= 4, "too few samples at rest for a verdict");
    if (rests.empty()) return wrong;
    for (const Sample& rest : rests) {
        expect(rest.usage.descriptors == rests.front().usage.descriptors,
               "descriptors at rest after " + std::to_string(rest.seconds) +
                   " s: " + std::to_string(rest.usage.descriptors));
        expect(rest.usage.threads == rests.front().usage.threads,
               "threads at rest after " + std::to_string(rest.seconds) +
                   " s: " + std::to_string(rest.usage.threads));
    }
    const std::vector<Sample> half(rests.begin() + static_cast<long>(rests.size() / 2),
                                   rests.end());
    const double resident = Growth(half, &Usage::resident_kb);
    const double heap = Growth(half, &Usage::heap_kb);
    expect(resident < kResidentGrowthKbMax,
           "resident memory grows by " + std::to_string(resident) + " kB in the second half");
    expect(heap < kHeapGrowthKbMax,
           "the heap grows by " + std::to_string(heap) + " kB in the second half");
    return wrong;
}

}  // namespace kelo::soak
