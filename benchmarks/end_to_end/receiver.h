#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "latencies.h"
#include "run.h"

namespace kelo::bench {

// What the receiver of a row is made for.
struct ReceiverSetup {
    Traffic traffic;
    uint32_t first_camera = 0x7F000001;  // addresses in host order
    uint16_t tcp_port = 0;
    bool merging = true;   // false: the system seems not to know it
    bool restart = false;  // start the acquisition anew in each run
};

// What arrived in one run.
struct Received {
    double seconds = 0;  // from the start to the last arrival
    uint64_t bytes = 0;
    uint64_t datagrams = 0;
    uint64_t whole_images = 0;
    uint32_t images_in_flight = 0;
};

// Whether the sender is done. Costs a system call: asked only when nothing comes.
using SenderDone = std::function<bool()>;

// A way to receive what the cameras send; alone in its process.
class Receiver {
public:
    virtual ~Receiver() = default;
    // Where to send; 0: where the library told the cameras.
    virtual uint16_t Port() const { return 0; }
    virtual uint8_t TcpTag() const { return 0; }
    // The threads that take in what the kernel has received.
    virtual std::vector<pid_t> Threads() const = 0;
    // When the order to send is on its way.
    virtual void Begin() {}
    // Receives until nothing comes any more. Throws std::runtime_error if the data of a whole image
    // is not what was sent.
    virtual Received Run(const SenderDone& done, Latencies& latencies) = 0;
};

// Null for a name that is none. "library" (through the exported functions), "plain" (wait, then one
// recvfrom per datagram), "blocking" (recvfrom with a receive time-out), "drop" (batches, thrown
// away), "floor" (merged datagrams in batches, copied), "scatter" (the same, written by the kernel
// to where they are expected to belong), "moderated" (the floor, sleeping a moment where packets
// come one by one), "unread" (a socket that nobody reads), "iperf-like" (TCP, thrown away); over
// TCP "plain" reads into a frame.
std::unique_ptr<Receiver> MakeReceiver(const std::string& name, const ReceiverSetup& setup);

std::unique_ptr<Receiver> MakeLibraryReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakePlainReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakeBlockingReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakeDropReceiver();
std::unique_ptr<Receiver> MakeFloorReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakeScatterReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakeModeratedReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakeUnreadReceiver();
std::unique_ptr<Receiver> MakeTcpFrameReceiver(const ReceiverSetup& setup);
std::unique_ptr<Receiver> MakeTcpDropReceiver(const ReceiverSetup& setup);

}  // namespace kelo::bench
