#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <thread>

#include "DatagramBatch.h"
#include "TPacketCommunicator.h"
#include "UDPSocket.h"

// What became of the socket of a communicator.
enum TUDPStatus { UDPST_OK = 0, UDPST_ERROR = 1, UDPST_BAD_PORT = 2 };

// One bound UDP socket and the thread that hands its datagrams to the receiver. The receive buffer
// is made once per thread; OnRcv gets a pointer into it.
class TPacketCommunicatorUDPSocket final : public TPacketCommunicator {
public:
    using enum TUDPStatus;

    // Opens the socket but starts no thread. ip 0 is any address, port 0 lets the system choose.
    // Longer datagrams are cut to maxPacketSize. bulkBufferBytes, if not 0, is asked of the
    // kernel as receive buffer, and datagrams are taken many at a time.
    TPacketCommunicatorUDPSocket(IPacketReceiver* receiver, int port, int maxPacketSize,
                                 uint32_t ip, int bulkBufferBytes = 0);
    ~TPacketCommunicatorUDPSocket() override;

    void StartRxThread() override;
    void StopRxThread() override;
    bool IsInitialized() override { return UDPStatus == UDPST_OK; }
    ssize_t Send(uint32_t ip, int port, const void* data, int length) override;
    unsigned short GetSocketPort() override { return actual_port; }
    unsigned int GetSocketIp() override { return bind_ip; }
    const char* GetDescription() override;

    // Closes and opens the socket again; with a requested port of 0 the new one may differ.
    void RestartSocket();

    // Stops the receive thread for good: no restart brings it back. For a receiver that is about
    // to be destroyed while others still hold this transport.
    void Retire();
    // The first half of it: several transports told so first end at the same time.
    void BeginRetire();

private:
    void OpenSocket();
    void TakeBulkBuffer();
    void RxThreadFunc(DatagramBatch& batch);
    void HandleReceiveError(int error);
    TOutlook Deliver(std::span<const TDatagram> datagrams);
    bool InBulk() const { return bulk_buffer_bytes != 0; }

    const int MaxPacketSize;
    const uint32_t bind_ip;
    const uint16_t bind_port;
    const int bulk_buffer_bytes;

    // Locked for starting, stopping and joining the receive thread, before mutex_send. Never held
    // together with mutex_send while joining: OnRcv may send. Recursive: a restart stops and
    // starts.
    std::recursive_mutex mutex_thread;
    std::thread RxThread;  // guarded by mutex_thread
    std::atomic<bool> RxThreadStopWanted{false};
    std::atomic<bool> retired{false};

    std::mutex mutex_send;              // serialises sends
    std::unique_ptr<UDPSocket> Socket;  // null when closed; replaced only under both mutexes, with
                                        // no receive thread running
    bool merging = false;               // of Socket
    int granted_buffer_bytes = 0;       // of Socket, in bulk
    std::atomic<uint16_t> actual_port{0};
    std::atomic<TUDPStatus> UDPStatus{UDPST_ERROR};
};
