// The exported functions on a camera's firmware.

#include "kelo_api.h"
#include "library.h"

KELO_API_STATUS keloFirmwareProgram(CAM_HANDLE camera_id, const char* file_name) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        return camera->FirmwareProgram(camera, file_name);
    });
}

KELO_API_STATUS keloFirmwareProgramAbort(CAM_HANDLE camera_id) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR,
                            [](const auto& camera) { return camera->FirmwareProgramAbort(); });
}

KELO_API_STATUS keloFirmwareGetProgress(CAM_HANDLE camera_id, int* percent_done) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        return camera->FirmwareGetProgress(percent_done);
    });
}
