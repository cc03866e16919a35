// The exported functions that concern the library as a whole.

#include "kelo_api.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "build_info.h"
#include "library.h"
#include "utils.h"

static_assert(sizeof(EXT_CAM_INFO) == 118);
static_assert(offsetof(EXT_CAM_INFO, camera_handle) == 100);
static_assert(offsetof(EXT_CAM_INFO, camera_ip) == 104);
static_assert(offsetof(EXT_CAM_INFO, camera_subnetmask) == 108);
static_assert(offsetof(EXT_CAM_INFO, camera_mac) == 112);
static_assert(sizeof(EXT_CAM_STATS) == 20);
static_assert(offsetof(EXT_CAM_STATS, images_pending) == 16);

namespace {

constexpr int kVersionMajor = 2;
constexpr int kVersionMinor = 3;
constexpr int kVersionPatch = 3;

// What could not be done leaves the registry in doubt: the process ends here, where it can be seen.
[[noreturn]] void Fatal(const char* text) {
    kelo::ShowMessage("Fatal", text);
    abort();
}

// Writes an information text as snprintf does. A negative result means that the key is not known.
int FormatInfo(const char* path, char* buffer, size_t size) {
    namespace info = kelo::build_info;
    if (strcmp(path, "BuildInfo") == 0) {
        return snprintf(buffer, size, "Built on %d-%02d-%02d at %s (%s)", info::kYear, info::kMonth,
                        info::kDay, info::kTime, info::kRevision);
    }
    if (strcmp(path, "VersionString") == 0) {
        return snprintf(buffer, size, "%d.%d.%d", kVersionMajor, kVersionMinor, kVersionPatch);
    }
    return -1;
}

}  // namespace

KELO_API_STATUS keloInit() {
    return kelo::Guarded(KELO_STATUS_ERROR, [] {
        kelo::CreateManager();
        return KELO_STATUS_SUCCESS;
    });
}

KELO_API_STATUS keloRelease() {
    return kelo::Guarded(KELO_STATUS_SUCCESS, [] {
        kelo::DestroyManager();
        return KELO_STATUS_SUCCESS;
    });
}

int keloGetVersion() {
    return kVersionMajor << 24 | kVersionMinor << 16 | kVersionPatch;
}

void keloLogging(uint8_t enable) {
    kelo::Logging(enable != 0);
}

KELO_API_STATUS keloGetInfo(const char* path, void* buffer, int* length) {
    if (path == nullptr || buffer == nullptr || length == nullptr) return KELO_STATUS_ERROR;
    const int size = std::max(*length, 0);
    *length = 0;
    const int text_length = FormatInfo(path, static_cast<char*>(buffer), static_cast<size_t>(size));
    if (text_length < 0) return KELO_STATUS_OUT_OF_RANGE;
    // The size that would do is not told, by design: callers offer enough from the start.
    if (size <= text_length) return KELO_STATUS_ERROR;
    *length = text_length + 1;
    return KELO_STATUS_SUCCESS;
}

KELO_API_STATUS keloGetInfoInt(const char* path, int* val) {
    if (path == nullptr || val == nullptr) return KELO_STATUS_ERROR;
    if (strcmp(path, "IsMissingFilterDriver") != 0) return KELO_STATUS_OUT_OF_RANGE;
    return kelo::WithManager(KELO_STATUS_ERROR, [&](KELOManager& manager) {
        *val = manager.IsMissingFilterDriver() ? 1 : 0;
        return KELO_STATUS_SUCCESS;
    });
}

KELO_API_STATUS keloSetImagePacketCommunicatorOptions(const char* options) {
    return kelo::WithManager(KELO_STATUS_ERROR, [&](KELOManager& manager) {
        return manager.SetImageOptions(options) ? KELO_STATUS_SUCCESS : KELO_STATUS_ERROR;
    });
}

int keloDiscover(CAM_HANDLE* cameraList, uint32_t max_count, uint32_t ms_delay) {
    const auto manager = kelo::CurrentManager();
    if (manager == nullptr) return 0;
    uint32_t found = 0;
    try {
        found = manager->Discover(max_count, ms_delay);
    } catch (...) {
        Fatal("keloManager->Discover function crashed.");
    }
    if (found == 0) return 0;
    try {
        return cameraList != nullptr
                   ? manager->GetCameraList(cameraList, std::min(found, max_count))
                   : 0;
    } catch (...) {
        Fatal("keloManager->Get crashed.");
    }
}
