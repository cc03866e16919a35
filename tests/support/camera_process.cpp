#include "camera_process.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <vector>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kelo_registers.h"
#include "kelosim/simulator.h"
#include "network_namespace.h"

namespace {

struct Message {
    int32_t camera;
    int32_t command;
    uint32_t number;
    uint32_t value;
};

constexpr uint32_t kPatientMs = 100000;
constexpr uint32_t kFirmwareBytes = 5u << 20;

pid_t child = -1;
int wire = -1;
std::mutex one_at_a_time;  // guards the wire

[[noreturn]] void Give(const char* what) {
    fprintf(stderr, "camera process: %s\n", what);
    abort();
}

kelosim::StreamConfig Stream(int number, bool over_tcp) {
    kelosim::StreamConfig stream;
    stream.source =
        number == 0 ? kelosim::MakeTestChart8(64, 48) : kelosim::MakeLaserProfile(64, 16);
    stream.frame_rate = 50;
    stream.over_tcp = over_tcp;
    return stream;
}

uint32_t CountStarts(const kelosim::Camera& camera) {
    const auto requests = camera.Requests();
    return static_cast<uint32_t>(
        std::count_if(requests.begin(), requests.end(), [](const kelosim::ControlRequest& request) {
            return request.register_number == uint32_t{REG_ACQUISITIONSTART};
        }));
}

uint32_t Obey(kelosim::Camera& camera, const Message& message) {
    switch (message.command) {
        case CAMERA_POWER_OFF:
            camera.PowerOff();
            return 0;
        case CAMERA_POWER_ON:
            camera.PowerOn();
            return 0;
        case CAMERA_SILENT:
            camera.UpdateFaults(
                [&](kelosim::Faults& faults) { faults.silent = message.value != 0; });
            return 0;
        case CAMERA_GET_REGISTER:
            return camera.GetRegister(message.number);
        case CAMERA_SET_REGISTER:
            camera.SetRegister(message.number, message.value);
            return 0;
        case CAMERA_DELAY_REPLIES:
            camera.UpdateFaults(
                [&](kelosim::Faults& faults) { faults.reply_delay_ms = message.value; });
            return 0;
        case CAMERA_IS_USED:
            return camera.used() ? 1 : 0;
        default:
            return CountStarts(camera);
    }
}

// The child. Ends when the parent hangs up.
[[noreturn]] void Run(const camera_setup& setup, int to_parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        kelosim::Simulator simulator;
        kelosim::CameraConfig config;
        config.heartbeat_timeout_ms =
            setup.heartbeat_timeout_ms != 0 ? setup.heartbeat_timeout_ms : kPatientMs;
        config.firmware.flash_time_ms = setup.flash_time_ms;
        config.streams = {Stream(0, setup.over_tcp != 0), Stream(1, setup.over_tcp != 0)};
        simulator.AddMany(std::max(setup.cameras, 1), config);
        simulator.Start();
        uint32_t answer = 0;
        while (send(to_parent, &answer, sizeof(answer), MSG_NOSIGNAL) == sizeof(answer)) {
            Message message{};
            if (recv(to_parent, &message, sizeof(message), 0) != sizeof(message)) break;
            answer = Obey(simulator[static_cast<size_t>(message.camera)], message);
        }
        simulator.Stop();
    } catch (const std::exception& error) {
        fprintf(stderr, "camera process: %s\n", error.what());
        _exit(1);
    }
    _exit(0);
}

uint32_t Answer() {
    uint32_t answer = 0;
    ssize_t count = 0;
    do {
        count = recv(wire, &answer, sizeof(answer), 0);
    } while (count < 0 && errno == EINTR);
    if (count != sizeof(answer)) Give("it is gone");
    return answer;
}

}  // namespace

void camera_enter_network() {
    kelo::test::EnterPrivateNetwork();
}

void camera_start(const camera_setup* setup) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) Give("no socket");
    child = fork();
    if (child < 0) Give("no process");
    if (child == 0) {
        close(ends[0]);
        Run(*setup, ends[1]);
    }
    close(ends[1]);
    wire = ends[0];
    (void)Answer();
}

void camera_stop() {
    if (child < 0) return;
    close(wire);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    child = -1;
    wire = -1;
}

uint32_t camera_tell(int camera, camera_command command, uint32_t number, uint32_t value) {
    const Message message{.camera = camera, .command = command, .number = number, .value = value};
    const std::lock_guard lock(one_at_a_time);
    if (send(wire, &message, sizeof(message), MSG_NOSIGNAL) != sizeof(message)) Give("no way");
    return Answer();
}

uint32_t camera_address(int camera) {
    return kelosim::CameraConfig{}.address + static_cast<uint32_t>(camera);
}

size_t camera_frame(int stream, uint32_t number, uint8_t frame[CAMERA_FRAME_BYTES_MAX]) {
    static const kelosim::StreamConfig streams[] = {Stream(0, false), Stream(1, false)};
    const std::vector<uint8_t> bytes = streams[stream].Frame(number);
    if (bytes.size() > CAMERA_FRAME_BYTES_MAX) Give("the frame is too large");
    std::copy(bytes.begin(), bytes.end(), frame);
    return bytes.size();
}

void camera_write_firmware(const char* path) {
    kelosim::WriteFirmwareFile(path, kelosim::MakeFirmwareImage(kFirmwareBytes, 7));
}
