#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>

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

    void OnRcv(TPacketCommunicator*, uint32_t ip, const void* data, int size,
               unsigned short port) override {
        try {
            receive(ip, static_cast<const unsigned char*>(data), size, port);
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

    void receive(uint32_t ip, const unsigned char* data, int size, uint16_t port) {
        // A datagram without payload is of no use; a negative size counts as a large one.
        if (static_cast<unsigned>(size) <= sizeof(THeaderImage)) {
            kelo::Log("Stream packet too small (less than header size) = %d bytes.\n", size);
            return;
        }
        if (data[offsetof(THeaderImage, magic)] != KELO_IMAGE_MAGIC) {
            kelo::Log("Wrong stream packet magic number.\n");
            return;
        }
        const StreamPtr stream = findStream(ip, data[offsetof(THeaderImage, stream_number)]);
        if (stream) stream->OnRcv(ip, data, size, port);
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
