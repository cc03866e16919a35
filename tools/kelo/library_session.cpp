#include "library_session.h"

#include <algorithm>
#include <mutex>
#include <set>

#include "text.h"

namespace kelotool {
namespace {

constexpr uint32_t CAMERAS_MAX = 1024;

// The close callback carries the handle only.
std::mutex lost_mutex;
std::set<CAM_HANDLE> lost;

KELO_API_STATUS OnClosed(CAM_HANDLE handle) {
    const std::lock_guard lock(lost_mutex);
    lost.insert(handle);
    return KELO_STATUS_SUCCESS;
}

}  // namespace

Library::Library(const Context& context) {
    keloLogging(context.library_log ? 1 : 0);
    if (keloInit() == KELO_STATUS_SUCCESS) return;
    throw CommandError(EXIT_LOCAL,
                       "the library cannot start: the system refuses a socket or thread",
                       "See `ulimit -n` and `ulimit -u`.");
}

std::vector<EXT_CAM_INFO> Discover(uint32_t timeout_ms) {
    std::vector<CAM_HANDLE> handles(CAMERAS_MAX);
    const int count = keloDiscover(handles.data(), CAMERAS_MAX, timeout_ms);
    handles.resize(static_cast<size_t>(std::max(count, 0)));
    std::vector<EXT_CAM_INFO> cameras;
    for (const CAM_HANDLE handle : handles) {
        EXT_CAM_INFO info{};
        if (keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS) cameras.push_back(info);
    }
    return cameras;
}

std::string Description(const EXT_CAM_INFO& camera) {
    const auto end = std::find(std::begin(camera.description), std::end(camera.description), '\0');
    return std::string(std::begin(camera.description), end);
}

std::string Title(const EXT_CAM_INFO& camera) {
    return Printable(Description(camera)) + " at " + AddressText(camera.camera_ip);
}

OpenCamera::OpenCamera(const EXT_CAM_INFO& camera) : handle_(camera.camera_handle) {
    {
        const std::lock_guard lock(lost_mutex);
        lost.erase(handle_);
    }
    const KELO_API_STATUS status = keloOpenCamera(handle_, &OnClosed);
    if (status == KELO_STATUS_SUCCESS) return;
    // A session may have begun although opening failed.
    keloCloseCamera(handle_);
    Require(status, "opening " + Title(camera));
}

OpenCamera::~OpenCamera() {
    keloCloseCamera(handle_);
}

bool OpenCamera::Lost() const {
    const std::lock_guard lock(lost_mutex);
    return lost.contains(handle_);
}

const char* StatusText(KELO_API_STATUS status) {
    switch (status) {
        case KELO_STATUS_SUCCESS:
            return "done";
        case KELO_STATUS_OUT_OF_RANGE:
            return "the camera does not have it";
        case KELO_STATUS_NO_RESPONSE:
            return "the camera does not answer";
        default:
            return "the camera refused";
    }
}

void Require(KELO_API_STATUS status, const std::string& what) {
    if (status == KELO_STATUS_SUCCESS) return;
    if (status == KELO_STATUS_NO_RESPONSE) {
        throw CommandError(EXIT_LOST, what + " failed: " + StatusText(status),
                           "Is it still there? `kelo list` tells; `kelo doctor` looks for what "
                           "keeps its answers away.");
    }
    const bool unknown = status == KELO_STATUS_OUT_OF_RANGE;
    throw CommandError(EXIT_REFUSED, what + " failed: " + StatusText(status),
                       unknown ? "`kelo registers` lists what cameras may have."
                               : "It may be read-only, or another program may hold the camera: "
                                 "`kelo get CAMERA REG_CAMERA_USED`.");
}

}  // namespace kelotool
