// The exported functions on acquisition and images.

#include "kelo_api.h"
#include "library.h"
#include "utils.h"

namespace {

constexpr IMAGE_BUFFER_HANDLE kNoImage = nullptr;

const BufferInfo* InfoOf(IMAGE_BUFFER_HANDLE image) {
    return static_cast<const BufferInfo*>(image);
}

// The body gets the camera if images can be received at all.
template <typename Body>
IMAGE_BUFFER_HANDLE NextImage(CAM_HANDLE camera_id, Body body) {
    return kelo::WithCamera(camera_id, kNoImage, [&](const auto& camera) -> IMAGE_BUFFER_HANDLE {
        return camera->GetImageAcquisitionOK() ? body(*camera) : nullptr;
    });
}

// For functions without a result.
template <typename Body>
void OnCamera(CAM_HANDLE camera_id, Body body) {
    (void)kelo::WithCamera(camera_id, false, [&](const auto& camera) {
        body(*camera);
        return true;
    });
}

}  // namespace

KELO_API_STATUS keloStartImageAcquisition(CAM_HANDLE camera_id) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR,
                            [](const auto& camera) { return camera->StartAcquisition(); });
}

KELO_API_STATUS keloStopImageAcquisition(CAM_HANDLE camera_id) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR,
                            [](const auto& camera) { return camera->StopAcquisition(); });
}

int keloGetPendingImageCount(CAM_HANDLE camera_id, uint8_t streamNumber) {
    return kelo::WithCamera(camera_id, -1, [&](const auto& camera) {
        try {
            if (!camera->GetImageAcquisitionOK()) return -1;
            return static_cast<int>(camera->GetPendingImageCount(streamNumber));
        } catch (...) {
            kelo::Log("keloGetPendingImageCount exception\n");
            return -1;
        }
    });
}

IMAGE_BUFFER_HANDLE keloGetNextImage(CAM_HANDLE camera_id, uint8_t streamNumber) {
    return NextImage(camera_id,
                     [&](KELOCamera& camera) { return camera.GetNextImage(streamNumber); });
}

IMAGE_BUFFER_HANDLE keloGetNextImageTimeout(CAM_HANDLE camera_id, uint8_t streamNumber,
                                            int timeout_msec) {
    return NextImage(camera_id, [&](KELOCamera& camera) {
        return camera.GetNextImage(streamNumber, timeout_msec);
    });
}

IMAGE_BUFFER_HANDLE keloGetNextDecodedImage(CAM_HANDLE camera_id, uint8_t streamNumber,
                                            void* pDecodedBuffer, int header_size, int bufferSize,
                                            int* status) {
    return NextImage(camera_id, [&](KELOCamera& camera) -> TImageBuffer* {
        if (pDecodedBuffer == nullptr) return nullptr;
        return camera.GetNextDecodedImage(streamNumber, pDecodedBuffer, header_size, bufferSize,
                                          status);
    });
}

void keloPopImage(CAM_HANDLE camera_id, uint8_t streamNumber, void* Image) {
    (void)kelo::WithManager(false, [&](KELOManager& manager) {
        // By then the handle of its camera may name nothing any more, or a new session.
        if (manager.GiveBackLeftBehind(Image)) return true;
        const auto camera = manager.FindHandle(camera_id);
        if (camera != nullptr) camera->PopImage(streamNumber, static_cast<TImageBuffer*>(Image));
        return true;
    });
}

int keloIsBufferEmpty(CAM_HANDLE camera_id, uint8_t streamNumber) {
    return kelo::WithCamera(camera_id, 1, [&](const auto& camera) {
        return camera->IsBufferEmpty(streamNumber) ? 1 : 0;
    });
}

void keloSetBufferSize(CAM_HANDLE camera_id, uint32_t bufferSize) {
    OnCamera(camera_id, [&](KELOCamera& camera) { camera.SetBufferSize(bufferSize); });
}

void keloClearBuffer(CAM_HANDLE camera_id, uint8_t streamNumber) {
    OnCamera(camera_id, [&](KELOCamera& camera) { camera.ClearBuffer(streamNumber); });
}

EXT_CAM_STATS keloGetCameraStats(CAM_HANDLE /*camera_id*/, void* image) {
    return KELOCamera::getStats(static_cast<const TImageBuffer*>(image));
}

unsigned char* keloGetImageData(IMAGE_BUFFER_HANDLE image) {
    if (image == nullptr) return nullptr;
    return reinterpret_cast<unsigned char*>(static_cast<uintptr_t>(InfoOf(image)->buffer));
}

int keloGetImageSize(IMAGE_BUFFER_HANDLE image) {
    return image != nullptr ? static_cast<int>(InfoOf(image)->bufferStatistics.bytesReceived) : -1;
}

uint8_t keloGetHeaderSize(IMAGE_BUFFER_HANDLE image) {
    return image != nullptr ? InfoOf(image)->headerSize : uint8_t{0};
}

int keloGetImageBytesLost(IMAGE_BUFFER_HANDLE image) {
    return image != nullptr ? static_cast<int>(InfoOf(image)->bufferStatistics.bytesLost) : -1;
}

uint32_t keloGetImageNumber(IMAGE_BUFFER_HANDLE image) {
    return image != nullptr ? InfoOf(image)->imageNumber : 0;
}
