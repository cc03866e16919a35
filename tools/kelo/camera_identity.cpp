#include "camera_identity.h"

#include <algorithm>

#include "json_writer.h"
#include "library_session.h"
#include "text.h"

namespace kelotool {

void WriteIdentity(JsonWriter& json, const EXT_CAM_INFO& camera,
                   const std::vector<Interface>& interfaces) {
    const Interface* reaching = FindReaching(interfaces, camera.camera_ip);
    json.Member("handle", HandleText(camera.camera_handle));
    json.Member("address", AddressText(camera.camera_ip));
    json.Member("mask", AddressText(camera.camera_subnetmask));
    json.Member("mac", MacText(camera.camera_mac));
    json.Member("description", Description(camera));
    json.Member("reachable", reaching != nullptr);
    if (reaching != nullptr) {
        json.Member("interface", reaching->name);
    } else {
        json.NullMember("interface");
    }
}

std::string NetworkText(const std::vector<Interface>& interfaces, const EXT_CAM_INFO& camera) {
    const Interface* reaching = FindReaching(interfaces, camera.camera_ip);
    return reaching != nullptr ? reaching->name : "foreign subnet";
}

bool SameMac(const EXT_CAM_INFO& one, const EXT_CAM_INFO& other) {
    return std::equal(std::begin(one.camera_mac), std::end(one.camera_mac),
                      std::begin(other.camera_mac));
}

}  // namespace kelotool
