#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "StreamReceiverFront.h"
#include "StreamReceiverTcp.h"

// Receives the streams of the cameras that send over TCP: each stream opens a connection of its own
// to its camera, which listens.
class ImageStreamReceiverTcp final : public StreamReceiverFront<StreamReceiverTcp> {
public:
    bool Init() override { return true; }
    void Exit() override {}
    bool InitCamera(uint32_t ip, uint8_t stream_count, uint32_t buffer_count,
                    uint16_t tcp_port) override;
    // Throws std::out_of_range for a camera that InitCamera was never called for.
    void InitStream(uint32_t ip, uint8_t number, uint8_t streamFormat, uint8_t headerFormat,
                    uint32_t headerSize, uint32_t maxFrameSize) override;
    uint16_t GetStreamPort() override { return 0; }

private:
    uint16_t tcpPort(uint32_t ip);

    std::mutex mutex_ports;
    std::map<uint32_t, uint16_t> camera_tcp_ports;  // guarded by mutex_ports
};
