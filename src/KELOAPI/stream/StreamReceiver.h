#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "FinishedImageQueue.h"
#include "ImageExpectation.h"
#include "TPacketCommunicator.h"
#include "img_common.h"
#include "utils.h"

// Puts the datagrams of one camera's stream together into whole images.
//
// Passive: it has no socket and no thread. Datagrams come in by OnRcv, the passing of time by
// finishTransfersIfNeeded, and completed images leave through the queue. It looks at a clock only
// to tell who waits that an image is nearly complete. Any thread may call; each call holds
// onrcv_mutex for its whole work.
//
// The packets of all images under reception, laid end to end, form one line of positions. The
// window position is the next one to be consumed, and always lies in the first image under
// reception. A circular map tells which of the 2048 positions from there on have been received;
// what lies farther away is "too new". A position is consumed when its packet has come, or is
// written off as lost; an image whose last position is consumed is complete.
//
// Invariants, whenever onrcv_mutex is free:
//  1. With images under reception, the first one's number is slidingWindowPositionImageNumber and
//     slidingWindowPositionPacketNumber is below its packet count.
//  2. Every position that is set in the window lies within an image under reception.
//  3. There are at most kReceivingImagesMax images under reception.
class StreamReceiver : public FinishedImageQueue {
public:
    // ip in host order.
    StreamReceiver(uint32_t ip, uint8_t stream_number);

    // (Re)starts reception: completes the images under reception and waits for the packet that sets
    // the window position. Statistics and finished images stay.
    void InitStream(uint8_t streamFormat, uint8_t headerFormat, uint32_t headerSize,
                    uint32_t maxFrameSize);

    // One datagram that is longer than the image header and begins with its magic number.
    void OnRcv(uint32_t ip, const void* data, int size, uint16_t port);

    // Several of them, with one lock.
    void OnRcvBatch(std::span<const TDatagram> datagrams);
    // The same for a caller that holds onrcv_mutex.
    void OnRcvLocked(std::span<const TDatagram> datagrams);

    // What is to be expected after what was received since the last call, while an image is under
    // reception. The caller holds onrcv_mutex.
    TOutlook takeOutlook();

    // So many packets are still to come before the stream hands an image over, as far as can be
    // told without a lock; UINT32_MAX while none come at all.
    uint32_t packetsToCome() const { return packets_to_come; }

    // The tick: completes all images under reception if no packet came since the last tick.
    void finishTransfersIfNeeded();

    // Completes all images under reception. The caller holds onrcv_mutex.
    void finishTransfers();
    using FinishedImageQueue::onrcv_mutex;

    const uint32_t ip_address;
    const uint8_t stream_number;

private:
    struct ReceivingBufferMetadata {
        uint32_t payloadLength;     // payload bytes per packet that are assumed for placing
        bool payloadLengthCorrect;  // taken from a packet that is not the image's last
        // Whether what no packet covered has been cleared already; otherwise that is done packet by
        // packet, when each is written off, and at the image's end.
        bool cleared;
        uint32_t lastLength;  // payload bytes of the last packet, 0 until it has come
    };
    using ReceivingBuffer = std::pair<BufferInfo, ReceivingBufferMetadata>;

    // A datagram, with what every packet is asked for in host order. What only an image's first one
    // is asked for stays in the header: this is made for each packet.
    struct Packet {
        uint32_t image_number;
        uint16_t number;
        uint32_t payload_length;
        const unsigned char* datagram;

        const unsigned char* payload() const { return datagram + sizeof(THeaderImage); }
        uint16_t count() const { return kelo_ntohs(header().NS_all_packets); }
        uint16_t width() const { return kelo_ntohs(header().NS_image_width); }
        uint16_t height() const { return kelo_ntohs(header().NS_image_height); }

    private:
        THeaderImage header() const {
            return kelo::CopyRecord<THeaderImage>(datagram, sizeof(THeaderImage));
        }
    };

    // An image under reception and how many positions the images before it take up.
    struct Place {
        size_t index;
        uint32_t positions_before;
    };

    enum class Completion { ByPackets, Forced };

    // With so many images under reception the oldest one is completed before another begins. A
    // camera that numbers its packets properly stays below 420: more than 409 arrivals behind a gap
    // close it. Only packets that are never recorded in the window (out of their image's range, or
    // too new) could make more, and each takes a whole frame of memory.
    static constexpr size_t kReceivingImagesMax = 512;
    static constexpr uint32_t kAllPositions = UINT32_MAX;

    void announceIfDue(uint32_t to_come);
    static Packet parse(const TDatagram& datagram);

    static uint64_t positionOf(const TDatagram& datagram);

    size_t takeRun(std::span<const TDatagram> datagrams);
    bool takeOne(const TDatagram& datagram);
    void receive(const Packet& packet);
    bool isWithoutGaps() const;
    bool isNext(const Packet& packet) const;
    void takeNext(const Packet& packet);
    std::optional<Place> find(uint32_t image_number) const;
    std::optional<Place> begin(const Packet& packet);
    void initializeBufferInfo(BufferInfo& image, const Packet& packet) const;
    void refuse(uint32_t image_number);
    bool isRefused(uint32_t image_number) const;
    bool isPacketNumberValid(const Packet& packet, uint16_t all_packets) const;
    bool recover(uint32_t distance);
    void placePayload(const Packet& packet, const Place& place);
    void makeRoomForOddPacket(const Packet& packet, const Place& place);
    void clearUncovered(const Place& place);
    bool isCovered(const Place& place, uint32_t number) const;
    void record(uint32_t distance);
    void advance();
    bool tooManyWait() const { return slidingWindowNumberOfPackets > waitingPacketsMax; }
    uint32_t consume(uint32_t positions_max, Completion how);
    void writeOff(uint32_t packets);
    void completeFront(Completion how);

    // Tuning values.
    const size_t slidingWindowSize = 2048;
    const double missingPacketsSlidingWindowFillThreshold = 0.2;
    const int tooNewPacketsSlidingWindowFillThresholdCount = 5;
    // The most arrivals that wait behind a gap without its being written off.
    const int waitingPacketsMax = static_cast<int>(static_cast<double>(slidingWindowSize) *
                                                   missingPacketsSlidingWindowFillThreshold);

    // Guarded by onrcv_mutex.
    std::vector<ReceivingBuffer> receiving_buffers;  // in the order of their first packets
    std::vector<bool> slidingWindow;                 // circular: received and not yet consumed
    size_t slidingWindowPosition = 0;                // index of the window position's entry
    size_t positions_set = 0;                        // entries of slidingWindow that are set
    bool initializeOnNextPacket = false;
    uint32_t slidingWindowPositionImageNumber = 0;
    uint32_t slidingWindowPositionPacketNumber = 0;
    int slidingWindowNumberOfPackets = 0;  // arrivals, so a duplicate counts twice: it stays above
                                           // positions_set from then on
    uint32_t tooNewPackets = 0;            // since the window last moved
    uint8_t streamFormat = 0;
    uint8_t headerFormat = 0;
    uint32_t headerSize = 0;
    uint32_t maxFrameSize = 0;
    // The last images that no buffer could be had for, so that each is logged once only.
    std::array<std::optional<uint32_t>, 4> refused_images;
    size_t next_refused = 0;

    uint32_t newest_packet_number = 0;  // of the last image that a packet came for
    bool image_begun = false;           // since the last takeOutlook
    ImageExpectation expectation;       // of the image that was begun last

    std::atomic<bool> packet_received_flag{false};
    std::atomic<uint32_t> packets_to_come{kAllPositions};  // set under onrcv_mutex
};
