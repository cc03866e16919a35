#include "stage.h"

#include <algorithm>
#include <stdexcept>

#include "../support/cpu.h"
#include "camera_side.h"
#include "tcp_sender.h"

namespace kelo::bench {
namespace {

// What a run may take beyond its time before it counts as hanging.
constexpr double PATIENCE_SECONDS = 60;

}  // namespace

Stage::Stage(const Row& row, const Cores& cores) : row_(row), cores_(cores), path_(row.way) {
    // The cameras' process inherits the listening socket; their registers tell its port.
    const auto tcp = row.traffic.tcp ? std::make_shared<TcpSender>() : nullptr;
    const uint16_t tcp_port = tcp ? tcp->Port() : uint16_t{0};
    const CameraSetup setup = {.width = row.traffic.width,
                               .height = row.traffic.height,
                               .first_address = path_.FirstCamera(),
                               .cameras = row.traffic.cameras,
                               .largest_packet = 9000,
                               .tcp_port = tcp_port};
    cameras_ = std::make_unique<Peer>(
        cores.sender, setup, [tcp](BenchCamera& cameras) { return MakeCameraSide(cameras, tcp); });
    path_.EnterReceiverSide(cameras_->Pid(), cores.receiver);
    const ReceiverSetup receivers = {.traffic = row.traffic,
                                     .first_camera = path_.FirstCamera(),
                                     .tcp_port = tcp_port,
                                     .merging = row.merging,
                                     .restart = row.restart};
    for (const std::string& variant : row.variants)
        workers_.emplace_back(variant, receivers, cores.receiver, *cameras_);
}

// Those that were forked last hold the channels of the others.
Stage::~Stage() {
    while (!workers_.empty())
        workers_.pop_back();
}

Order Stage::MakeOrder(double seconds, double bytes_per_second, uint32_t images) const {
    Order order;
    order.traffic = row_.traffic;
    order.traffic.bytes_per_second = bytes_per_second;
    order.seconds = seconds;
    order.images = images;
    order.to_address = path_.ReceiverAddress();
    order.merge = path_.KernelSplits();
    order.await_start = row_.restart;
    return order;
}

double Stage::Busy() const {
    return CoreBusySeconds(cores_.sender) + CoreBusySeconds(cores_.receiver);
}

Run Stage::RunVariant(size_t variant, double seconds, double bytes_per_second, uint32_t images,
                      const std::function<void(pid_t)>& meanwhile) {
    Worker& worker = workers_[variant];
    const double start = Now();
    const double busy = Busy();
    const double kernel = path_.KernelThreadSeconds();
    worker.Begin(MakeOrder(seconds, bytes_per_second, images));
    if (meanwhile) meanwhile(worker.Pid());
    Run run;
    run.result = worker.Wait(seconds + PATIENCE_SECONDS);
    run.result.kernel_thread_seconds = path_.KernelThreadSeconds() - kernel;
    if (path_.HasKernelThreads() && run.result.kernel_thread_seconds <= 0) {
        throw std::runtime_error("the veth pair does not receive in a thread of the kernel");
    }
    const double ours = run.result.user_seconds + run.result.system_seconds +
                        run.result.sent.cpu_seconds + run.result.kernel_thread_seconds;
    run.foreign_share = std::max(0.0, Busy() - busy - ours) / (2 * (Now() - start));
    return run;
}

}  // namespace kelo::bench
