// Transports without a socket, and a host with two interfaces, in place of the library's.

#include "loose_transport.h"

#include <map>

#include "NetworkInterfaces.h"

namespace {

std::map<uint32_t, TPacketCommunicator*>& Transports() {
    // Outlives every transport.
    static auto& transports = *new std::map<uint32_t, TPacketCommunicator*>;
    return transports;
}

std::function<void(std::span<const uint8_t>)>& SendCall() {
    static auto& call = *new std::function<void(std::span<const uint8_t>)>;
    return call;
}

}  // namespace

TPacketCommunicator* kelo::fuzz::FindTransport(uint32_t ip) {
    const auto found = Transports().find(ip);
    return found == Transports().end() ? nullptr : found->second;
}

void kelo::fuzz::OnSend(std::function<void(std::span<const uint8_t>)> call) {
    SendCall() = std::move(call);
}

std::vector<interface_description> GetNetworkInterfaceInfos(bool) {
    std::vector<interface_description> interfaces;
    for (uint32_t i = 0; i < std::size(kelo::fuzz::kInterfaces); ++i) {
        const uint32_t ip = kelo::fuzz::kInterfaces[i];
        const uint32_t mask = kelo::fuzz::kInterfaceMasks[i];
        interfaces.emplace_back("net" + std::to_string(i), ip, mask, ip | ~mask, i + 1);
    }
    return interfaces;
}

TPacketCommunicatorUDPSocket::TPacketCommunicatorUDPSocket(IPacketReceiver* receiver, int port,
                                                           int maxPacketSize, uint32_t ip,
                                                           int bulkBufferBytes)
    : TPacketCommunicator(receiver),
      MaxPacketSize(maxPacketSize),
      bind_ip(ip),
      bind_port(static_cast<uint16_t>(port)),
      bulk_buffer_bytes(bulkBufferBytes),
      actual_port(4711),
      UDPStatus(UDPST_OK) {
    // Image reception has one of its own, which is none of the control transports.
    if (!InBulk()) Transports()[ip] = this;
}

TPacketCommunicatorUDPSocket::~TPacketCommunicatorUDPSocket() {
    const auto known = Transports().find(bind_ip);
    if (known != Transports().end() && known->second == this) Transports().erase(known);
}

void TPacketCommunicatorUDPSocket::StartRxThread() {
    ReadyToReceive = true;
}

void TPacketCommunicatorUDPSocket::StopRxThread() {}

ssize_t TPacketCommunicatorUDPSocket::Send(uint32_t, int, const void* data, int length) {
    const std::span bytes(static_cast<const uint8_t*>(data), static_cast<size_t>(length));
    if (SendCall()) SendCall()(bytes);
    return length;
}

const char* TPacketCommunicatorUDPSocket::GetDescription() {
    return "loose";
}

void TPacketCommunicatorUDPSocket::BeginRetire() {}

void TPacketCommunicatorUDPSocket::Retire() {}
