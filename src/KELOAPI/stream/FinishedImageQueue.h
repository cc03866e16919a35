#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <utility>

#include "CachedAllocator.h"
#include "ImageWatch.h"
#include "ImagesLeftBehind.h"
#include "kelo_types.h"

// The finished images of one stream: the end that UDP and TCP reception share, and the base of both
// per-stream receivers.
//
// A record is complete when it enters the list, never changes there, and its address is the image's
// identity until it is popped. There is no limit on the number of finished images: reception never
// drops one because the application is slow.
//
// Producers are the reception threads, consumers the application's threads. Lock order:
// get_image_mutex or onrcv_mutex, then finished_buffers_mutex.
class FinishedImageQueue {
public:
    FinishedImageQueue(const FinishedImageQueue&) = delete;
    FinishedImageQueue& operator=(const FinishedImageQueue&) = delete;

    uint32_t GetPendingCount();
    bool IsBufferEmpty();

    // The oldest finished image, which stays queued; waits up to timeout milliseconds for one and
    // returns null if none came. One caller at a time waits, the others stand behind it.
    BufferInfo* GetImage(int timeout);

    // Takes the record at that address out and reuses its memory. False when it is not queued.
    bool PopImage(BufferInfo* image);

    void ClearBuffer();
    void ResetStatistics();

    // For good: whoever waits in GetImage leaves at once with null, and nobody waits any more.
    // Queued images are still returned.
    void EndWaits();
    bool WaitsEnded() const { return waits_ended; }

    // Takes out the image that GetImage returned last, unless it has been popped or cleared since.
    // From then on GetImage returns null: what it gave would go with this queue.
    ImageInHand TakeImageInHand();

protected:
    FinishedImageQueue() = default;
    ~FinishedImageQueue();

    // A buffer with whatever its last image left in it, or null when none of that size can be had.
    // Clearing it here would cost as much as filling it: the receivers clear what no data covered.
    unsigned char* allocateImage(uint32_t size);

    // Hands a completed image over: counts it, and gives it the stream's counters of this moment.
    // The caller holds onrcv_mutex; the image's buffer belongs to the queue from here on.
    void finish(BufferInfo image);

    // Whether somebody waits in GetImage who can be told that an image is nearly complete.
    bool isWaitedFor() const { return waiting; }
    // Tells it. The caller holds onrcv_mutex.
    void announce();

    // Whether, since the last call, an image was completed for somebody who was waiting in GetImage
    // and may not have got up yet. The caller holds onrcv_mutex.
    bool takeWoken() { return std::exchange(has_woken, false); }

    CachedAllocator ca;
    std::mutex onrcv_mutex;               // the reception lock of the derived receiver
    StreamStatistics streamStatistics{};  // guarded by onrcv_mutex

private:
    bool has_woken = false;  // guarded by onrcv_mutex
    std::mutex finished_buffers_mutex;
    std::condition_variable cv_wake_getimage;
    std::atomic<bool> wake_getimage{false};  // set under finished_buffers_mutex
    std::atomic<bool> waits_ended{false};    // set under finished_buffers_mutex
    std::atomic<bool> waiting{false};        // in GetImage, and watching is worthwhile
    std::mutex get_image_mutex;              // held by GetImage for its whole run
    ImageWatch watch;                        // guarded by get_image_mutex
    // Guarded by finished_buffers_mutex.
    std::list<BufferInfo> finished_buffers;  // oldest first
    bool front_in_hand = false;              // GetImage has returned the oldest
    bool abandoned = false;                  // TakeImageInHand was called
    bool announced = false;                  // an image is nearly complete
    bool in_wait = false;                    // somebody waits in GetImage

    BufferInfo* HandOutFront();
    void WaitForImage(std::unique_lock<std::mutex>& lock, int timeout);
};

// Clears the image's memory from begin up to end, as far as it goes.
void clearImage(const BufferInfo& image, uint64_t begin, uint64_t end);

// The image's memory.
inline unsigned char* imageData(const BufferInfo& image) {
    return reinterpret_cast<unsigned char*>(static_cast<uintptr_t>(image.buffer));
}
