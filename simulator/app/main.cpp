// kelo-sim: simulated cameras as a program.

#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "Options.h"

namespace {

constexpr int kFailed = 1;
// No command is longer; what is, is no command.
constexpr size_t kMaxCommand = 4096;

using Clock = std::chrono::steady_clock;

// Interrupt and termination are read like any other input. Before any thread exists: all inherit
// that the signals do not interrupt them.
int OpenSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigset_t blocked = signals;
    // In the background of a terminal, reading it fails instead of stopping the program.
    sigaddset(&blocked, SIGTTIN);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

void PrintEvent(Clock::time_point start, const std::string& line) {
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    std::printf("%9.3f  %s\n", elapsed.count(), line.c_str());
    std::fflush(stdout);
}

void PrintCameras(kelosim::Simulator& simulator) {
    for (size_t i = 0; i < simulator.size(); ++i) {
        const kelosim::CameraConfig config = simulator[i].config();
        std::printf("camera %zu: %s, %zu stream%s, TCP port %u, faults: %s\n", i + 1,
                    kelosim::Ipv4Text(config.address).c_str(), config.streams.size(),
                    config.streams.size() == 1 ? "" : "s", config.tcp_port,
                    ToString(config.faults).c_str());
    }
    std::fflush(stdout);
}

void PrintSummary(kelosim::Simulator& simulator) {
    for (size_t i = 0; i < simulator.size(); ++i) {
        const kelosim::CameraCounters counters = simulator[i].counters();
        std::printf("summary of camera %zu (%s): %" PRIu64 " requests, %" PRIu64
                    " replies, %" PRIu64 " lost on purpose, %" PRIu64 " malformed\n",
                    i + 1, kelosim::Ipv4Text(simulator[i].address()).c_str(), counters.requests,
                    counters.replies, counters.replies_dropped, counters.malformed);
        for (size_t s = 0; s < simulator[i].config().streams.size(); ++s) {
            const kelosim::StreamCounters& stream = counters.streams[s];
            std::printf("  stream %zu: %" PRIu64 " images, %" PRIu64 " bytes, %" PRIu64
                        " packets, %" PRIu64 " dropped\n",
                        s, stream.images, stream.bytes, stream.packets, stream.packets_dropped);
        }
    }
    std::fflush(stdout);
}

void RunCommand(kelosim::Camera& camera, const std::string& command) {
    if (command == "reboot") return camera.Reboot();
    if (command == "power-off") return camera.PowerOff();
    if (command == "power-on") return camera.PowerOn();
    if (command == "trigger") return camera.Trigger();
    if (command == "close-connections") return camera.CloseConnections();
    const kelosim::Faults faults = ParseFaults(command);
    camera.SetFaults(faults);
    std::printf("faults of %s: %s\n", kelosim::Ipv4Text(camera.address()).c_str(),
                ToString(faults).c_str());
    std::fflush(stdout);
}

void RunLine(kelosim::Simulator& simulator, const std::string& line) {
    std::istringstream words(line);
    std::string which;
    if (!(words >> which)) return;
    std::string command;
    std::getline(words >> std::ws, command);
    try {
        if (which == "all") {
            for (size_t i = 0; i < simulator.size(); ++i)
                RunCommand(simulator[i], command);
            return;
        }
        size_t digits = 0;
        const unsigned long number = std::stoul(which, &digits);
        if (digits != which.size() || number < 1 || number > simulator.size()) {
            throw std::invalid_argument("no camera " + which);
        }
        RunCommand(simulator[number - 1], command);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kelo-sim: \"%s\": %s\n", line.c_str(), error.what());
    }
}

// Takes the whole lines out of what has come in; false at the end of the input.
bool ReadCommands(kelosim::Simulator& simulator, std::string& pending) {
    char bytes[512];
    const ssize_t got = read(STDIN_FILENO, bytes, sizeof(bytes));
    if (got <= 0) return false;
    pending.append(bytes, static_cast<size_t>(got));
    for (size_t end = 0; (end = pending.find('\n')) != std::string::npos;
         pending.erase(0, end + 1)) {
        RunLine(simulator, pending.substr(0, end));
    }
    if (pending.size() > kMaxCommand) pending.clear();
    return true;
}

// Until a signal comes or the time is over.
void WaitForEnd(kelosim::Simulator& simulator, int signals, double duration_s) {
    const auto end = Clock::now() + std::chrono::duration<double>(duration_s);
    std::string pending;
    pollfd fds[] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    for (;;) {
        int timeout_ms = -1;
        if (duration_s > 0) {
            const std::chrono::duration<double, std::milli> left = end - Clock::now();
            if (left.count() <= 0) return;
            timeout_ms = static_cast<int>(std::min(left.count() + 1, 1e6));
        }
        if (poll(fds, 2, timeout_ms) <= 0) continue;
        if (fds[0].revents != 0) return;
        // A background program may have no input at all; it runs on.
        if (fds[1].revents != 0 && !ReadCommands(simulator, pending)) fds[1].fd = -1;
    }
}

int Simulate(const Options& options, int signals) {
    const auto start = Clock::now();
    kelosim::EventSink sink;
    if (!options.quiet) sink = [start](const std::string& line) { PrintEvent(start, line); };
    kelosim::Simulator simulator(sink);
    for (const kelosim::CameraConfig& camera : options.cameras)
        simulator.Add(camera);
    simulator.Start();
    PrintCameras(simulator);
    WaitForEnd(simulator, signals, options.duration_s);
    simulator.Stop();
    PrintSummary(simulator);
    return 0;
}

int WriteFirmware(const FirmwareOrder& order) {
    const std::vector<uint8_t> image =
        kelosim::MakeFirmwareImage(order.size, order.seed, order.spoil);
    kelosim::WriteFirmwareFile(order.path, image);
    std::printf("%s: %zu bytes\n", order.path.c_str(), image.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = ParseOptions(argc, argv);
        if (options.exit_code) return *options.exit_code;
        if (options.firmware) return WriteFirmware(*options.firmware);
        return Simulate(options, OpenSignals());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kelo-sim: %s\n", error.what());
        return kFailed;
    }
}
