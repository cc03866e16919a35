#pragma once

#include <chrono>

#include <gtest/gtest.h>

namespace kelo::test {

// The time since it was made.
class Stopwatch {
public:
    std::chrono::steady_clock::duration Elapsed() const {
        return std::chrono::steady_clock::now() - begin_;
    }

private:
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// For behaviour that goes by real time, which a machine that stands still for a while can turn into
// another that is just as right. An attempt finds out whether it was one that the machine let run
// in time; only then it judges, and returns true. A fault that lets no attempt be in time fails the
// test as well.
template <typename Attempt>
void RepeatUntilInTime(const Attempt& attempt) {
    constexpr int kAttemptsMax = 10;
    for (int i = 0; i < kAttemptsMax; ++i) {
        if (attempt() || testing::Test::HasFailure()) return;
    }
    ADD_FAILURE() << "none of " << kAttemptsMax << " attempts was in time";
}

}  // namespace kelo::test
