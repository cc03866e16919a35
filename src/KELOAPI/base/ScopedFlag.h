#pragma once

#include <atomic>

// Sets a flag for its own lifetime.
class ScopedFlag {
public:
    explicit ScopedFlag(std::atomic<bool>& flag) : flag_(flag) {
        // What the reference leads to is set: NOLINTNEXTLINE(*-prefer-member-initializer)
        flag_ = true;
    }
    ~ScopedFlag() { flag_ = false; }
    ScopedFlag(const ScopedFlag&) = delete;
    ScopedFlag& operator=(const ScopedFlag&) = delete;

private:
    std::atomic<bool>& flag_;
};
