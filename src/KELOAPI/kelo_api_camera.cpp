// The exported functions on one camera: identity, session, registers and memory.

#include <algorithm>
#include <bit>

#include "kelo_api.h"
#include "library.h"

KELO_API_STATUS keloGetCameraInfo(CAM_HANDLE camera_id, EXT_CAM_INFO* extCamInfo) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        if (extCamInfo == nullptr) return KELO_STATUS_ERROR;
        const CAM_INFO& info = camera->Identity();
        constexpr size_t kDescriptionLength = sizeof(info.hardware_description);
        std::copy_n(info.hardware_description, kDescriptionLength, extCamInfo->description);
        extCamInfo->description[kDescriptionLength] = 0;
        extCamInfo->camera_handle = camera_id;
        extCamInfo->camera_ip = info.camera_ip;
        extCamInfo->camera_subnetmask = info.camera_subnet;
        std::copy_n(info.camera_mac, sizeof(info.camera_mac), extCamInfo->camera_mac);
        return KELO_STATUS_SUCCESS;
    });
}

KELO_API_STATUS keloSetCameraIP(CAM_HANDLE camera_id, uint32_t new_ip_address,
                                uint32_t new_subnet_mask) {
    return kelo::WithManager(KELO_STATUS_ERROR, [&](KELOManager& manager) {
        return manager.setCameraIP(camera_id, new_ip_address, new_subnet_mask);
    });
}

KELO_API_STATUS keloOpenCamera(CAM_HANDLE camera_id, keloCameraCloseEvent* closeCameraEvent) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        return camera->Open(closeCameraEvent, false);
    });
}

KELO_API_STATUS keloCloseCamera(CAM_HANDLE camera_id) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR,
                            [](const auto& camera) { return camera->Close(); });
}

KELO_API_STATUS keloGetRegisterInt(CAM_HANDLE camera_id, uint32_t address, uint32_t* value) {
    if (value == nullptr) return KELO_STATUS_ERROR;
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        return camera->getRegisterValue(address, *value);
    });
}

KELO_API_STATUS keloSetRegisterInt(CAM_HANDLE camera_id, uint32_t address, uint32_t* value) {
    if (value == nullptr) return KELO_STATUS_ERROR;
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        return camera->setRegisterValue(address, *value);
    });
}

KELO_API_STATUS keloGetRegisterFloat(CAM_HANDLE camera_id, uint32_t address, float* value) {
    if (value == nullptr) return KELO_STATUS_ERROR;
    uint32_t pattern = 0;
    const KELO_API_STATUS status = keloGetRegisterInt(camera_id, address, &pattern);
    if (status == KELO_STATUS_SUCCESS) *value = std::bit_cast<float>(pattern);
    return status;
}

KELO_API_STATUS keloSetRegisterFloat(CAM_HANDLE camera_id, uint32_t address, float* value) {
    if (value == nullptr) return KELO_STATUS_ERROR;
    auto pattern = std::bit_cast<uint32_t>(*value);
    const KELO_API_STATUS status = keloSetRegisterInt(camera_id, address, &pattern);
    if (status == KELO_STATUS_SUCCESS) *value = std::bit_cast<float>(pattern);
    return status;
}

KELO_API_STATUS keloWriteMemory(CAM_HANDLE camera_id, uint32_t start_address, uint32_t* count,
                                uint32_t* values) {
    constexpr int kUsualAttempts = -1;
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        if (count == nullptr || (values == nullptr && *count > 0)) return KELO_STATUS_ERROR;
        return camera->writeMemory(start_address, *count, values, kUsualAttempts, nullptr);
    });
}

KELO_API_STATUS keloReadMemory(CAM_HANDLE camera_id, uint32_t start_address, uint32_t* count,
                               uint32_t* values) {
    return kelo::WithCamera(camera_id, KELO_STATUS_ERROR, [&](const auto& camera) {
        if (count == nullptr || values == nullptr) return KELO_STATUS_ERROR;
        return camera->readMemory(start_address, *count, values);
    });
}
