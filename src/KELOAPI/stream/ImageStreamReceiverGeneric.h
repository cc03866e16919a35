#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <span>

#include "StreamReceiver.h"
#include "StreamReceiverFront.h"
#include "TPacketCommunicator.h"
#include "Timer.h"
#include "img_common.h"
#include "utils.h"

// Receives the streams of all cameras as datagrams on one socket: checks each datagram, hands it to
// its stream, and completes images whose packets have stopped coming. Transport is the communicator
// that owns the socket and its receive thread.
//
// Entered by the transport's receive thread (OnRcv), the timer's thread, and application threads.
// Lock order: mutex_streams, a stream's onrcv_mutex, its finished_buffers_mutex.
template <typename Transport>
class ImageStreamReceiverGeneric final : public StreamReceiverFront<StreamReceiver>,
                                         public IPacketReceiver {
public:
    ImageStreamReceiverGeneric() {
        timer_finish_transfers.start(kFinishInterval, [this] { tick(); });
    }

    // Both threads end before anything that they use goes.
    ~ImageStreamReceiverGeneric() override {
        timer_finish_transfers.stop();
        if (PacketCommunicator) PacketCommunicator->StopRxThread();
        EndAllWaits();
    }

    // True also when the socket could not be opened: the communicator knows its own state.
    bool Init() override {
        if (PacketCommunicator) return true;
        PacketCommunicator = std::make_shared<Transport>(this, kAnyPort, kDatagramBytesMax,
                                                         kAnyAddress, kReceiveBufferBytes);
        PacketCommunicator->StartRxThread();
        return true;
    }

    // The socket lives as long as this object.
    void Exit() override {}

    bool InitCamera(uint32_t, uint8_t, uint32_t, uint16_t) override { return true; }

    void InitStream(uint32_t ip, uint8_t number, uint8_t streamFormat, uint8_t headerFormat,
                    uint32_t headerSize, uint32_t maxFrameSize) override {
        startStream(ip, number, [&](StreamReceiver& stream) {
            stream.InitStream(streamFormat, headerFormat, headerSize, maxFrameSize);
        });
    }

    uint16_t GetStreamPort() override {
        return PacketCommunicator ? PacketCommunicator->GetSocketPort() : uint16_t{0};
    }

    void OnRcv(TPacketCommunicator* from, uint32_t ip, const void* data, int size,
               unsigned short port) override {
        const TDatagram datagram{.ip = ip, .data = data, .length = size};
        OnRcvBatch(from, {&datagram, 1}, port);
    }

    // One look-up and one lock for all neighbouring datagrams of a stream.
    void OnRcvBatch(TPacketCommunicator*, std::span<const TDatagram> datagrams,
                    unsigned short) override {
        try {
            receive(datagrams);
        } catch (const std::exception& e) {
            kelo::Log("Stream packet dropped: %s\n", e.what());
        }
    }

    // The tick: each stream completes its images if no packet came since the last one.
    void finishTransfersIfNeeded() {
        const std::lock_guard lock(mutex_streams);
        for (const StreamPtr& stream : streams)
            stream->finishTransfersIfNeeded();
    }

private:
    static constexpr std::chrono::milliseconds kFinishInterval{100};
    static constexpr int kAnyPort = 0;
    static constexpr uint32_t kAnyAddress = 0;
    // More than the largest Ethernet jumbo frame.
    static constexpr int kDatagramBytesMax = 16384;
    // A quarter of a second of 1 Gbit/s: what may arrive while the receive thread is not running.
    static constexpr int kReceiveBufferBytes = 32 << 20;

    static const unsigned char* bytesOf(const TDatagram& datagram) {
        return static_cast<const unsigned char*>(datagram.data);
    }

    // A datagram without payload is of no use; a negative size counts as a large one.
    static bool isTooSmall(const TDatagram& datagram) {
        return static_cast<unsigned>(datagram.length) <= sizeof(THeaderImage);
    }

    static bool isValid(const TDatagram& datagram) {
        if (isTooSmall(datagram)) {
            kelo::Log("Stream packet too small (less than header size) = %d bytes.\n",
                      datagram.length);
            return false;
        }
        if (bytesOf(datagram)[offsetof(THeaderImage, magic)] != KELO_IMAGE_MAGIC) {
            kelo::Log("Wrong stream packet magic number.\n");
            return false;
        }
        return true;
    }

    static uint8_t streamOf(const TDatagram& datagram) {
        return bytesOf(datagram)[offsetof(THeaderImage, stream_number)];
    }

    // How many datagrams from the first, valid one on belong to its stream.
    static size_t lengthOfRun(std::span<const TDatagram> datagrams) {
        const TDatagram& first = datagrams.front();
        const auto other =
            std::find_if(datagrams.begin() + 1, datagrams.end(), [&](const TDatagram& datagram) {
                return isTooSmall(datagram) || datagram.ip != first.ip ||
                       bytesOf(datagram)[offsetof(THeaderImage, magic)] != KELO_IMAGE_MAGIC ||
                       streamOf(datagram) != streamOf(first);
            });
        return static_cast<size_t>(other - datagrams.begin());
    }

    void receive(std::span<const TDatagram> datagrams) {
        while (!datagrams.empty()) {
            size_t handled = 1;
            if (isValid(datagrams.front())) {
                handled = lengthOfRun(datagrams);
                const TDatagram& first = datagrams.front();
                const StreamPtr stream = findStream(first.ip, streamOf(first));
                if (stream) stream->OnRcvBatch(datagrams.first(handled));
            }
            datagrams = datagrams.subspan(handled);
        }
    }

    void tick() {
        try {
            finishTransfersIfNeeded();
        } catch (const std::exception& e) {
            kelo::Log("Images not completed: %s\n", e.what());
        }
    }

    Timer timer_finish_transfers;
    TPacketCommunicator::Ptr PacketCommunicator;  // made by Init
};
