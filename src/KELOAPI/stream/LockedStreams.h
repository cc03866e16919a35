#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>

#include "StreamReceiver.h"

// The streams that a batch of datagrams belongs to, each held and locked once for the whole batch
// instead of once for every datagram.
//
// First they are added, then all are locked; they are unlocked when this is destroyed. No other
// thread ever holds the reception locks of two streams, and this one takes them in the order of
// their addresses.
class LockedStreams {
public:
    LockedStreams() = default;
    LockedStreams(const LockedStreams&) = delete;
    LockedStreams& operator=(const LockedStreams&) = delete;

    bool IsFull() const { return count_ == streams_.size(); }

    void Add(std::shared_ptr<StreamReceiver> stream) { streams_[count_++] = std::move(stream); }

    StreamReceiver* Find(uint32_t ip, uint8_t number) const {
        for (const auto& stream : Added()) {
            if (stream->ip_address == ip && stream->stream_number == number) return stream.get();
        }
        return nullptr;
    }

    bool Contains(const StreamReceiver& stream) const {
        return Find(stream.ip_address, stream.stream_number) != nullptr;
    }

    void Lock() {
        std::sort(streams_.begin(), streams_.begin() + static_cast<std::ptrdiff_t>(count_),
                  [](const auto& a, const auto& b) { return std::less<>()(a.get(), b.get()); });
        for (size_t i = 0; i < count_; ++i)
            locks_[i] = std::unique_lock(streams_[i]->onrcv_mutex);
    }

    std::span<const std::shared_ptr<StreamReceiver>> Added() const {
        return std::span(streams_).first(count_);
    }

private:
    // More than there are in a batch unless many cameras send at once.
    static constexpr size_t kStreamsMax = 16;

    std::array<std::shared_ptr<StreamReceiver>, kStreamsMax> streams_;
    std::array<std::unique_lock<std::mutex>, kStreamsMax> locks_;  // released before the streams
    size_t count_ = 0;
};
