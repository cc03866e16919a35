#pragma once

namespace kelo::bench {

enum class Merge {
    MERGED,    // datagrams that were sent as one message arrive as one
    UNMERGED,  // they arrive one by one
    REFUSED,   // the system does not split messages at all
};

// How a message of several datagrams arrives over the loopback interface.
Merge ProbeLoopbackMerge();

}  // namespace kelo::bench
