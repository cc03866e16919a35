#include "library_camera.h"

#include <array>
#include <span>
#include <stdexcept>

namespace kelo::bench {
namespace {

constexpr uint32_t LOOPBACK_ADDRESS = 0x7F000001;

void Require(KELO_API_STATUS status, const char* what) {
    if (status != KELO_STATUS_SUCCESS) {
        throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
    }
}

}  // namespace

LibraryCamera::LibraryCamera() {
    keloLogging(0);
    Require(keloInit(), "keloInit");
    try {
        Find();
        Require(keloOpenCamera(handle_, nullptr), "keloOpenCamera");
    } catch (...) {
        keloRelease();
        throw;
    }
}

LibraryCamera::~LibraryCamera() {
    keloCloseCamera(handle_);
    keloRelease();
}

// Where the machine allows no private network, other cameras may answer too.
void LibraryCamera::Find() {
    std::array<CAM_HANDLE, 64> found{};
    const int count = keloDiscover(found.data(), found.size(), 300);
    for (const CAM_HANDLE handle : std::span(found).first(static_cast<size_t>(count))) {
        EXT_CAM_INFO info{};
        if (keloGetCameraInfo(handle, &info) != KELO_STATUS_SUCCESS) continue;
        if (info.camera_ip != LOOPBACK_ADDRESS) continue;
        handle_ = handle;
        return;
    }
    throw std::runtime_error("keloDiscover did not find the benchmark's camera");
}

}  // namespace kelo::bench
