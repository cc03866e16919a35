#pragma once

#include <string>
#include <vector>

#include "sampler.h"

namespace kelo::soak {

// The least-squares line's rise over the samples' time.
double Growth(const std::vector<Sample>& samples, uint64_t Usage::*member);

// What is wrong with the samples at rest, in words; empty when nothing is.
std::vector<std::string> JudgeRests(const std::vector<Sample>& rests);

}  // namespace kelo::soak
