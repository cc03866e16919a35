#include "TPacketCommunicatorUDPSocket.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "utils.h"

namespace {

// How soon a stop request is noticed.
constexpr int kReceiveWaitMs = 100;
constexpr uint32_t kBroadcast = 0xFFFFFFFF;

}  // namespace

TPacketCommunicatorUDPSocket::TPacketCommunicatorUDPSocket(IPacketReceiver* receiver, int port,
                                                           int maxPacketSize, uint32_t ip,
                                                           int receiveBufferSize)
    : TPacketCommunicator(receiver),
      MaxPacketSize(maxPacketSize),
      bind_ip(ip),
      bind_port(static_cast<uint16_t>(port)),
      receive_buffer_size(receiveBufferSize) {
    OpenSocket();
}

TPacketCommunicatorUDPSocket::~TPacketCommunicatorUDPSocket() {
    TPacketCommunicatorUDPSocket::StopRxThread();
}

void TPacketCommunicatorUDPSocket::OpenSocket() {
    try {
        Socket = std::make_unique<UDPSocket>(bind_ip, bind_port);
        if (receive_buffer_size != 0) Socket->requestReceiveBuffer(receive_buffer_size);
        actual_port = Socket->getPort();
        UDPStatus = actual_port != 0 ? UDPST_OK : UDPST_BAD_PORT;
    } catch (...) {
        actual_port = 0;
        UDPStatus = UDPST_BAD_PORT;
    }
}

void TPacketCommunicatorUDPSocket::StartRxThread() {
    const std::lock_guard lock(mutex_thread);
    if (retired) return;
    {
        const std::lock_guard send_lock(mutex_send);
        if (Socket == nullptr) OpenSocket();
    }
    if (UDPStatus != UDPST_OK) return;
    RxThreadStopWanted = false;
    // Made here, where a want of memory can be reported.
    std::vector<std::byte> buffer(static_cast<size_t>(MaxPacketSize));
    RxThread = std::thread([this, buffer = std::move(buffer)]() mutable { RxThreadFunc(buffer); });
}

void TPacketCommunicatorUDPSocket::StopRxThread() {
    const std::lock_guard lock(mutex_thread);
    if (!RxThread.joinable()) return;
    RxThreadStopWanted = true;
    RxThread.join();
}

void TPacketCommunicatorUDPSocket::BeginRetire() {
    retired = true;
    RxThreadStopWanted = true;
}

void TPacketCommunicatorUDPSocket::Retire() {
    const std::lock_guard lock(mutex_thread);
    BeginRetire();
    StopRxThread();
}

void TPacketCommunicatorUDPSocket::RestartSocket() {
    const std::lock_guard lock(mutex_thread);
    StopRxThread();
    {
        const std::lock_guard send_lock(mutex_send);
        Socket.reset();
        OpenSocket();
    }
    if (UDPStatus == UDPST_OK) StartRxThread();
}

ssize_t TPacketCommunicatorUDPSocket::Send(uint32_t ip, int port, const void* data, int length) {
    try {
        const std::lock_guard lock(mutex_send);
        if (Socket == nullptr) throw std::runtime_error("Can't send on not opened socket");
        const auto size = static_cast<size_t>(length);
        const auto destination_port = static_cast<uint16_t>(port);
        if (ip == kBroadcast) return Socket->sendBroadcast(data, size, destination_port);
        return Socket->sendto(data, size, ip, destination_port);
    } catch (...) {
        kelo::ShowMessage("Bug?", "TPacketCommunicatorUDPSocket::Send");
        try {
            RestartSocket();
        } catch (const std::system_error&) {
            // No thread is to be had: the socket is open again, and sending goes on.
        }
        return -1;
    }
}

const char* TPacketCommunicatorUDPSocket::GetDescription() {
    // One text per thread: a shared one could change under its reader.
    thread_local std::array<char, 128> text;
    snprintf(text.data(), text.size(),
             "[TPacketCommunicatorUDPSocket object (bound to %d.%d.%d.%d:%d)]", bind_ip >> 24,
             (bind_ip >> 16) & 0xFF, (bind_ip >> 8) & 0xFF, bind_ip & 0xFF, GetSocketPort());
    return text.data();
}

void TPacketCommunicatorUDPSocket::RxThreadFunc(std::vector<std::byte>& buffer) {
    kelo::NameThisThread("kelo-rx");
    ReadyToReceive = true;
    while (!RxThreadStopWanted) {
        if (Socket->waitReadable(kReceiveWaitMs) <= 0) continue;
        if (!ReceiveWaitingDatagrams(buffer)) return;
    }
}

// A wait per datagram would cost more than the datagram: takes what is there until it is all gone.
bool TPacketCommunicatorUDPSocket::ReceiveWaitingDatagrams(std::vector<std::byte>& buffer) {
    while (!RxThreadStopWanted) {
        uint32_t sender_ip = 0;
        const ssize_t count = Socket->receiveWaiting(buffer.data(), buffer.size(), &sender_ip);
        if (count < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
            if (RxThreadStopWanted) return false;
            kelo::Log(
                "TPacketCommunicatorUDPSocket::RxThreadFunc :: count < 0, RxThreadStopWanted == "
                "false, recvfrom socket failed.\n");
            return true;
        }
        Deliver(sender_ip, buffer.data(), static_cast<int>(count));
    }
    return false;
}

// What a datagram makes a receiver throw, for want of memory, costs that datagram and not the
// process.
void TPacketCommunicatorUDPSocket::Deliver(uint32_t sender_ip, const void* data, int length) {
    try {
        Receiver->OnRcv(this, sender_ip, data, length, actual_port);
    } catch (const std::exception& exception) {
        kelo::Log("TPacketCommunicatorUDPSocket::RxThreadFunc :: datagram dropped: %s\n",
                  exception.what());
    }
}
