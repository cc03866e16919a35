#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kelo::bench {

// The way from the cameras to the receivers.
enum class Way {
    LOOPBACK,       // messages of several datagrams stay one on their way
    VETH,           // the receiver's kernel work on the receiver's core
    VETH_UNMERGED,  // the same; packets arrive one by one, and may be merged there
};

// Private networks for the two sides; made before any thread exists. Throws std::runtime_error with
// what stands in the way.
class NetworkPath {
public:
    // The network of the cameras, in which the process is now.
    explicit NetworkPath(Way way);

    // The network of the receivers, once there is a process of the cameras.
    void EnterReceiverSide(pid_t cameras, int receiver_core);

    // Addresses in host order.
    uint32_t FirstCamera() const { return first_camera_; }
    uint32_t ReceiverAddress() const { return receiver_address_; }
    // Whether the sender may leave splitting to the kernel.
    bool KernelSplits() const { return kernel_splits_; }
    // What is to be known about the way; may be empty.
    const std::string& Note() const { return note_; }
    // Whether the kernel receives in threads of its own.
    bool HasKernelThreads() const { return !kernel_threads_.empty(); }
    // Processor time of the kernel's threads that receive, in seconds; 0 where there are none.
    double KernelThreadSeconds() const;

private:
    bool IsVeth() const { return way_ == Way::VETH || way_ == Way::VETH_UNMERGED; }
    void PrepareLoopback();
    void SetUpVeth(pid_t cameras);
    void PinReceivingThreads(int core);

    const Way way_;
    std::string veth_;  // the receiver's end
    std::string veth_camera_;
    uint32_t first_camera_ = 0x7F000001;
    uint32_t receiver_address_ = 0x7F000001;
    bool kernel_splits_ = true;
    std::string note_;
    std::vector<pid_t> kernel_threads_;
};

}  // namespace kelo::bench
