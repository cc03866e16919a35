#include "ImageStreamReceiverTcp.h"

bool ImageStreamReceiverTcp::InitCamera(uint32_t ip, uint8_t, uint32_t, uint16_t tcp_port) {
    const std::lock_guard lock(mutex_ports);
    camera_tcp_ports[ip] = tcp_port;
    return true;
}

void ImageStreamReceiverTcp::InitStream(uint32_t ip, uint8_t number, uint8_t streamFormat,
                                        uint8_t headerFormat, uint32_t headerSize,
                                        uint32_t maxFrameSize) {
    const uint16_t port = tcpPort(ip);
    startStream(ip, number, [&](StreamReceiverTcp& stream) {
        stream.InitStream(streamFormat, headerFormat, headerSize, maxFrameSize);
        // Closing that begins from here on ends the attempts of this stream.
        if (!IsClosing(ip)) stream.ensureTcpConnection(port);
    });
}

uint16_t ImageStreamReceiverTcp::tcpPort(uint32_t ip) {
    const std::lock_guard lock(mutex_ports);
    return camera_tcp_ports.at(ip);
}
