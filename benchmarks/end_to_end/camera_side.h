#pragma once

#include <memory>

#include "../support/bench_camera.h"
#include "../support/peer.h"
#include "run.h"

namespace kelo::bench {

class TcpSender;

// Carries out orders to send, in the process of the cameras. tcp may be null where no order is for
// TCP; it listens before that process is forked, so that the cameras' registers can tell its port.
OrderHandler MakeCameraSide(BenchCamera& cameras, std::shared_ptr<TcpSender> tcp);

}  // namespace kelo::bench
