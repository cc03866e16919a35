#include "ImagesLeftBehind.h"

#include <algorithm>
#include <new>
#include <utility>

void ImagesLeftBehind::Keep(uint32_t ip, uint8_t stream, ImageInHand image) noexcept {
    if (image.record.empty()) return;
    const std::lock_guard lock(mutex_);
    const auto known = std::find_if(entries_.begin(), entries_.end(), [=](const Entry& entry) {
        return entry.ip == ip && entry.stream == stream;
    });
    if (known != entries_.end()) {
        known->image = std::move(image);
        return;
    }
    try {
        entries_.push_back({ip, stream, std::move(image)});
        count_ = entries_.size();
    } catch (const std::bad_alloc&) {
        // Not even room for the entry: the image goes with its stream.
    }
}

bool ImagesLeftBehind::GiveBack(const void* image) {
    if (count_ == 0) return false;
    const std::lock_guard lock(mutex_);
    const auto removed = std::erase_if(
        entries_, [=](const Entry& entry) { return &entry.image.record.front() == image; });
    count_ = entries_.size();
    return removed != 0;
}

void ImagesLeftBehind::Forget(uint32_t ip) {
    const std::lock_guard lock(mutex_);
    std::erase_if(entries_, [=](const Entry& entry) { return entry.ip == ip; });
    count_ = entries_.size();
}
