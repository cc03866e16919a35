#pragma once

#include <memory>
#include <string>

#include "../support/child_process.h"
#include "../support/peer.h"
#include "receiver.h"
#include "run.h"

namespace kelo::bench {

// A process that receives in one way, pinned to the receiver's core, so that memory and processor
// time are that way's alone. It has the cameras send, and sleeps while others have their turn.
class Worker {
public:
    // Forks, so call it before any thread exists. Throws std::runtime_error with what the receiver
    // had to say when it could not be made.
    Worker(const std::string& name, const ReceiverSetup& setup, int core, Peer& cameras);

    const std::string& Name() const { return name_; }
    pid_t Pid() const { return process_->Pid(); }

    // The port and the connection of the order are filled in.
    void Begin(const Order& order) { process_->Send(order); }
    // Throws std::runtime_error when the receiver failed.
    RunResult Wait(double seconds) const;

private:
    std::string name_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace kelo::bench
