#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include <sys/types.h>

class TPacketCommunicator;

// One received datagram: the sender's address in host order, and bytes that belong to the
// communicator.
struct TDatagram {
    uint32_t ip;
    const void* data;
    int length;
};

// What a receiver expects after the datagrams that it was given.
struct TOutlook {
    // So many more must come, at least, before the receiver has something to hand over. 0 when that
    // is not known, or may be at any moment.
    uint32_t until_wanted = 0;
    // Something new began with these datagrams: the time before them was a pause.
    bool begins = false;
    // Something was handed over to somebody who slept until there was: he may be waiting for this
    // thread's core.
    bool wakes = false;
};

// Takes the datagrams that a communicator receives.
class IPacketReceiver {
public:
    // One datagram, on the communicator's receive thread. ip is the sender's address (host order),
    // port the LOCAL port that received it; data is valid only during the call.
    virtual void OnRcv(TPacketCommunicator* from, uint32_t ip, const void* data, int length,
                       unsigned short port) = 0;
    virtual ~IPacketReceiver() = default;
    // Several datagrams that arrived together, in the order of their arrival. For receivers that
    // can do with one look-up and one lock for all of them. The communicator may let the next ones
    // gather for a moment where the outlook allows it.
    virtual TOutlook OnRcvBatch(TPacketCommunicator* from, std::span<const TDatagram> datagrams,
                                unsigned short port) {
        for (const TDatagram& datagram : datagrams) {
            OnRcv(from, datagram.ip, datagram.data, datagram.length, port);
        }
        return {};
    }
};

// A transport for datagrams with a receive thread of its own. Sends may come from any thread.
class TPacketCommunicator {
public:
    using Ptr = std::shared_ptr<TPacketCommunicator>;

    // The receiver is borrowed and must outlive the receive thread.
    explicit TPacketCommunicator(IPacketReceiver* receiver = nullptr) : Receiver(receiver) {}
    virtual ~TPacketCommunicator() = default;
    TPacketCommunicator(const TPacketCommunicator&) = delete;
    TPacketCommunicator& operator=(const TPacketCommunicator&) = delete;

    virtual void StartRxThread() = 0;
    // Ends and joins the receive thread. Never from inside OnRcv.
    virtual void StopRxThread() = 0;
    virtual bool IsInitialized() = 0;
    // Bytes sent or -1. An ip of 0xFFFFFFFF broadcasts.
    virtual ssize_t Send(uint32_t ip, int port, const void* data, int length) = 0;
    virtual unsigned short GetSocketPort() = 0;
    virtual unsigned int GetSocketIp() = 0;
    // A text for log lines, valid until the calling thread's next call.
    virtual const char* GetDescription() = 0;

    // Whether the receive thread has begun; stays true when it has ended.
    bool IsReadyToReceive() const { return ReadyToReceive; }

protected:
    std::atomic<bool> ReadyToReceive{false};
    IPacketReceiver* Receiver;
};
