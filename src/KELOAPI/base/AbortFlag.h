#pragma once

#include <atomic>
#include <cstddef>

// A borrowed flag by which another thread ends a wait early; may be absent. The other thread's
// writes to a plain bool go through std::atomic_ref or happen before the wait.
class AbortFlag {
public:
    AbortFlag() = default;
    AbortFlag(std::nullptr_t) {}
    AbortFlag(bool* flag) : plain_(flag) {}
    AbortFlag(const std::atomic<bool>* flag) : atomic_(flag) {}

    bool IsPresent() const { return plain_ != nullptr || atomic_ != nullptr; }
    bool IsSet() const {
        if (atomic_ != nullptr) return atomic_->load();
        return plain_ != nullptr && std::atomic_ref<bool>(*plain_).load();
    }

private:
    bool* plain_ = nullptr;
    const std::atomic<bool>* atomic_ = nullptr;
};
