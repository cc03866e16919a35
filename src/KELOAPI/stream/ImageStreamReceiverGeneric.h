#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <span>

#include "LockedStreams.h"
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

    // A socket that was not to be had so far is tried for again: without one no image would ever
    // arrive, of any camera.
    bool InitCamera(uint32_t, uint8_t, uint32_t, uint16_t) override {
        if (!PacketCommunicator) return true;
        const std::lock_guard lock(mutex_transport);
        if (PacketCommunicator->IsInitialized()) return true;
        PacketCommunicator->StartRxThread();
        if (!PacketCommunicator->IsInitialized()) {
            kelo::Log("No socket for images can be had: no image can arrive over UDP.\n");
        }
        return true;
    }

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

    // One look-up and one lock for all datagrams of a stream.
    TOutlook OnRcvBatch(TPacketCommunicator*, std::span<const TDatagram> datagrams,
                        unsigned short) override {
        TOutlook outlook{};
        try {
            while (!datagrams.empty())
                datagrams = datagrams.subspan(receive(datagrams, outlook));
        } catch (const std::exception& e) {
            kelo::Log("Stream packet dropped: %s\n", e.what());
        }
        return outlook;
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

    static bool hasMagic(const TDatagram& datagram) {
        return bytesOf(datagram)[offsetof(THeaderImage, magic)] == KELO_IMAGE_MAGIC;
    }

    static bool isValid(const TDatagram& datagram) {
        return !isTooSmall(datagram) && hasMagic(datagram);
    }

    static void logInvalid(const TDatagram& datagram) {
        if (isTooSmall(datagram)) {
            kelo::Log("Stream packet too small (less than header size) = %d bytes.\n",
                      datagram.length);
        } else {
            kelo::Log("Wrong stream packet magic number.\n");
        }
    }

    static uint8_t streamOf(const TDatagram& datagram) {
        return bytesOf(datagram)[offsetof(THeaderImage, stream_number)];
    }

    // How many datagrams from the first, valid one on belong to its stream.
    static size_t lengthOfRun(std::span<const TDatagram> datagrams) {
        const TDatagram& first = datagrams.front();
        const auto other =
            std::find_if(datagrams.begin() + 1, datagrams.end(), [&](const TDatagram& datagram) {
                return !isValid(datagram) || datagram.ip != first.ip ||
                       streamOf(datagram) != streamOf(first);
            });
        return static_cast<size_t>(other - datagrams.begin());
    }

    // Handles the datagrams in their order, as far as one set of locked streams goes. Returns how
    // many.
    size_t receive(std::span<const TDatagram> datagrams, TOutlook& outlook) {
        LockedStreams involved;
        const size_t handled = involve(datagrams, involved, outlook);
        datagrams = datagrams.first(handled);
        involved.Lock();
        while (!datagrams.empty()) {
            const TDatagram& first = datagrams.front();
            size_t run = 1;
            if (isValid(first)) {
                run = lengthOfRun(datagrams);
                StreamReceiver* stream = involved.Find(first.ip, streamOf(first));
                if (stream != nullptr) stream->OnRcvLocked(datagrams.first(run));
            } else {
                logInvalid(first);
            }
            datagrams = datagrams.subspan(run);
        }
        for (const StreamPtr& stream : involved.Added()) {
            const TOutlook of_stream = stream->takeOutlook();
            outlook.until_wanted = std::min(outlook.until_wanted, of_stream.until_wanted);
            outlook.begins |= of_stream.begins;
            outlook.wakes |= of_stream.wakes;
        }
        return handled;
    }

    // Finds the streams of the datagrams, and tells for how many datagrams there was room. The
    // outlook becomes that of all the other streams.
    size_t involve(std::span<const TDatagram> datagrams, LockedStreams& involved,
                   TOutlook& outlook) {
        const std::lock_guard lock(mutex_streams);
        size_t handled = 0;
        while (handled < datagrams.size() && !involved.IsFull()) {
            const TDatagram& first = datagrams[handled];
            if (!isValid(first)) {
                ++handled;
                continue;
            }
            if (involved.Find(first.ip, streamOf(first)) == nullptr) {
                const StreamPtr stream = findLocked(first.ip, streamOf(first));
                if (stream) involved.Add(stream);
            }
            handled += lengthOfRun(datagrams.subspan(handled));
        }
        outlook.until_wanted = UINT32_MAX;
        for (const StreamPtr& stream : streams) {
            if (involved.Contains(*stream)) continue;
            outlook.until_wanted = std::min(outlook.until_wanted, stream->packetsToCome());
        }
        return handled;
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
    std::mutex mutex_transport;                   // held while its thread is started
};
