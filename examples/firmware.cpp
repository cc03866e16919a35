// Programs new firmware into the first camera that answers and waits until it is back.
//   firmware FILE
#include <algorithm>
#include <iostream>

#include "kelo.hpp"

namespace {

constexpr std::chrono::seconds kRebootPatience(60);

// After its reboot. Before, the camera may still answer for a moment: it must be missed once.
kelo::CameraInfo FindAgain(const kelo::Library& library, const kelo::MacAddress& mac) {
    const auto deadline = std::chrono::steady_clock::now() + kRebootPatience;
    for (bool missed = false; std::chrono::steady_clock::now() < deadline;) {
        const auto cameras = library.discover(std::chrono::milliseconds(150));
        const auto found = std::find_if(cameras.begin(), cameras.end(),
                                        [&](const auto& camera) { return camera.mac == mac; });
        if (found == cameras.end()) missed = true;
        if (found != cameras.end() && missed) return *found;
    }
    throw std::runtime_error("the camera did not come back");
}

void Show(kelo::FirmwareProgress& progress) {
    static int shown = -1;
    if (progress.percent() != shown) std::cout << '\r' << progress.percent() << " % " << std::flush;
    shown = progress.percent();
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) throw std::invalid_argument("usage: firmware FILE");
    kelo::Library::log(false);
    const kelo::Library library;
    const kelo::CameraInfo camera = library.discover().at(0);
    std::optional<kelo::Camera> before = library.open(camera);
    before->program_firmware(argv[1], Show);
    std::cout << "programmed\n";
    const kelo::CameraInfo found = FindAgain(library, camera.mac);
    // Its session did not survive the reboot.
    before.reset();
    const kelo::Camera again = library.open(found);
    const std::uint32_t version = again.get(kelo::reg::device_firmware_version);
    std::cout << "the camera is back, with version " << (version >> 16) << '.' << (version & 0xFFFF)
              << '\n';
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
