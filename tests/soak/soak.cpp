#include "soak.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelo::soak {
namespace {

constexpr uint32_t kCamerasMax = 64;

CAM_HANDLE Among(const std::vector<CAM_HANDLE>& handles, uint32_t address) {
    for (const CAM_HANDLE handle : handles) {
        EXT_CAM_INFO info{};
        if (keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS && info.camera_ip == address) {
            return handle;
        }
    }
    return 0;
}

KELO_API_STATUS OnClosed(CAM_HANDLE handle) {
    Soak::closed = handle;
    ++Soak::close_callbacks;
    return KELO_STATUS_SUCCESS;
}

}  // namespace

std::atomic<int> Soak::close_callbacks{0};
std::atomic<CAM_HANDLE> Soak::closed{0};

// The library's log is standard output. It goes to a file that holds the current step's lines.
Soak::Soak(CameraProcess& cameras, Sampler& sampler, uint64_t seed, const std::string& folder)
    : cameras_(cameras), sampler_(sampler), random_(seed), folder_(folder) {
    log_ = open((folder + "/step.log").c_str(), O_CREAT | O_TRUNC | O_RDWR | O_APPEND | O_CLOEXEC,
                0644);
    if (log_ < 0 || dup2(log_, STDOUT_FILENO) < 0) throw std::runtime_error("no log file");
    kelosim::WriteFirmwareFile(FirmwareFile(),
                               kelosim::MakeFirmwareImage(kFirmwareSize, kFirmwareSeed));
}

Soak::~Soak() {
    close(log_);
}

void Soak::BeginStep() {
    std::fflush(stdout);
    if (ftruncate(log_, 0) != 0) throw std::runtime_error("the log file cannot be emptied");
    buffer_errors_before_ = ReceiveBufferErrors();
    camera_stall_us_ = 0;
    watch_.Forget();
}

std::string Soak::Log() const {
    std::fflush(stdout);
    struct stat status {};
    fstat(log_, &status);
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t count = pread(log_, text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

// Datagrams that the kernel dropped because nobody took them off a socket; the network is ours
// alone.
uint64_t Soak::ReceiveBufferErrors() const {
    std::ifstream file("/proc/net/snmp");
    std::string names;
    std::string values;
    while (std::getline(file, names) && std::getline(file, values)) {
        if (names.rfind("Udp:", 0) != 0) continue;
        std::istringstream name_words(names);
        std::istringstream value_words(values);
        std::string name;
        std::string value;
        while (name_words >> name && value_words >> value) {
            if (name == "RcvbufErrors") return std::stoull(value);
        }
    }
    return 0;
}

std::string Soak::Evidence(int64_t stall_us_min) const {
    const int64_t stall_us = std::max(watch_.LongestUs(), camera_stall_us_);
    if (stall_us >= stall_us_min) {
        return "the machine stood still for " + std::to_string(stall_us / 1000) + " ms";
    }
    if (ReceiveBufferErrors() != buffer_errors_before_) return "the socket's buffer ran over";
    return {};
}

void Soak::InTimeOrWrong(const std::string& text, int64_t stall_us_min) {
    // How long the cameras have stood still comes with any answer of theirs.
    Status(0);
    const std::string evidence = Evidence(stall_us_min);
    if (evidence.empty()) throw Wrong(text);
    throw Disturbed(text + ", but " + evidence);
}

void Soak::Expect(KELO_API_STATUS status, KELO_API_STATUS expected, const std::string& what) {
    if (status == expected) return;
    const std::string text =
        what + ": status " + std::to_string(status) + " instead of " + std::to_string(expected);
    if (status == KELO_STATUS_SUCCESS) throw Wrong(text);
    // Four attempts of up to a second each: nothing short makes them all fail.
    InTimeOrWrong(text, 200000);
}

Answer Soak::Do(const Order& order) {
    const Answer answer = cameras_.Do(order);
    camera_stall_us_ = std::max(camera_stall_us_, answer.stall_us);
    return answer;
}

CAM_HANDLE Soak::Find(uint32_t address) {
    CAM_HANDLE found = 0;
    for (const uint32_t listen_ms : {150u, 150u, 1000u, 4000u, 4000u, 4000u}) {
        std::vector<CAM_HANDLE> handles(kCamerasMax);
        const int count = keloDiscover(handles.data(), kCamerasMax, listen_ms);
        Check(count >= 0 && count <= static_cast<int>(kCamerasMax), "a discovery's count");
        handles.resize(static_cast<size_t>(count));
        Check(std::is_sorted(handles.begin(), handles.end()), "handles out of order");
        found = Among(handles, address);
        if (found != 0) return found;
    }
    InTimeOrWrong("camera " + kelosim::Ipv4Text(address) + " is not found");
}

void Soak::Open(CAM_HANDLE handle) {
    Succeeds(keloOpenCamera(handle, &OnClosed), "open");
}

uint32_t Soak::Read(CAM_HANDLE handle, uint32_t number) {
    uint32_t value = 0;
    const auto begin = std::chrono::steady_clock::now();
    const KELO_API_STATUS status = keloGetRegisterInt(handle, number, &value);
    sampler_.Took(Sampler::Latency::kRead, std::chrono::steady_clock::now() - begin);
    Succeeds(status, "read of register " + std::to_string(number));
    return value;
}

void Soak::StartAfresh() {
    keloRelease();
    for (uint32_t camera = 0; camera < CameraCount(); ++camera) {
        WaitFor([&] { return Status(camera).powered; });
        Do({.kind = Order::Kind::kPrepare, .camera = camera});
        Do({.kind = Order::Kind::kWatchdog, .camera = camera, .value = kWatchdogOffMs});
        Do({.kind = Order::Kind::kHome, .camera = camera});
    }
    Check(keloInit() == KELO_STATUS_SUCCESS, "keloInit fails");
}

}  // namespace kelo::soak
