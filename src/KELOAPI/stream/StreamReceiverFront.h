#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "IImageStreamReceiver.h"

// What the two kinds of receiver share: the list of their per-stream receivers, and the way from
// (camera, stream) to a stream's queue of finished images.
//
// A stream is held by the list and by each call that works on it, so it outlives its removal until
// the last such call has left. mutex_streams guards the lists only: it is never held during a call
// that waits, and no stream is destroyed under it.
template <typename Receiver>
class StreamReceiverFront : public IImageStreamReceiver {
public:
    // One after the other: a list of them would need memory, and a camera must be forgotten also
    // when there is none.
    void ExitCamera(uint32_t ip) override {
        while (const StreamPtr removed = takeStreamOf(ip)) {
            // Who waits for an image still holds the stream, and none will come any more.
            removed->EndWaits();
        }
    }

    void LoseCamera(uint32_t ip, ImagesLeftBehind& left_behind) override {
        while (const StreamPtr removed = takeStreamOf(ip)) {
            removed->EndWaits();
            left_behind.Keep(ip, removed->stream_number, removed->TakeImageInHand());
        }
    }

    uint32_t GetPendingCount(uint32_t ip, uint8_t number) override {
        const StreamPtr stream = findStream(ip, number);
        return stream ? stream->GetPendingCount() : 0;
    }

    bool PopImage(uint32_t ip, uint8_t number, BufferInfo* image) override {
        // The memory of an image whose stream is gone went with it: nothing is left to be done.
        const StreamPtr stream = findStream(ip, number);
        return stream ? stream->PopImage(image) : true;
    }

    BufferInfo* GetImage(int timeout, uint32_t ip, uint8_t number) override {
        StreamPtr stream;
        {
            const std::lock_guard lock(mutex_streams);
            stream = findLocked(ip, number);
            if (isClosing(ip)) timeout = 0;
        }
        return stream ? stream->GetImage(timeout) : nullptr;
    }

    void ClearBuffer(uint32_t ip, uint8_t number) override {
        if (const StreamPtr stream = findStream(ip, number)) stream->ClearBuffer();
    }

    void ResetStatistics(uint32_t ip) override {
        std::vector<StreamPtr> of_camera;
        {
            const std::lock_guard lock(mutex_streams);
            std::copy_if(streams.begin(), streams.end(), std::back_inserter(of_camera),
                         [=](const StreamPtr& stream) { return stream->ip_address == ip; });
        }
        for (const StreamPtr& stream : of_camera)
            stream->ResetStatistics();
    }

    bool IsBufferEmpty(uint32_t ip, uint8_t number) override {
        const StreamPtr stream = findStream(ip, number);
        return stream ? stream->IsBufferEmpty() : true;
    }

    void BeginClosing(uint32_t ip) override {
        const std::lock_guard lock(mutex_streams);
        try {
            closing.insert(ip);
        } catch (const std::bad_alloc&) {
            // The camera is closed without the mark: only who begins to wait meanwhile waits until
            // the camera is forgotten.
        }
        endWaits([=](const Receiver& stream) { return stream.ip_address == ip; });
    }

    void EndClosing(uint32_t ip) override {
        const std::lock_guard lock(mutex_streams);
        // One of them: a camera may be closed by two threads.
        if (const auto one = closing.find(ip); one != closing.end()) closing.erase(one);
    }

    void EndAllWaits() override {
        const std::lock_guard lock(mutex_streams);
        closing_all = true;
        endWaits([](const Receiver&) { return true; });
    }

protected:
    using StreamPtr = std::shared_ptr<Receiver>;

    StreamPtr findStream(uint32_t ip, uint8_t number) {
        const std::lock_guard lock(mutex_streams);
        return findLocked(ip, number);
    }

    // With mutex_streams held.
    StreamPtr findLocked(uint32_t ip, uint8_t number) const {
        const auto stream =
            std::find_if(streams.begin(), streams.end(), [=](const StreamPtr& candidate) {
                return candidate->ip_address == ip && candidate->stream_number == number;
            });
        return stream != streams.end() ? *stream : nullptr;
    }

    // Runs start(stream) without a lock, on the stream of that number or on a new one, which is
    // listed when it has started. Closing also ends the waits of a stream that is starting: that
    // one is not listed, as its camera may already have been forgotten.
    template <typename Start>
    void startStream(uint32_t ip, uint8_t number, const Start& start) {
        if (const StreamPtr known = findLiveStream(ip, number)) {
            start(*known);
            return;
        }
        const auto made = std::make_shared<Receiver>(ip, number);
        const Starting starting_now(*this, made);
        start(*made);
        const std::lock_guard lock(mutex_streams);
        if (!made->WaitsEnded() && findLocked(ip, number) == nullptr) streams.push_back(made);
    }

    bool IsClosing(uint32_t ip) {
        const std::lock_guard lock(mutex_streams);
        return isClosing(ip);
    }

    std::mutex mutex_streams;
    std::vector<StreamPtr> streams;  // guarded by mutex_streams; in creation order

private:
    // Keeps a stream among those that are starting, for its own lifetime.
    class Starting {
    public:
        Starting(StreamReceiverFront& front, StreamPtr stream)
            : front_(front), stream_(std::move(stream)) {
            const std::lock_guard lock(front_.mutex_streams);
            front_.starting.push_back(stream_);
        }
        ~Starting() {
            const std::lock_guard lock(front_.mutex_streams);
            std::erase(front_.starting, stream_);
        }
        Starting(const Starting&) = delete;
        Starting& operator=(const Starting&) = delete;

    private:
        StreamReceiverFront& front_;
        const StreamPtr stream_;
    };

    // The stream, unless its camera has been closed since it was made: its waits have ended for
    // good, so it gives way to a new one.
    StreamPtr findLiveStream(uint32_t ip, uint8_t number) {
        StreamPtr stream;
        const std::lock_guard lock(mutex_streams);
        stream = findLocked(ip, number);
        if (stream == nullptr || !stream->WaitsEnded() || isClosing(ip)) return stream;
        std::erase(streams, stream);
        return nullptr;
    }

    // Takes the first stream of the camera off the list; null when there is none.
    StreamPtr takeStreamOf(uint32_t ip) {
        const std::lock_guard lock(mutex_streams);
        const auto found =
            std::find_if(streams.begin(), streams.end(),
                         [=](const StreamPtr& stream) { return stream->ip_address == ip; });
        if (found == streams.end()) return nullptr;
        StreamPtr taken = std::move(*found);
        streams.erase(found);
        return taken;
    }

    // With mutex_streams held, as endWaits.
    bool isClosing(uint32_t ip) const { return closing_all || closing.count(ip) != 0; }

    template <typename Predicate>
    void endWaits(const Predicate& matches) {
        for (const auto* list : {&streams, &starting}) {
            for (const StreamPtr& stream : *list) {
                if (matches(*stream)) stream->EndWaits();
            }
        }
    }

    // Guarded by mutex_streams.
    std::vector<StreamPtr> starting;
    std::multiset<uint32_t> closing;
    bool closing_all = false;
};
