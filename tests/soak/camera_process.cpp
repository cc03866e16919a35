#include "camera_process.h"

#include <algorithm>

#include "hostile.h"
#include "kelo_registers.h"
#include "kelosim/simulator.h"
#include "stall_watch.h"

namespace kelo::soak {
namespace {

using kelosim::Camera;
using kelosim::CameraConfig;
using kelosim::StreamConfig;

StreamConfig Stream(kelosim::ImageSourcePtr source, bool over_tcp, uint8_t header_size = 0) {
    StreamConfig stream;
    stream.source = std::move(source);
    stream.over_tcp = over_tcp;
    stream.header_size = header_size;
    return stream;
}

CameraConfig MakeCamera(uint32_t number, std::vector<StreamConfig> streams,
                        uint32_t path_packet_size) {
    CameraConfig config;
    config.address = kelosim::Ipv4(127, 0, 0, 11 + number);
    config.description = "Soak " + std::to_string(number);
    config.heartbeat_timeout_ms = kWatchdogOffMs;
    config.path_packet_size = path_packet_size;
    config.firmware.reboot_time_ms = 100;
    config.streams = std::move(streams);
    return config;
}

// The cameras, in their process.
class House {
public:
    House() {
        for (const CameraConfig& config : MakeCameras())
            simulator_.Add(config);
        simulator_.Start();
        before_.resize(simulator_.size());
    }

    Answer Do(const Order& order) {
        Camera& camera = simulator_[order.camera];
        Answer answer;
        switch (order.kind) {
            case Order::Kind::kStatus:
                break;
            case Order::Kind::kPrepare:
                Prepare(camera, order);
                break;
            case Order::Kind::kSilence:
                camera.UpdateFaults([&](auto& faults) { faults.silent = order.value != 0; });
                break;
            case Order::Kind::kWatchdog:
                camera.SetRegister(REG_HEARTBEAT_TIMEOUT, order.value);
                break;
            case Order::Kind::kReboot:
                camera.Reboot();
                break;
            case Order::Kind::kHome:
                GoHome(camera, order);
                break;
            case Order::Kind::kFlash:
                answer.flash_as_file = camera.FlashContents(kFirmwareSize) ==
                                       kelosim::MakeFirmwareImage(kFirmwareSize, kFirmwareSeed);
                break;
            case Order::Kind::kHostile:
                SendHostile(order.value, order.seed, order.ports[0], order.ports[1]);
                break;
        }
        Fill(answer, camera, before_[order.camera]);
        return answer;
    }

private:
    void Prepare(Camera& camera, const Order& order) {
        kelosim::Faults faults;
        faults.seed = order.seed;
        faults.drop_rate = order.drop;
        faults.duplicate_rate = order.duplicate;
        faults.delay_rate = order.delay;
        faults.reorder_rate = order.reorder;
        faults.drop_replies = order.lost_replies;
        if (order.tcp_close_image > 0) {
            faults.tcp.closes = {{.image = order.tcp_close_image,
                                  .after_bytes = order.tcp_close_after,
                                  .stream = {}}};
        }
        camera.SetFaults(faults);
        const int streams = static_cast<int>(camera.config().streams.size());
        for (int s = 0; s < streams; ++s) {
            camera.SetImageCount(s, order.images);
            camera.SetFrameRate(s, order.rate);
        }
        camera.ClearRequests();
        before_[order.camera] = camera.counters();
        watch_.Forget();
    }

    static void GoHome(Camera& camera, const Order& order) {
        const CameraConfig home = MakeCameras()[order.camera];
        if (camera.address() != home.address) camera.SetAddress(home.address, home.subnet_mask);
    }

    void Fill(Answer& answer, Camera& camera, const kelosim::CameraCounters& before) const {
        answer.acquiring = camera.acquiring();
        answer.used = camera.used();
        answer.powered = camera.powered();
        for (const auto& request : camera.Requests()) {
            if (request.register_number == REG_ACQUISITIONSTART) ++answer.starts;
            answer.client_port = request.from_port;
        }
        const kelosim::CameraCounters now = camera.counters();
        answer.watchdog_expired = now.watchdog_expired - before.watchdog_expired;
        for (size_t s = 0; s < now.streams.size(); ++s) {
            answer.images[s] = now.streams[s].images - before.streams[s].images;
            answer.bytes[s] = now.streams[s].bytes - before.streams[s].bytes;
            answer.packets_dropped[s] =
                now.streams[s].packets_dropped - before.streams[s].packets_dropped;
        }
        answer.stall_us = watch_.LongestUs();
    }

    kelosim::Simulator simulator_;
    std::vector<kelosim::CameraCounters> before_;
    StallWatch watch_;
};

void Serve(bench::Channel& channel) {
    House house;
    Answer answer;
    do {
        if (!channel.SendBytes(std::as_bytes(std::span(&answer, 1)))) return;
        Order order;
        if (!channel.ReceiveBytes(std::as_writable_bytes(std::span(&order, 1)))) return;
        answer = house.Do(order);
    } while (true);
}

}  // namespace

std::vector<CameraConfig> MakeCameras() {
    const auto chart = kelosim::MakeTestChart8(320, 200);
    const auto chart16 = kelosim::MakeTestChart16(160, 120);
    const auto profile = kelosim::MakeLaserProfile(320, 64);
    return {MakeCamera(0, {Stream(chart, false)}, 9000),
            MakeCamera(1, {Stream(chart16, false), Stream(profile, false, 16)}, 8500),
            MakeCamera(2, {Stream(chart, true), Stream(profile, true, 16)}, 9000),
            MakeCamera(3, {Stream(chart, false)}, 1500),
            MakeCamera(4, {Stream(chart, true), Stream(chart16, false)}, 4074)};
}

CameraProcess::CameraProcess() : process_("cameras' process", Serve) {
    process_.Receive<Answer>(60);
}

Answer CameraProcess::Do(const Order& order) {
    process_.Send(order);
    return process_.Receive<Answer>(300);
}

}  // namespace kelo::soak
