#include "loop_receiver.h"

#include "../support/cpu.h"

namespace kelo::bench {

Received LoopReceiver::Run(const SenderDone& done, Latencies& latencies) {
    BeginRun(latencies);
    const double start = Now();
    double last_arrival = 0;
    bool sent = false;
    while (true) {
        if (Receive()) continue;
        // Nothing came since the sender was done: what is missing is lost.
        if (sent) break;
        last_arrival = Now() - start - QUIET_SECONDS;
        sent = done();
    }
    Received received = Counts();
    received.seconds = last_arrival;
    return received;
}

}  // namespace kelo::bench
