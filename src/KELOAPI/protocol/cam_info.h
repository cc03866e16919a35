#pragma once

#include <cstdint>

#include "kelo_common_defs.h"
#include "kelo_protocol.h"

// A camera's identity, as learnt from its discovery reply. Addresses in host order.
struct CAM_INFO {
    char hardware_description[32];  // not necessarily terminated
    uint32_t camera_ip;
    uint32_t camera_subnet;
    uint8_t camera_mac[6];
    uint16_t video_port;  // not part of the identity; set by the session
};

// Takes the identity out of a discovery reply; video_port is 0.
CAM_INFO CamInfoFromReply(const TDiscoveryReply& reply);

// Whether both are the same camera, unchanged: address, mask, MAC, and the descriptions as texts.
bool SameIdentity(const CAM_INFO& a, const CAM_INFO& b);

// The camera's handle: a hash of everything but the video port, stable over discoveries and
// processes. Two cameras could share one; the registry then keeps the first.
CAM_HANDLE camhandleFromCamInfo(const CAM_INFO& info);
