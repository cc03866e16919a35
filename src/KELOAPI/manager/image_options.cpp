#include "image_options.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr double kFactorMin = 0.3;
constexpr double kFactorMax = 100.0;

}  // namespace

bool TImageOptions::Parse(const char* line) {
    char word[11];
    double factor = 1.0;
    // A number that does not fit is as good as none, so the conversion's errors need no look.
    // NOLINTNEXTLINE(cert-err34-c)
    if (sscanf(line, "%10s %lf", word, &factor) < 1) return false;
    if (strcmp(word, "UDP") != 0) return false;
    Type = TYPE_UDP;
    if (factor < kFactorMin || factor > kFactorMax) return false;
    KernelMemoryFactor = factor;
    return true;
}
