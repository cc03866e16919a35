#include "cameras.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kelosim/simulator.h"

namespace demo {
namespace {

kelosim::CameraConfig MakeCamera(uint32_t host, const char* description,
                                 kelosim::ImageSourcePtr source, double frame_rate) {
    kelosim::CameraConfig camera;
    camera.address = kelosim::Ipv4(127, 0, 0, host);
    camera.description = description;
    camera.streams[0].source = std::move(source);
    camera.streams[0].frame_rate = frame_rate;
    camera.streams[0].image_count = IMAGES_PER_CAMERA;
    // Long enough to be seen missing, short enough not to bore.
    camera.firmware.flash_time_ms = 500;
    camera.firmware.reboot_time_ms = 1000;
    return camera;
}

void Tell(int channel, const std::string& text) {
    // The other end knows by the closed channel if this does not arrive.
    send(channel, text.data(), text.size(), MSG_NOSIGNAL);
}

// Runs the cameras until the other end of the channel is closed.
void RunCameras(int channel, const std::vector<kelosim::CameraConfig>& cameras,
                const std::string& log_path) {
    std::ofstream log(log_path);
    kelosim::Simulator simulator([&log](const std::string& line) { log << line << std::endl; });
    for (const auto& camera : cameras)
        simulator.Add(camera);
    simulator.Start();
    Tell(channel, "ok");
    char end = 0;
    while (recv(channel, &end, 1, 0) < 0 && errno == EINTR) {
    }
    simulator.Stop();
}

[[noreturn]] void CameraMain(int channel, const std::vector<kelosim::CameraConfig>& cameras,
                             const std::string& log_path) {
    int status = 0;
    try {
        RunCameras(channel, cameras, log_path);
    } catch (const std::exception& error) {
        Tell(channel, error.what());
        status = 1;
    }
    _exit(status);
}

}  // namespace

std::vector<kelosim::CameraConfig> DemoCameras() {
    return {
        MakeCamera(11, "Demo, 8-bit grey", kelosim::MakeTestChart8(640, 480), 40),
        MakeCamera(12, "Demo, 16-bit grey", kelosim::MakeTestChart16(640, 480), 30),
        MakeCamera(13, "Demo, laser profile", kelosim::MakeLaserProfile(1024, 768), 50),
    };
}

CameraProcess::CameraProcess(const std::vector<kelosim::CameraConfig>& cameras,
                             const std::string& log_path) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    std::fflush(nullptr);  // or the new process writes it a second time
    pid_ = fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
        close(ends[0]);
        CameraMain(ends[1], cameras, log_path);
    }
    close(ends[1]);
    channel_ = ends[0];
    char text[256];
    const ssize_t size = recv(channel_, text, sizeof text, 0);
    const std::string answer(text, size > 0 ? static_cast<size_t>(size) : 0);
    if (answer == "ok") return;
    close(channel_);
    waitpid(pid_, nullptr, 0);
    throw std::runtime_error("the simulated cameras did not start: " + answer);
}

CameraProcess::~CameraProcess() {
    close(channel_);
    waitpid(pid_, nullptr, 0);
}

}  // namespace demo
