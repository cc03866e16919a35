#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

// Lets many users in until it is closed; closing waits for those who are inside. Stands between an
// object and users that may outlive it: who gets in may use the object, who does not must do
// without it.
//
// A user may enter again while inside; the inner attempt fails once the gate is being closed.
class AccessGate {
public:
    class Pass {
    public:
        explicit Pass(AccessGate& gate) : gate_(gate.Enter() ? &gate : nullptr) {}
        ~Pass() {
            if (gate_ != nullptr) gate_->Leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        explicit operator bool() const { return gate_ != nullptr; }

    private:
        AccessGate* gate_;
    };

    // Never from inside.
    void Close() {
        std::unique_lock lock(mutex_);
        closed_ = true;
        left_.wait(lock, [this] { return inside_ == 0; });
    }

private:
    bool Enter() {
        const std::lock_guard lock(mutex_);
        if (closed_) return false;
        ++inside_;
        return true;
    }
    void Leave() {
        const std::lock_guard lock(mutex_);
        if (--inside_ == 0) left_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable left_;
    size_t inside_ = 0;
    bool closed_ = false;
};
