#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kelo_manager.h"
#include "log_capture.h"
#include "network_namespace.h"
#include "wait_for.h"

namespace kelo::test {

using Bytes = std::vector<uint8_t>;

inline void Append32(Bytes& bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(value >> shift));
}

inline Bytes Header(uint32_t command, uint32_t number) {
    Bytes bytes{0xAB, 0};
    for (const uint32_t word : {command, number, 1u})
        Append32(bytes, word);
    return bytes;
}

// A discovery reply as it stands on the wire.
inline Bytes DiscoveryReply(uint32_t ip, std::string description, uint32_t mask = 0xFF000000,
                            uint8_t last_of_mac = 1) {
    Bytes bytes = Header(2, 0);
    Append32(bytes, 0);           // self test
    Append32(bytes, 0x00020003);  // firmware version
    description.resize(32, '\0');
    bytes.insert(bytes.end(), description.begin(), description.end());
    Append32(bytes, ip);
    Append32(bytes, mask);
    const Bytes mac{2, 0, 0, 0, 0, last_of_mac, 0, 0};
    bytes.insert(bytes.end(), mac.begin(), mac.end());
    Append32(bytes, 1000);
    Append32(bytes, 0);
    return bytes;
}

constexpr uint32_t kCamera = 0x7F00000B;

// A manager that the test feeds with datagrams, as its transports would.
class ManagerTest : public testing::Test {
protected:
    void Receive(const Bytes& datagram, uint32_t from_ip = kCamera,
                 TPacketCommunicator* through = nullptr) {
        manager->OnRcv(through, from_ip, datagram.data(), static_cast<int>(datagram.size()), 0);
    }
    std::vector<CAM_HANDLE> Handles() {
        std::vector<CAM_HANDLE> handles(2048);
        handles.resize(static_cast<size_t>(manager->GetCameraList(handles.data(), 2048)));
        return handles;
    }

    LogCapture log;
    std::unique_ptr<KELOManager> manager = std::make_unique<KELOManager>();
};

}  // namespace kelo::test
