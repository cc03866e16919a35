#include "library_cameras.h"

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>
#include <string>

namespace kelo::bench {
namespace {

constexpr uint32_t DISCOVERY_MS = 300;

void Require(KELO_API_STATUS status, const char* what) {
    if (status != KELO_STATUS_SUCCESS) {
        throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
    }
}

}  // namespace

LibraryCameras::LibraryCameras(uint32_t first_address, uint32_t count) : handles_(count) {
    keloLogging(0);
    Require(keloInit(), "keloInit");
    try {
        Find(first_address);
        Open();
    } catch (...) {
        keloRelease();
        throw;
    }
}

LibraryCameras::~LibraryCameras() {
    for (const CAM_HANDLE handle : handles_)
        keloCloseCamera(handle);
    keloRelease();
}

// Where the machine allows no private network, other cameras may answer too.
void LibraryCameras::Find(uint32_t first_address) {
    std::array<CAM_HANDLE, 256> found{};
    const int count = keloDiscover(found.data(), found.size(), DISCOVERY_MS);
    for (const CAM_HANDLE handle : std::span(found).first(static_cast<size_t>(count))) {
        EXT_CAM_INFO info{};
        if (keloGetCameraInfo(handle, &info) != KELO_STATUS_SUCCESS) continue;
        const uint32_t camera = info.camera_ip - first_address;
        if (camera < handles_.size()) handles_[camera] = handle;
    }
    if (std::count(handles_.begin(), handles_.end(), CAM_HANDLE{0}) != 0) {
        throw std::runtime_error("keloDiscover did not find all of the benchmark's cameras");
    }
}

void LibraryCameras::Open() {
    for (const CAM_HANDLE handle : handles_)
        Require(keloOpenCamera(handle, nullptr), "keloOpenCamera");
}

}  // namespace kelo::bench
