#include "FinishedImageQueue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>

#include "utils.h"

namespace {

// The allocator's largest block; a request above it would get less than it asks for.
constexpr uint32_t kImageBytesMax = uint32_t{1} << 31;

}  // namespace

FinishedImageQueue::~FinishedImageQueue() {
    EndWaits();
    // A GetImage that is on its way out still uses the list.
    { const std::lock_guard leaving(get_image_mutex); }
    ClearBuffer();
}

uint32_t FinishedImageQueue::GetPendingCount() {
    const std::lock_guard lock(finished_buffers_mutex);
    return static_cast<uint32_t>(finished_buffers.size());
}

bool FinishedImageQueue::IsBufferEmpty() {
    const std::lock_guard lock(finished_buffers_mutex);
    return finished_buffers.empty();
}

BufferInfo* FinishedImageQueue::GetImage(int timeout) {
    // The steady clock: setting the system's time must not lengthen a wait.
    const std::lock_guard one_at_a_time(get_image_mutex);
    std::unique_lock lock(finished_buffers_mutex);
    if (!finished_buffers.empty() || timeout <= 0) return HandOutFront();

    WaitForImage(lock, timeout);
    // The image that woke this call may have been cleared since.
    return HandOutFront();
}

// Holding lock, which is of finished_buffers_mutex, but while it waits.
void FinishedImageQueue::WaitForImage(std::unique_lock<std::mutex>& lock, int timeout) {
    const auto woken = [this] { return wake_getimage || waits_ended; };
    const auto begin = std::chrono::steady_clock::now();
    const auto deadline = begin + std::chrono::milliseconds(timeout);
    wake_getimage = false;
    announced = false;
    in_wait = true;
    waiting = watch.IsWorthwhile(begin);
    while (cv_wake_getimage.wait_until(lock, deadline, [&] { return woken() || announced; })) {
        if (woken()) break;
        announced = false;
        lock.unlock();
        watch.Watch(woken, deadline);
        lock.lock();
    }
    waiting = false;
    in_wait = false;
    wake_getimage = false;
}

void FinishedImageQueue::announce() {
    {
        const std::lock_guard lock(finished_buffers_mutex);
        announced = true;
    }
    cv_wake_getimage.notify_one();
}

// With finished_buffers_mutex held.
BufferInfo* FinishedImageQueue::HandOutFront() {
    if (finished_buffers.empty() || abandoned) return nullptr;
    front_in_hand = true;
    return &finished_buffers.front();
}

ImageInHand FinishedImageQueue::TakeImageInHand() {
    ImageInHand image;
    const std::lock_guard lock(finished_buffers_mutex);
    abandoned = true;
    if (!front_in_hand) return image;
    front_in_hand = false;
    image.record.splice(image.record.begin(), finished_buffers, finished_buffers.begin());
    image.memory = ca.give_up(imageData(image.record.front()));
    return image;
}

bool FinishedImageQueue::PopImage(BufferInfo* image) {
    const std::lock_guard lock(finished_buffers_mutex);
    const auto record = std::find_if(finished_buffers.begin(), finished_buffers.end(),
                                     [=](const BufferInfo& queued) { return &queued == image; });
    if (record == finished_buffers.end()) {
        kelo::Log("PopImage: corresponding image buffer was not found, popimage failed\n");
        return false;
    }
    if (record == finished_buffers.begin()) front_in_hand = false;
    ca.deallocate(imageData(*record));
    finished_buffers.erase(record);
    return true;
}

void FinishedImageQueue::ClearBuffer() {
    const std::lock_guard lock(finished_buffers_mutex);
    for (const BufferInfo& image : finished_buffers)
        ca.deallocate(imageData(image));
    finished_buffers.clear();
    front_in_hand = false;
}

void FinishedImageQueue::ResetStatistics() {
    const std::lock_guard lock(onrcv_mutex);
    streamStatistics = {};
}

void FinishedImageQueue::EndWaits() {
    {
        const std::lock_guard lock(finished_buffers_mutex);
        waits_ended = true;
        wake_getimage = true;
    }
    cv_wake_getimage.notify_all();
}

unsigned char* FinishedImageQueue::allocateImage(uint32_t size) {
    if (size == 0 || size > kImageBytesMax) return nullptr;
    try {
        return ca.allocate(size);
    } catch (const std::exception&) {
        return nullptr;
    }
}

void FinishedImageQueue::finish(BufferInfo image) {
    streamStatistics.imagesReceived += 1;
    image.streamStatistics = streamStatistics;
    try {
        const std::lock_guard lock(finished_buffers_mutex);
        finished_buffers.push_back(image);
        has_woken |= in_wait;
        wake_getimage = true;
    } catch (const std::exception&) {
        // Reception must go on, in step, when there is no memory left even for the record.
        kelo::Log("Image %u dropped: no memory to queue it.\n", image.imageNumber);
        ca.deallocate(imageData(image));
        return;
    }
    cv_wake_getimage.notify_one();
}

void clearImage(const BufferInfo& image, uint64_t begin, uint64_t end) {
    end = std::min(end, uint64_t{image.bufferLength});
    if (begin < end) std::memset(imageData(image) + begin, 0, end - begin);
}
