#pragma once

#include <string>

#include <sys/types.h>

namespace kelo::bench {

// Takes the receiver's core away for a while, again and again, as other work of the machine does.
class Stalls {
public:
    // With real-time priority where the process may have it; otherwise the receiving process is
    // stopped and continued by signals.
    explicit Stalls(int core);

    void Inflict(pid_t receiver, double stall_ms, int count) const;
    const char* How() const;

private:
    void Stall(pid_t receiver, double stall_ms) const;

    const int core_;
    bool real_time_;
};

}  // namespace kelo::bench
