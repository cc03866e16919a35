#pragma once

namespace kelo::bench {

// From here on the process is told that the system does not know how to hand over merged datagrams
// (UDP_GRO), as an older one would tell it. Then the kernel splits each message of the sender
// before it enters the receiver's queue.
void RefuseMerging();

}  // namespace kelo::bench
