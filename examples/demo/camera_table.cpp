#include "camera_table.h"

#include <cstdio>

#include "library.h"

namespace demo {
namespace {

std::string MacText(const uint8_t (&mac)[6]) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

uint32_t ReadRegister(CAM_HANDLE camera, uint32_t number) {
    uint32_t value = 0;
    Require(keloGetRegisterInt(camera, number, &value), "keloGetRegisterInt");
    return value;
}

}  // namespace

void PrintCameraTable(const std::vector<EXT_CAM_INFO>& cameras) {
    std::printf("\n  %-10s  %-15s  %-15s  %-17s  %s\n", "handle", "address", "subnet mask", "MAC",
                "description");
    for (const EXT_CAM_INFO& camera : cameras) {
        std::printf("  0x%08x  %-15s  %-15s  %-17s  %s\n", camera.camera_handle,
                    AddressText(camera.camera_ip).c_str(),
                    AddressText(camera.camera_subnetmask).c_str(),
                    MacText(camera.camera_mac).c_str(), camera.description);
    }
    std::printf("\n");
}

void PrintOpenCamera(const EXT_CAM_INFO& camera) {
    const CAM_HANDLE handle = camera.camera_handle;
    std::printf("  %-15s  open: %u x %u pixels, format 0x%02x, packets of %u bytes get through\n",
                AddressText(camera.camera_ip).c_str(), ReadRegister(handle, REG_WIDTH),
                ReadRegister(handle, REG_HEIGHT), ReadRegister(handle, REG_STREAM0_FORMAT),
                ReadRegister(handle, REG_MTU));
}

}  // namespace demo
