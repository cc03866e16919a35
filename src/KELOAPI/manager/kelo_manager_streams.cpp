// Routing of the image streams to the UDP and the TCP receiver.

#include "kelo_manager.h"

bool KELOManager::IsImageStreamReceiverReady() const {
    return imageStreamReceiver != nullptr && imageStreamReceiverTcp != nullptr;
}

uint16_t KELOManager::GetStreamPort() {
    return imageStreamReceiver != nullptr ? imageStreamReceiver->GetStreamPort() : uint16_t{0};
}

void KELOManager::InitCamera(uint32_t ip, uint8_t stream_count, uint32_t buffer_count,
                             uint16_t tcp_port) {
    ForEachReceiver([&](IImageStreamReceiver& receiver) {
        receiver.InitCamera(ip, stream_count, buffer_count, tcp_port);
    });
}

void KELOManager::ExitCamera(uint32_t ip) {
    ForEachReceiver([&](IImageStreamReceiver& receiver) { receiver.ExitCamera(ip); });
    images_left_behind.Forget(ip);
}

void KELOManager::LoseCamera(uint32_t ip) {
    ForEachReceiver(
        [&](IImageStreamReceiver& receiver) { receiver.LoseCamera(ip, images_left_behind); });
}

bool KELOManager::GiveBackLeftBehind(const void* image) {
    return images_left_behind.GiveBack(image);
}

void KELOManager::BeginClosing(uint32_t ip) {
    ForEachReceiver([&](IImageStreamReceiver& receiver) { receiver.BeginClosing(ip); });
}

void KELOManager::EndClosing(uint32_t ip) {
    ForEachReceiver([&](IImageStreamReceiver& receiver) { receiver.EndClosing(ip); });
}

void KELOManager::ResetStatistics(uint32_t ip) {
    ForEachReceiver([&](IImageStreamReceiver& receiver) { receiver.ResetStatistics(ip); });
}

void KELOManager::InitStream(uint32_t ip, uint8_t stream, uint8_t streamFormat,
                             uint8_t headerFormat, uint32_t headerSize, uint32_t maxFrameSize,
                             bool useTcp) {
    IImageStreamReceiver* receiver =
        useTcp ? imageStreamReceiverTcp.get() : imageStreamReceiver.get();
    if (receiver == nullptr) return;
    receiver->InitStream(ip, stream, streamFormat, headerFormat, headerSize, maxFrameSize);
    const std::lock_guard lock(mutex_routes);
    streamReceivers[{ip, stream}] = receiver;
}

IImageStreamReceiver* KELOManager::getStreamReceiver(uint32_t ip, uint8_t stream) {
    const std::lock_guard lock(mutex_routes);
    const auto route = streamReceivers.find({ip, stream});
    return route == streamReceivers.end() ? nullptr : route->second;
}

uint32_t KELOManager::GetPendingCount(uint32_t ip, uint8_t stream) {
    IImageStreamReceiver* receiver = getStreamReceiver(ip, stream);
    return receiver != nullptr ? receiver->GetPendingCount(ip, stream) : 0;
}

bool KELOManager::PopImage(uint32_t ip, uint8_t stream, BufferInfo* image) {
    IImageStreamReceiver* receiver = getStreamReceiver(ip, stream);
    return receiver != nullptr && receiver->PopImage(ip, stream, image);
}

BufferInfo* KELOManager::GetImage(int timeout_ms, uint32_t ip, uint8_t stream) {
    IImageStreamReceiver* receiver = getStreamReceiver(ip, stream);
    return receiver != nullptr ? receiver->GetImage(timeout_ms, ip, stream) : nullptr;
}

void KELOManager::ClearBuffer(uint32_t ip, uint8_t stream) {
    IImageStreamReceiver* receiver = getStreamReceiver(ip, stream);
    if (receiver != nullptr) receiver->ClearBuffer(ip, stream);
}

bool KELOManager::IsBufferEmpty(uint32_t ip, uint8_t stream) {
    IImageStreamReceiver* receiver = getStreamReceiver(ip, stream);
    return receiver == nullptr || receiver->IsBufferEmpty(ip, stream);
}
