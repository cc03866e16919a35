#include "StreamReceiver.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <utility>

#include <endian.h>

#include "utils.h"

namespace {

// Where a payload goes is not known before its header is read: without this the copy would wait.
void prefetchSecond(std::span<const TDatagram> datagrams) {
    if (datagrams.size() > 1) __builtin_prefetch(datagrams[1].data);
}

// As much as the image has room for.
void copyInto(const BufferInfo& image, uint64_t offset, const unsigned char* data,
              uint64_t length) {
    if (offset >= image.bufferLength) return;
    std::memcpy(imageData(image) + offset, data, std::min(length, image.bufferLength - offset));
}

}  // namespace

StreamReceiver::StreamReceiver(uint32_t ip, uint8_t number)
    : ip_address(ip), stream_number(number), slidingWindow(slidingWindowSize) {}

void StreamReceiver::InitStream(uint8_t stream_format, uint8_t header_format, uint32_t header_size,
                                uint32_t frame_size_max) {
    const std::lock_guard lock(onrcv_mutex);
    finishTransfers();
    streamFormat = stream_format;
    headerFormat = header_format;
    headerSize = header_size;
    maxFrameSize = frame_size_max;

    slidingWindow.assign(slidingWindowSize, false);
    slidingWindowPosition = 0;
    positions_set = 0;
    initializeOnNextPacket = true;
    slidingWindowPositionImageNumber = 0;
    slidingWindowPositionPacketNumber = 0;
    slidingWindowNumberOfPackets = 0;
    refused_images.fill(std::nullopt);
}

void StreamReceiver::OnRcv(uint32_t ip, const void* data, int size, uint16_t) {
    const TDatagram datagram{.ip = ip, .data = data, .length = size};
    OnRcvBatch({&datagram, 1});
}

void StreamReceiver::OnRcvBatch(std::span<const TDatagram> datagrams) {
    const std::lock_guard lock(onrcv_mutex);
    OnRcvLocked(datagrams);
}

void StreamReceiver::OnRcvLocked(std::span<const TDatagram> datagrams) {
    bool received = false;
    while (!datagrams.empty()) {
        prefetchSecond(datagrams);
        size_t taken = takeRun(datagrams);
        if (taken == 0) taken = takeOne(datagrams.front()) ? 1 : 0;
        if (taken > 0 && !std::exchange(received, true)) packet_received_flag = true;
        datagrams = datagrams.subspan(std::max<size_t>(taken, 1));
    }
}

// False for a datagram that is too short.
bool StreamReceiver::takeOne(const TDatagram& datagram) {
    if (datagram.length <= static_cast<int>(sizeof(THeaderImage))) return false;
    const Packet packet = parse(datagram);
    if (isNext(packet)) {
        takeNext(packet);
    } else {
        receive(packet);
    }
    return true;
}

// With several images under reception a late packet may complete one at any moment.
TOutlook StreamReceiver::takeOutlook() {
    TOutlook outlook{
        .until_wanted = 0, .begins = std::exchange(image_begun, false), .wakes = takeWoken()};
    if (receiving_buffers.empty()) return outlook;
    const uint32_t packets = receiving_buffers.front().first.allPacketsAmount;
    if (receiving_buffers.size() == 1 && newest_packet_number < packets) {
        outlook.until_wanted = packets - 1 - newest_packet_number;
    }
    packets_to_come = outlook.until_wanted;
    announceIfDue(outlook.until_wanted);
    return outlook;
}

void StreamReceiver::announceIfDue(uint32_t to_come) {
    const uint32_t received = newest_packet_number + 1;
    if (!isWaitedFor() || !expectation.IsNear(received, to_come)) return;
    if (expectation.IsDue(ImageExpectation::Clock::now(), received, to_come)) announce();
}

StreamReceiver::Packet StreamReceiver::parse(const TDatagram& datagram) {
    const auto header = kelo::CopyRecord<THeaderImage>(datagram.data, sizeof(THeaderImage));
    return {
        .image_number = kelo_ntohl(header.NL_image_number),
        .number = kelo_ntohs(header.NS_current_packet),
        .payload_length = static_cast<uint32_t>(datagram.length) - uint32_t{sizeof(header)},
        .datagram = static_cast<const unsigned char*>(datagram.data),
    };
}

void StreamReceiver::receive(const Packet& packet) {
    while (true) {
        std::optional<Place> place = find(packet.image_number);
        if (!place) place = begin(packet);
        if (!place) return;
        const ReceivingBuffer& receiving = receiving_buffers[place->index];
        if (!isPacketNumberValid(packet, receiving.first.allPacketsAmount)) return;

        const uint32_t distance =
            place->positions_before - slidingWindowPositionPacketNumber + packet.number;
        if (distance < slidingWindowSize) {
            newest_packet_number = std::max(newest_packet_number, uint32_t{packet.number});
            placePayload(packet, *place);
            record(distance);
            advance();
            return;
        }
        // A recovery brings the packet to the window position; it is then placed in a second round.
        if (!recover(distance)) return;
    }
}

// Whether an image is under reception, without gaps so far.
bool StreamReceiver::isWithoutGaps() const {
    return !receiving_buffers.empty() && positions_set == 0 && !tooManyWait();
}

// Whether it is the packet that an empty window waits for, as nearly all are. Then there is nothing
// to look up, and nothing to be recorded that would not be consumed at once.
bool StreamReceiver::isNext(const Packet& packet) const {
    return isWithoutGaps() && packet.number == slidingWindowPositionPacketNumber &&
           packet.image_number == slidingWindowPositionImageNumber;
}

void StreamReceiver::takeNext(const Packet& packet) {
    newest_packet_number = std::max(newest_packet_number, uint32_t{packet.number});
    placePayload(packet, {.index = 0, .positions_before = 0});
    tooNewPackets = 0;
    ++slidingWindowPositionPacketNumber;
    if (slidingWindowPositionPacketNumber >= receiving_buffers.front().first.allPacketsAmount) {
        completeFront(Completion::ByPackets);
    }
}

// The image's and the packet's number as one, which grows by one from packet to packet.
uint64_t StreamReceiver::positionOf(const TDatagram& datagram) {
    static_assert(offsetof(THeaderImage, NL_image_number) == 2);
    static_assert(offsetof(THeaderImage, NS_current_packet) == 6);
    constexpr uint64_t kBothNumbers = (uint64_t{1} << 48) - 1;
    return be64toh(kelo::CopyRecord<uint64_t>(datagram.data, sizeof(uint64_t))) & kBothNumbers;
}

// The packets that follow one another from the one that the window waits for, up to the image's
// last one, in a loop that keeps in registers what is the same for all of them. Returns how many.
size_t StreamReceiver::takeRun(std::span<const TDatagram> datagrams) {
    if (!isWithoutGaps()) return 0;
    auto& [image, metadata] = receiving_buffers.front();
    // Known from the last packet only: the next one still has to make it sure.
    if (!metadata.payloadLengthCorrect) return 0;
    const size_t payload_length = metadata.payloadLength;
    const auto datagram_length = static_cast<int>(sizeof(THeaderImage) + payload_length);
    const uint32_t first = slidingWindowPositionPacketNumber;
    const uint64_t position = uint64_t{slidingWindowPositionImageNumber} << 16 | first;
    const size_t most = std::min<size_t>(datagrams.size(), image.allPacketsAmount - 1u - first);

    size_t taken = 0;
    for (; taken < most; ++taken) {
        const TDatagram& datagram = datagrams[taken];
        prefetchSecond(datagrams.subspan(taken));
        if (datagram.length != datagram_length || positionOf(datagram) != position + taken) break;
        copyInto(image, payload_length * (first + taken),
                 static_cast<const unsigned char*>(datagram.data) + sizeof(THeaderImage),
                 payload_length);
    }
    if (taken == 0) return 0;
    newest_packet_number = std::max(newest_packet_number, static_cast<uint32_t>(first + taken - 1));
    tooNewPackets = 0;
    slidingWindowPositionPacketNumber += static_cast<uint32_t>(taken);
    streamStatistics.bytesReceived += taken * payload_length;
    image.bufferStatistics.bytesReceived += static_cast<UINT32>(taken * payload_length);
    return taken;
}

std::optional<StreamReceiver::Place> StreamReceiver::find(uint32_t image_number) const {
    uint32_t positions_before = 0;
    for (size_t index = 0; index < receiving_buffers.size(); ++index) {
        const BufferInfo& image = receiving_buffers[index].first;
        if (image.imageNumber == image_number) return Place{index, positions_before};
        positions_before += image.allPacketsAmount;
    }
    return std::nullopt;
}

// Puts the packet's image behind the others under reception.
std::optional<StreamReceiver::Place> StreamReceiver::begin(const Packet& packet) {
    // An image without packets has no position in the window: it could never be completed.
    if (packet.count() == 0) {
        isPacketNumberValid(packet, 0);
        return std::nullopt;
    }
    if (isRefused(packet.image_number)) return std::nullopt;

    // Everything that can fail comes before the first change.
    receiving_buffers.reserve(receiving_buffers.size() + 1);
    BufferInfo image{};
    initializeBufferInfo(image, packet);
    unsigned char* data = allocateImage(maxFrameSize);
    if (data == nullptr) {
        refuse(packet.image_number);
        return std::nullopt;
    }
    image.buffer = reinterpret_cast<uintptr_t>(data);
    const bool is_length_correct = packet.number != packet.count() - 1 && packet.count() != 1;
    // Where the packets belong is not known yet: they may be moved, and leave traces.
    if (!is_length_correct) clearImage(image, 0, image.bufferLength);
    const ReceivingBufferMetadata metadata{.payloadLength = packet.payload_length,
                                           .payloadLengthCorrect = is_length_correct,
                                           .cleared = !is_length_correct,
                                           .lastLength = 0};

    if (initializeOnNextPacket) slidingWindowPositionImageNumber = packet.image_number;
    initializeOnNextPacket = false;
    while (receiving_buffers.size() >= kReceivingImagesMax) {
        consume(kAllPositions, Completion::ByPackets);
    }
    if (receiving_buffers.empty()) {
        streamStatistics.imagesSkipped += packet.image_number - slidingWindowPositionImageNumber;
        slidingWindowPositionImageNumber = packet.image_number;
        slidingWindowPositionPacketNumber = 0;
    }
    receiving_buffers.emplace_back(image, metadata);
    image_begun = true;
    expectation.Begin(ImageExpectation::Clock::now());
    newest_packet_number = 0;
    return find(packet.image_number);
}

void StreamReceiver::initializeBufferInfo(BufferInfo& image, const Packet& packet) const {
    image.streamNumber = stream_number;
    image.streamFormat = streamFormat;
    image.headerType = headerFormat;
    image.headerSize = static_cast<uint8_t>(headerSize);
    image.imageWidth = packet.width();
    image.imageHeight = packet.height();
    image.allPacketsAmount = packet.count();
    image.imageNumber = packet.image_number;
    image.bufferLength = maxFrameSize;
}

bool StreamReceiver::isRefused(uint32_t image_number) const {
    return std::find(refused_images.begin(), refused_images.end(), image_number) !=
           refused_images.end();
}

// Nothing that a camera announces may stop the stream: the image is left out, the next one is tried
// again.
void StreamReceiver::refuse(uint32_t image_number) {
    refused_images[next_refused] = image_number;
    next_refused = (next_refused + 1) % refused_images.size();
    kelo::Log("Stream %d: image %u dropped, no buffer of %u bytes can be had.\n", stream_number,
              image_number, maxFrameSize);
}

bool StreamReceiver::isPacketNumberValid(const Packet& packet, uint16_t all_packets) const {
    if (packet.number >= all_packets) {
        kelo::Log("Invalid packet number %d >= %d (all packets for image nr %d).\n", packet.number,
                  all_packets, static_cast<int>(packet.image_number));
        return false;
    }
    if (packet.image_number == slidingWindowPositionImageNumber &&
        packet.number < slidingWindowPositionPacketNumber) {
        kelo::Log(
            "Invalid packet number (too old) %d < %d (sliding window position) (image nr %d).\n",
            packet.number, static_cast<int>(slidingWindowPositionPacketNumber),
            static_cast<int>(packet.image_number));
        return false;
    }
    return true;
}

// A packet lies beyond the window. A few such packets are dropped; when more come with the window
// standing still, what it waits for is not coming any more. True when the window moved.
bool StreamReceiver::recover(uint32_t distance) {
    ++tooNewPackets;
    if (tooNewPackets <= static_cast<uint32_t>(tooNewPacketsSlidingWindowFillThresholdCount)) {
        return false;
    }
    kelo::Log("Too many too new packets received, recovering, moving sliding window.\n");
    // The packet's own image lies behind all these positions, so they never run out of images.
    while (distance > 0)
        distance -= consume(distance, Completion::ByPackets);
    kelo::Log("Sliding window position: img nr %d, packet %d.\n",
              static_cast<int>(slidingWindowPositionImageNumber),
              static_cast<int>(slidingWindowPositionPacketNumber));
    return true;
}

// The packet count that counts is the image's own: a packet that claims another cannot move data
// out of its place.
void StreamReceiver::placePayload(const Packet& packet, const Place& place) {
    auto& [image, metadata] = receiving_buffers[place.index];
    if (packet.payload_length != metadata.payloadLength || !metadata.payloadLengthCorrect ||
        packet.number == image.allPacketsAmount - 1u) {
        makeRoomForOddPacket(packet, place);
    }
    copyInto(image, uint64_t{metadata.payloadLength} * packet.number, packet.payload(),
             packet.payload_length);
    streamStatistics.bytesReceived += packet.payload_length;
    image.bufferStatistics.bytesReceived += packet.payload_length;
}

// For any packet but one in the middle of its image that is as long as the others.
void StreamReceiver::makeRoomForOddPacket(const Packet& packet, const Place& place) {
    auto& [image, metadata] = receiving_buffers[place.index];
    const uint64_t length = image.bufferLength;
    const uint64_t last = image.allPacketsAmount - 1u;
    const bool is_last = packet.number == last;
    if (!metadata.payloadLengthCorrect && !is_last) {
        // Only the last packet has come so far, and was placed as if all were of its length.
        const uint64_t from = last * metadata.payloadLength;
        const uint64_t to = last * packet.payload_length;
        if (from < length && to < length) {
            const uint64_t bytes =
                std::min({uint64_t{metadata.payloadLength}, length - from, length - to});
            std::memmove(imageData(image) + to, imageData(image) + from, bytes);
        }
        metadata.payloadLength = packet.payload_length;
        metadata.payloadLengthCorrect = true;
    }
    const bool fits_its_place = is_last ? packet.payload_length <= metadata.payloadLength
                                        : packet.payload_length == metadata.payloadLength;
    if (!metadata.cleared && !fits_its_place) clearUncovered(place);
    if (is_last) metadata.lastLength = std::max(metadata.lastLength, packet.payload_length);
}

// A packet that is shorter or longer than its place has come: from here on the image is treated as
// one that was cleared before its first packet.
void StreamReceiver::clearUncovered(const Place& place) {
    auto& [image, metadata] = receiving_buffers[place.index];
    const uint64_t payload_length = metadata.payloadLength;
    const uint32_t last = image.allPacketsAmount - 1u;
    for (uint32_t number = 0; number < last; ++number) {
        if (isCovered(place, number)) continue;
        clearImage(image, number * payload_length, (number + 1) * payload_length);
    }
    clearImage(image, last * payload_length + metadata.lastLength, image.bufferLength);
    metadata.cleared = true;
}

// Whether a packet of the image has been received, or written off and its place cleared.
bool StreamReceiver::isCovered(const Place& place, uint32_t number) const {
    if (place.index == 0 && number < slidingWindowPositionPacketNumber) return true;
    const uint32_t distance = place.positions_before - slidingWindowPositionPacketNumber + number;
    if (distance >= slidingWindowSize) return false;
    return slidingWindow[(slidingWindowPosition + distance) % slidingWindowSize];
}

void StreamReceiver::record(uint32_t distance) {
    size_t entry = slidingWindowPosition + distance;
    if (entry >= slidingWindowSize) entry -= slidingWindowSize;
    if (!slidingWindow[entry]) ++positions_set;
    slidingWindow[entry] = true;
    // Without bounds in theory, as duplicates raise it for good.
    if (slidingWindowNumberOfPackets < INT_MAX) ++slidingWindowNumberOfPackets;
}

// Consumes what is contiguous, and writes off gaps while too many arrivals wait behind them.
void StreamReceiver::advance() {
    while (!receiving_buffers.empty() && (slidingWindow[slidingWindowPosition] || tooManyWait())) {
        consume(kAllPositions, Completion::ByPackets);
    }
}

void StreamReceiver::finishTransfersIfNeeded() {
    if (packet_received_flag.exchange(false)) return;
    const std::lock_guard lock(onrcv_mutex);
    finishTransfers();
    packets_to_come = kAllPositions;
}

void StreamReceiver::finishTransfers() {
    while (!receiving_buffers.empty())
        consume(kAllPositions, Completion::Forced);
}

// Consumes the window position, or, when nothing waits in the window, up to positions_max of the
// first image at once: a packet count of 65535 must not cost as many steps. Returns how many.
// There must be an image under reception.
uint32_t StreamReceiver::consume(uint32_t positions_max, Completion how) {
    const BufferInfo& front = receiving_buffers.front().first;
    uint32_t positions = 1;
    if (positions_set == 0) {
        positions =
            std::min(positions_max, front.allPacketsAmount - slidingWindowPositionPacketNumber);
        writeOff(positions);
    } else if (slidingWindow[slidingWindowPosition]) {
        slidingWindow[slidingWindowPosition] = false;
        --positions_set;
        --slidingWindowNumberOfPackets;
    } else {
        writeOff(1);
    }
    // Where an empty window begins makes no difference.
    if (++slidingWindowPosition == slidingWindowSize) slidingWindowPosition = 0;
    slidingWindowPositionPacketNumber += positions;
    tooNewPackets = 0;
    if (slidingWindowPositionPacketNumber >= front.allPacketsAmount) completeFront(how);
    return positions;
}

void StreamReceiver::writeOff(uint32_t packets) {
    auto& [image, metadata] = receiving_buffers.front();
    const uint64_t bytes = uint64_t{packets} * metadata.payloadLength;
    if (!metadata.cleared) {
        const uint64_t begin = uint64_t{slidingWindowPositionPacketNumber} * metadata.payloadLength;
        clearImage(image, begin, begin + bytes);
    }
    streamStatistics.missingPackets += packets;
    streamStatistics.bytesLost += bytes;
    image.bufferStatistics.errorFlag = 1;
    image.bufferStatistics.missingPackets =
        static_cast<UINT16>(image.bufferStatistics.missingPackets + packets);
    image.bufferStatistics.bytesLost += static_cast<UINT32>(bytes);
}

void StreamReceiver::completeFront(Completion how) {
    const auto& [image, metadata] = receiving_buffers.front();
    if (!metadata.cleared) {
        const uint64_t last = image.allPacketsAmount - 1u;
        clearImage(image, last * metadata.payloadLength + metadata.lastLength, image.bufferLength);
    }
    finish(image);
    packets_to_come = image.allPacketsAmount;  // the next image will hardly have fewer
    if (how == Completion::Forced) {
        kelo::Log("Image %d completed (forcefully by timer - no new packets arrived).\n",
                  static_cast<int>(image.imageNumber));
    }
    receiving_buffers.erase(receiving_buffers.begin());

    ++slidingWindowPositionImageNumber;
    slidingWindowPositionPacketNumber = 0;
    if (receiving_buffers.empty()) return;
    const uint32_t next = receiving_buffers.front().first.imageNumber;
    streamStatistics.imagesSkipped += next - slidingWindowPositionImageNumber;
    slidingWindowPositionImageNumber = next;
}
