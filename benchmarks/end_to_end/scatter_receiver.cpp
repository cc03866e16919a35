// Lets the kernel write payloads to where they are expected to belong in the frame.
#include <algorithm>
#include <vector>

#include <sys/socket.h>

#include "../support/big_endian.h"
#include "frame_pair.h"
#include "loop_receiver.h"

namespace kelo::bench {
namespace {

constexpr size_t MESSAGES = 8;
constexpr size_t MESSAGE_MAX = 65536;

// Expects the stream to go on where it stopped, with messages of as many datagrams as the last one.
// Where it does, each payload is written once, by the kernel. Where it does not, the whole batch is
// read out and put to its places again.
class ScatterReceiver final : public LoopReceiver {
public:
    explicit ScatterReceiver(const ReceiverSetup& setup);

private:
    struct Message {
        std::vector<std::byte> headers;
        std::vector<iovec> parts;  // header, payload, header, payload, ..., overflow
        alignas(cmsghdr) std::byte control[CMSG_SPACE(sizeof(int))];
        Position at;    // expected of the first datagram
        size_t places;  // datagrams for which there are places
        std::vector<std::byte> overflow = std::vector<std::byte>(MESSAGE_MAX);
    };

    bool Receive() override;
    void BeginRun(Latencies& latencies) override { frames_.Begin(latencies); }
    const Received& Counts() const override { return frames_.Counts(); }

    void Expect();
    void ExpectMessage(size_t i, Position at);
    bool AllAsExpected(size_t count) const;
    bool AsExpected(size_t i) const;
    size_t Datagrams(size_t i) const;
    void Accept(size_t i);
    void ReadOut(size_t i, std::vector<std::byte>& bytes) const;
    void PlaceAnew(size_t count);
    void Learn(size_t count);

    const size_t datagram_;
    const size_t payload_;
    const size_t places_max_;
    FramePair frames_;
    std::vector<Message> messages_;
    std::vector<mmsghdr> calls_;
    std::vector<std::byte> read_out_[MESSAGES];
    Position next_{};
    size_t per_message_;  // datagrams that messages lately have had
};

ScatterReceiver::ScatterReceiver(const ReceiverSetup& setup)
    : datagram_(setup.traffic.datagram_size),
      payload_(setup.traffic.PayloadSize()),
      places_max_(MESSAGE_MAX / datagram_),
      frames_(setup),
      messages_(MESSAGES),
      calls_(MESSAGES),
      per_message_(places_max_) {
    socket_.SetReceiveTimeout();
    socket_.AllowMerging();
    for (Message& message : messages_) {
        message.headers.resize(places_max_ * IMAGE_HEADER_SIZE);
        message.parts.resize(2 * places_max_ + 1);
    }
    for (auto& bytes : read_out_)
        bytes.reserve(MESSAGE_MAX);
}

void ScatterReceiver::Expect() {
    Position at = next_;
    for (size_t i = 0; i < MESSAGES; ++i) {
        ExpectMessage(i, at);
        at = frames_.Advance(at, messages_[i].places);
    }
}

void ScatterReceiver::ExpectMessage(size_t i, Position at) {
    Message& message = messages_[i];
    message.at = at;
    message.places = std::min(per_message_, frames_.Packets() - at.packet);
    for (size_t j = 0; j < message.places; ++j) {
        message.parts[2 * j] = {&message.headers[j * IMAGE_HEADER_SIZE], IMAGE_HEADER_SIZE};
        message.parts[2 * j + 1] = {frames_.Place({at.image, at.packet + j}), payload_};
    }
    message.parts[2 * message.places] = {message.overflow.data(), MESSAGE_MAX};
    msghdr& header = calls_[i].msg_hdr;
    header = {};
    header.msg_iov = message.parts.data();
    header.msg_iovlen = 2 * message.places + 1;
    header.msg_control = message.control;
    header.msg_controllen = sizeof message.control;
}

// Of a message that holds full ones and at most a shorter last one.
size_t ScatterReceiver::Datagrams(size_t i) const {
    return (calls_[i].msg_len + datagram_ - 1) / datagram_;
}

bool ScatterReceiver::AsExpected(size_t i) const {
    const Message& message = messages_[i];
    const std::byte* header = message.headers.data();
    return Datagrams(i) <= message.places && Get16(header + 6) == message.at.packet &&
           Get32(header + 2) % 2 == message.at.image % 2;
}

// All but the last message must be full, or those behind it are off.
bool ScatterReceiver::AllAsExpected(size_t count) const {
    for (size_t i = 0; i < count; ++i) {
        if (!AsExpected(i)) return false;
        if (i + 1 < count && Datagrams(i) != messages_[i].places) return false;
    }
    return true;
}

void ScatterReceiver::Accept(size_t i) {
    const Message& message = messages_[i];
    size_t left = calls_[i].msg_len;
    for (size_t j = 0; left > 0; ++j) {
        const size_t size = std::min(left, datagram_);
        frames_.Note(&message.headers[j * IMAGE_HEADER_SIZE], size - IMAGE_HEADER_SIZE);
        left -= size;
    }
}

void ScatterReceiver::ReadOut(size_t i, std::vector<std::byte>& bytes) const {
    bytes.clear();
    size_t left = calls_[i].msg_len;
    for (size_t part = 0; left > 0; ++part) {
        const iovec& place = messages_[i].parts[part];
        const size_t size = std::min(left, place.iov_len);
        const auto* from = static_cast<const std::byte*>(place.iov_base);
        bytes.insert(bytes.end(), from, from + size);
        left -= size;
    }
}

// What was written too far ahead is overwritten when it comes.
void ScatterReceiver::PlaceAnew(size_t count) {
    // All are read out before the first is placed: they may lie on each other's places.
    for (size_t i = 0; i < count; ++i)
        ReadOut(i, read_out_[i]);
    for (size_t i = 0; i < count; ++i) {
        const std::vector<std::byte>& bytes = read_out_[i];
        for (size_t at = 0; at < bytes.size(); at += datagram_) {
            frames_.Take(&bytes[at], std::min(datagram_, bytes.size() - at));
        }
    }
}

// An image's last message says nothing: it is as long as what was left.
void ScatterReceiver::Learn(size_t count) {
    if (count == 1 && next_.packet == 0) return;
    size_t most = 1;
    for (size_t i = 0; i < count; ++i)
        most = std::max(most, Datagrams(i));
    per_message_ = std::min(most, places_max_);
}

bool ScatterReceiver::Receive() {
    Expect();
    const int received = recvmmsg(socket_.Get(), calls_.data(), MESSAGES, MSG_WAITFORONE, nullptr);
    if (received <= 0) return false;
    const auto count = static_cast<size_t>(received);
    if (AllAsExpected(count)) {
        for (size_t i = 0; i < count; ++i)
            Accept(i);
    } else {
        PlaceAnew(count);
    }
    next_ = frames_.Next();
    Learn(count);
    return true;
}

}  // namespace

std::unique_ptr<Receiver> MakeScatterReceiver(const ReceiverSetup& setup) {
    return std::make_unique<ScatterReceiver>(setup);
}

}  // namespace kelo::bench
