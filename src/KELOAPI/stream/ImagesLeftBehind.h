#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "kelo_types.h"

// An image that an application has in its hands, with its memory, taken out of its stream.
struct ImageInHand {
    std::list<BufferInfo> record;  // one or none; in a list because its address is its identity
    std::unique_ptr<unsigned char[]> memory;
};

// The images that applications were looking at when their camera was lost. A cable is pulled while
// some thread reads an image, and that thread cannot know: the memory must not vanish under it.
//
// At most one image per stream is kept, so what is never given back cannot add up. All operations
// may be called from any thread.
class ImagesLeftBehind {
public:
    // Takes over the stream's image, if there is one, and frees what was kept of the same stream.
    void Keep(uint32_t ip, uint8_t stream, ImageInHand image) noexcept;

    // Frees the image of that address. False when it is none of these.
    bool GiveBack(const void* image);

    // Frees what was kept of the camera.
    void Forget(uint32_t ip);

private:
    struct Entry {
        uint32_t ip;
        uint8_t stream;
        ImageInHand image;
    };

    std::mutex mutex_;
    std::vector<Entry> entries_;     // guarded by mutex_
    std::atomic<size_t> count_ = 0;  // of entries_: most programs never lose a camera
};
