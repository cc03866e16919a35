#include <algorithm>

#include "image_check.h"
#include "kelo_registers.h"
#include "soak.h"

namespace kelo::soak {
namespace {

Order SomeImages(Soak& soak) {
    return {.seed = soak.Seed(), .images = 10, .rate = 50};
}

// A camera that falls silent is closed and reported; when it is back it can be opened anew.
void LoseTheCamera(Soak& soak) {
    const uint32_t camera = soak.Chance(soak.CameraCount());
    soak.Do({.kind = Order::Kind::kPrepare, .camera = camera});
    const CAM_HANDLE handle = soak.Find(soak.Configs()[camera]);
    const int before = Soak::close_callbacks;
    soak.Do({.kind = Order::Kind::kWatchdog, .camera = camera, .value = 300});
    soak.Open(handle);
    soak.Do({.kind = Order::Kind::kSilence, .camera = camera, .value = 1});
    const bool reported = WaitFor([&] { return Soak::close_callbacks > before; });
    soak.Do({.kind = Order::Kind::kSilence, .camera = camera, .value = 0});
    soak.Do({.kind = Order::Kind::kWatchdog, .camera = camera, .value = kWatchdogOffMs});
    soak.ExpectInTime(reported, "the loss of a camera is not reported");
    Check(Soak::close_callbacks == before + 1, "the loss of a camera is reported twice");
    Check(Soak::closed == handle, "the loss of another camera is reported");
    ExpectEveryImage(soak, {camera}, SomeImages(soak));
}

// A camera that reboots while it sends: what came is as it was sent, and the next session works.
void Reboot(Soak& soak) {
    const uint32_t camera = soak.Chance(soak.CameraCount());
    const kelosim::CameraConfig& config = soak.Configs()[camera];
    soak.Do({.kind = Order::Kind::kPrepare, .camera = camera, .images = 0, .rate = 40});
    const CAM_HANDLE handle = soak.Find(config);
    soak.Open(handle);
    soak.Succeeds(keloStartImageAcquisition(handle), "start of the acquisition");
    StreamReader reader(soak, handle, 0, config.streams[0]);
    while (reader.Images() < 5 && reader.TakeOne(20000)) {
    }
    soak.ExpectInTime(reader.Images() == 5, "images before a reboot");
    soak.Do({.kind = Order::Kind::kReboot, .camera = camera});
    while (reader.TakeOne(300)) {
    }
    Check(WaitFor([&] { return soak.Status(camera).powered; }), "the camera is not back");
    soak.Close(handle);
    ExpectEveryImage(soak, {camera}, SomeImages(soak));
}

// A camera that does not answer discoveries any more is dropped.
void DropTheCamera(Soak& soak) {
    const uint32_t camera = soak.Chance(soak.CameraCount());
    const kelosim::CameraConfig& config = soak.Configs()[camera];
    const CAM_HANDLE handle = soak.Find(config);
    soak.Do({.kind = Order::Kind::kSilence, .camera = camera, .value = 1});
    keloDiscover(nullptr, 0, 100);
    std::vector<CAM_HANDLE> found(64);
    const int count = keloDiscover(found.data(), 64, 100);
    found.resize(static_cast<size_t>(std::max(count, 0)));
    const bool listed = std::find(found.begin(), found.end(), handle) != found.end();
    uint32_t value = 0;
    const KELO_API_STATUS status = keloGetRegisterInt(handle, REG_WIDTH, &value);
    soak.Do({.kind = Order::Kind::kSilence, .camera = camera, .value = 0});
    Check(!listed, "a silent camera is discovered");
    Check(status == KELO_STATUS_ERROR, "a dropped camera's handle is still known");
    Check(soak.Find(config) == handle, "a camera that is back has another handle");
}

// All cameras stream while the library is released under them.
void ReleaseUnderStreams(Soak& soak) {
    for (uint32_t camera = 0; camera < soak.CameraCount(); ++camera) {
        soak.Do({.kind = Order::Kind::kPrepare, .camera = camera, .images = 0, .rate = 20});
        const CAM_HANDLE handle = soak.Find(soak.Configs()[camera]);
        soak.Open(handle);
        soak.Succeeds(keloStartImageAcquisition(handle), "start of the acquisition");
    }
    Check(keloRelease() == KELO_STATUS_SUCCESS, "keloRelease");
    for (uint32_t camera = 0; camera < soak.CameraCount(); ++camera)
        soak.ExpectInTime(!soak.Status(camera).used, "a camera is not freed by keloRelease",
                          200000);
    Check(keloInit() == KELO_STATUS_SUCCESS, "keloInit behind keloRelease");
}

}  // namespace

std::vector<Step> TroubleSteps() {
    return {{"lose the camera", LoseTheCamera, 2},
            {"reboot", Reboot, 2},
            {"drop the camera", DropTheCamera, 2},
            {"release under streams", ReleaseUnderStreams, 2}};
}

}  // namespace kelo::soak
