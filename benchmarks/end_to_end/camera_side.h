#pragma once

#include <memory>

#include "../support/bench_camera.h"
#include "../support/peer.h"
#include "run.h"

namespace kelo::bench {

// The port of the cameras' TCP streams; they listen before the process of the cameras is forked, so
// that their registers can tell it.
class TcpSender;

// Carries out orders to send, in the process of the cameras.
OrderHandler MakeCameraSide(BenchCamera& cameras, std::shared_ptr<TcpSender> tcp);

}  // namespace kelo::bench
