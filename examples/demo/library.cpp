#include "library.h"

#include <algorithm>
#include <stdexcept>

namespace demo {

void Require(KELO_API_STATUS status, const std::string& what) {
    if (status != KELO_STATUS_SUCCESS) {
        throw std::runtime_error(what + " failed with status " + std::to_string(status));
    }
}

OpenCamera::OpenCamera(CAM_HANDLE handle) : handle_(handle) {
    const KELO_API_STATUS status = keloOpenCamera(handle, nullptr);
    // A session may have begun although opening failed.
    if (status != KELO_STATUS_SUCCESS) keloCloseCamera(handle);
    Require(status, "keloOpenCamera");
}

std::vector<EXT_CAM_INFO> Discover(uint32_t milliseconds) {
    std::vector<CAM_HANDLE> handles(256);
    const int count = keloDiscover(handles.data(), 256, milliseconds);
    handles.resize(static_cast<size_t>(std::max(count, 0)));
    std::vector<EXT_CAM_INFO> cameras;
    for (const CAM_HANDLE handle : handles) {
        EXT_CAM_INFO info{};
        if (keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS) cameras.push_back(info);
    }
    return cameras;
}

const EXT_CAM_INFO* FindByAddress(const std::vector<EXT_CAM_INFO>& cameras, uint32_t address) {
    const auto found =
        std::find_if(cameras.begin(), cameras.end(),
                     [address](const EXT_CAM_INFO& camera) { return camera.camera_ip == address; });
    return found == cameras.end() ? nullptr : &*found;
}

std::string AddressText(uint32_t address) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += std::to_string(address >> shift & 0xFF);
        if (shift > 0) text += '.';
    }
    return text;
}

}  // namespace demo
