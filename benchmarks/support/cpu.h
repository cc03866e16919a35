#pragma once

#include <cstdint>

#include <sys/types.h>

namespace kelo::bench {

// Keeps the calling thread, and every thread and process that it starts from now on, on one core.
// Throws std::system_error.
void PinToCore(int core);

// Processor time of this process so far, user and system, all threads.
double CpuSeconds();

// Seconds on a clock that only goes forward.
double Now();

// Nanoseconds on the same clock, which all processes share.
int64_t NowNs();

// Processor time of a thread of this process so far; 0 when it is gone.
int64_t ThreadCpuNs(pid_t thread);

// Seconds for which a core has been busy, with whatever work, or taken away by the host.
double CoreBusySeconds(int core);

// Nanoseconds that a cache line takes from one core to the other and back, as an average over
// the quickest of some short batches (milliseconds in all). On a virtual machine the two cores move
// about on the host, and work that crosses them costs up to 2.6 times more in a bad place: a probe
// before and after a measurement tells whether that happened under it.
double PlacementProbeNs(int core_a, int core_b);

}  // namespace kelo::bench
