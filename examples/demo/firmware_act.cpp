#include "firmware_act.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "kelosim/firmware.h"
#include "library.h"
#include "progress_line.h"

namespace demo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t FIRMWARE_SIZE = 5'000'000;
constexpr uint64_t FIRMWARE_SEED = 1;
constexpr auto REBOOT_PATIENCE = std::chrono::seconds(10);

// The image on disk for as long as it is needed.
class FirmwareFile {
public:
    explicit FirmwareFile(std::string name) : name_(std::move(name)) {
        kelosim::WriteFirmwareFile(name_, kelosim::MakeFirmwareImage(FIRMWARE_SIZE, FIRMWARE_SEED));
    }
    ~FirmwareFile() {
        std::error_code ignored;
        std::filesystem::remove(name_, ignored);
    }
    FirmwareFile(const FirmwareFile&) = delete;
    FirmwareFile& operator=(const FirmwareFile&) = delete;

    const char* Name() const { return name_.c_str(); }

private:
    std::string name_;
};

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void WaitForEnd(CAM_HANDLE camera) {
    ProgressLine line;
    const auto start = Clock::now();
    int percent = 0;
    while (percent < 100) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        Require(keloFirmwareGetProgress(camera, &percent), "programming the firmware");
        line.Show(percent, SecondsSince(start));
    }
}

// The camera must be missed once: before it goes away it may still answer.
void FindAgain(const EXT_CAM_INFO& camera) {
    const auto start = Clock::now();
    bool missed = false;
    while (Clock::now() < start + REBOOT_PATIENCE) {
        const bool there = FindByAddress(Discover(200), camera.camera_ip) != nullptr;
        if (!there && !missed) std::printf("  it left the network to reboot ...\n");
        if (there && missed) {
            std::printf("  ... and is back after %.1f s\n", SecondsSince(start));
            return;
        }
        missed = missed || !there;
    }
    throw std::runtime_error(missed ? "the camera did not come back from its reboot"
                                    : "the camera did not reboot");
}

}  // namespace

void ProgramFirmware(const EXT_CAM_INFO& camera, const std::string& file_name) {
    const FirmwareFile file(file_name);
    const OpenCamera open(camera.camera_handle);
    std::printf("\nProgramming %s with %u bytes of firmware\n",
                AddressText(camera.camera_ip).c_str(), FIRMWARE_SIZE);
    Require(keloFirmwareProgram(camera.camera_handle, file.Name()), "keloFirmwareProgram");
    WaitForEnd(camera.camera_handle);
    std::printf("  programmed, and read back without a difference\n");
    FindAgain(camera);
}

}  // namespace demo
