#include "TPacketCommunicatorUDPSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "CoreOffer.h"
#include "DatagramBatch.h"
#include "ReceptionPause.h"
#include "utils.h"

namespace {

// How soon a stop request is noticed.
constexpr int kReceiveWaitMs = 100;
constexpr int kErrorPauseMs = 1;
// Messages taken with one system call where there is much to receive. More would leave the cache
// between the kernel's copy and the receiver's.
constexpr size_t kBulkMessages = 32;
constexpr uint32_t kBroadcast = 0xFFFFFFFF;
// Bridges some 40 ms at 1 Gbit/s and 4 ms at 10 Gbit/s, what a loaded machine lets a thread wait.
constexpr int kBufferBytesWanted = 4 << 20;
// Without bulk: what a thousand cameras answer to one question at once. An answer that finds no
// room makes its camera a lost one.
constexpr int kAnswersBufferBytes = 1 << 20;

}  // namespace

TPacketCommunicatorUDPSocket::TPacketCommunicatorUDPSocket(IPacketReceiver* receiver, int port,
                                                           int maxPacketSize, uint32_t ip,
                                                           int bulkBufferBytes)
    : TPacketCommunicator(receiver),
      MaxPacketSize(maxPacketSize),
      bind_ip(ip),
      bind_port(static_cast<uint16_t>(port)),
      bulk_buffer_bytes(bulkBufferBytes) {
    OpenSocket();
}

TPacketCommunicatorUDPSocket::~TPacketCommunicatorUDPSocket() {
    TPacketCommunicatorUDPSocket::StopRxThread();
}

void TPacketCommunicatorUDPSocket::OpenSocket() {
    try {
        Socket = std::make_unique<UDPSocket>(bind_ip, bind_port);
        if (InBulk()) {
            TakeBulkBuffer();
        } else {
            (void)Socket->requestReceiveBuffer(kAnswersBufferBytes);
        }
        actual_port = Socket->getPort();
        UDPStatus = actual_port != 0 ? UDPST_OK : UDPST_BAD_PORT;
    } catch (...) {
        actual_port = 0;
        UDPStatus = UDPST_BAD_PORT;
    }
}

// A buffer that is cut short shows only much later, when the machine is busy and images are lost.
void TPacketCommunicatorUDPSocket::TakeBulkBuffer() {
    granted_buffer_bytes = Socket->requestReceiveBuffer(bulk_buffer_bytes);
    merging = Socket->allowMerging();
    if (granted_buffer_bytes == 0 ||
        granted_buffer_bytes / 2 >= std::min(kBufferBytesWanted, bulk_buffer_bytes)) {
        return;
    }
    kelo::Log(
        "The system limits the receive buffer for images to %d KiB, below the %d KiB that bridge a "
        "stalled reception: images may be lost. Cure: sysctl -w net.core.rmem_max=%d\n",
        granted_buffer_bytes / 2 / 1024, kBufferBytesWanted / 1024, bulk_buffer_bytes);
}

void TPacketCommunicatorUDPSocket::StartRxThread() {
    const std::lock_guard lock(mutex_thread);
    if (retired) return;
    {
        const std::lock_guard send_lock(mutex_send);
        if (Socket == nullptr || UDPStatus != UDPST_OK) OpenSocket();
    }
    if (UDPStatus != UDPST_OK) return;
    RxThreadStopWanted = false;
    try {
        // Made here, where a want of memory can be reported.
        const size_t messages = InBulk() ? kBulkMessages : 1;
        auto batch =
            std::make_unique<DatagramBatch>(messages, static_cast<size_t>(MaxPacketSize), merging);
        RxThread = std::thread([this, batch = std::move(batch)] { RxThreadFunc(*batch); });
    } catch (...) {
        // Nothing is received on this socket: the next start begins anew.
        UDPStatus = UDPST_ERROR;
        throw;
    }
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
        } catch (const std::exception&) {
            // No thread or memory is to be had: the socket is open again, and sending goes on.
        }
        return -1;
    }
}

const char* TPacketCommunicatorUDPSocket::GetDescription() {
    // One text per thread: a shared one could change under its reader.
    thread_local std::array<char, 128> text;
    snprintf(text.data(), text.size(),
             "[TPacketCommunicatorUDPSocket object (bound to %u.%u.%u.%u:%d)]", bind_ip >> 24,
             (bind_ip >> 16) & 0xFF, (bind_ip >> 8) & 0xFF, bind_ip & 0xFF, GetSocketPort());
    return text.data();
}

void TPacketCommunicatorUDPSocket::RxThreadFunc(DatagramBatch& batch) {
    kelo::NameThisThread("kelo-rx");
    Socket->setReceiveTimeout(kReceiveWaitMs);
    ReadyToReceive = true;
    ReceptionPause pause(static_cast<size_t>(granted_buffer_bytes));
    CoreOffer offer;
    if (InBulk()) kelo::WakeThisThreadOnTime();
    while (!RxThreadStopWanted) {
        if (batch.Receive(Socket->getNativeHandle()) < 0) {
            HandleReceiveError(errno);
            continue;
        }
        const TOutlook outlook = Deliver(batch.Datagrams());
        if (!InBulk()) continue;
        // Where there is nothing left to receive this thread is about to sleep anyway.
        if (outlook.wakes && batch.IsFull()) offer.Make();
        const auto length = pause.After(ReceptionPause::Clock::now(), batch.Datagrams().size(),
                                        batch.Bytes(), outlook, !batch.IsFull());
        if (length.count() > 0) std::this_thread::sleep_for(length);
    }
}

void TPacketCommunicatorUDPSocket::HandleReceiveError(int error) {
    const bool nothing_came = error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
    if (nothing_came || RxThreadStopWanted) return;
    kelo::Log(
        "TPacketCommunicatorUDPSocket::RxThreadFunc :: count < 0, RxThreadStopWanted == false, "
        "recvfrom socket failed.\n");
    // A socket that fails at once, again and again, must not take a whole core.
    kelo::Sleep(kErrorPauseMs);
}

// What a datagram makes a receiver throw, for want of memory, costs that datagram and not the
// process.
TOutlook TPacketCommunicatorUDPSocket::Deliver(std::span<const TDatagram> datagrams) {
    try {
        return Receiver->OnRcvBatch(this, datagrams, actual_port);
    } catch (const std::exception& exception) {
        kelo::Log("TPacketCommunicatorUDPSocket::RxThreadFunc :: datagram dropped: %s\n",
                  exception.what());
        return {};
    }
}
