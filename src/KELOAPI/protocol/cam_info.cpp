#include "cam_info.h"

#include <algorithm>
#include <cstring>

#include "utils.h"

CAM_INFO CamInfoFromReply(const TDiscoveryReply& reply) {
    CAM_INFO info{};
    std::copy(std::begin(reply.hardware_description), std::end(reply.hardware_description),
              info.hardware_description);
    info.camera_ip = kelo_ntohl(reply.NL_camera_ip);
    info.camera_subnet = kelo_ntohl(reply.NL_camera_subnet);
    std::copy(std::begin(reply.camera_mac), std::end(reply.camera_mac), info.camera_mac);
    return info;
}

bool SameIdentity(const CAM_INFO& a, const CAM_INFO& b) {
    return a.camera_ip == b.camera_ip && a.camera_subnet == b.camera_subnet &&
           std::equal(std::begin(a.camera_mac), std::end(a.camera_mac), b.camera_mac) &&
           strncmp(a.hardware_description, b.hardware_description,
                   sizeof(a.hardware_description)) == 0;
}

CAM_HANDLE camhandleFromCamInfo(const CAM_INFO& info) {
    uint64_t description_hash = 0;
    const size_t length = strnlen(info.hardware_description, sizeof(info.hardware_description));
    for (size_t i = 0; i < length; ++i) {
        // Bytes of 0x80 and above count as negative numbers.
        const auto byte = static_cast<signed char>(info.hardware_description[i]);
        description_hash = description_hash * 31 + static_cast<uint64_t>(int64_t{byte});
    }
    description_hash <<= 4;

    const uint8_t* mac = info.camera_mac;
    const uint64_t mac_first_16 = mac[0] | uint64_t{mac[1]} << 8;
    const uint64_t mac_last_32 =
        mac[2] | uint64_t{mac[3]} << 8 | uint64_t{mac[4]} << 16 | uint64_t{mac[5]} << 24;
    const uint64_t numbers = uint64_t{info.camera_subnet} * 2 ^ uint64_t { info.camera_ip } ^
                             mac_last_32 * 4 ^ mac_first_16 * 8;
    const uint64_t hash = description_hash ^ numbers;
    return static_cast<CAM_HANDLE>(hash ^ hash >> 32);
}
