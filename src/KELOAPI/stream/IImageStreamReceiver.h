#pragma once

#include <cstdint>

#include "ImagesLeftBehind.h"
#include "kelo_types.h"

// The manager's only view of image reception: streams keyed by (camera address in host order,
// stream number). There is one receiver for UDP and one for TCP. All operations may be called from
// any thread.
class IImageStreamReceiver {
public:
    virtual ~IImageStreamReceiver() = default;

    // Creates transport resources; true on success.
    virtual bool Init() = 0;
    // Releases what Init made, where it does not belong to the object's lifetime.
    virtual void Exit() = 0;
    // Prepares for a camera: its address, stream count, wanted buffers per stream, TCP stream port.
    virtual bool InitCamera(uint32_t ip, uint8_t stream_count, uint32_t buffer_count,
                            uint16_t tcp_port) = 0;
    // Forgets every stream of a camera; images of it that are still held become invalid.
    virtual void ExitCamera(uint32_t ip) = 0;

    // Finished images of the stream that wait to be popped.
    virtual uint32_t GetPendingCount(uint32_t ip, uint8_t stream) = 0;
    // Gives an image back. True also when the stream is not known.
    virtual bool PopImage(uint32_t ip, uint8_t stream, BufferInfo* image) = 0;
    // The oldest finished image, which stays queued; waits up to timeout milliseconds, null if
    // none.
    virtual BufferInfo* GetImage(int timeout, uint32_t ip, uint8_t stream) = 0;
    // Drops every finished image of the stream.
    virtual void ClearBuffer(uint32_t ip, uint8_t stream) = 0;

    // Creates the stream's receiver, or restarts it.
    virtual void InitStream(uint32_t ip, uint8_t stream, uint8_t streamFormat, uint8_t headerFormat,
                            uint32_t headerSize, uint32_t maxFrameSize) = 0;
    // Zeroes the counters of every stream of the camera.
    virtual void ResetStatistics(uint32_t ip) = 0;
    virtual bool IsBufferEmpty(uint32_t ip, uint8_t stream) = 0;
    // The local port that cameras must send to; 0 when the camera is the one that listens.
    virtual uint16_t GetStreamPort() = 0;

    // A camera is being closed: from here to EndClosing nobody waits for its images, and no
    // connection to it is attempted or waited for. Its present streams never wait again. For
    // receivers that wait; the others need none of the three.
    virtual void BeginClosing(uint32_t /*ip*/) {}
    virtual void EndClosing(uint32_t /*ip*/) {}
    // The library is being released: the same for every camera, for good.
    virtual void EndAllWaits() {}
    // As ExitCamera, for a camera that the library gives up by itself: the image of each stream
    // that the application has in its hands is left behind.
    virtual void LoseCamera(uint32_t ip, ImagesLeftBehind& /*left_behind*/) { ExitCamera(ip); }
};

// Stands for the absence of a receiver of a kind: every operation does nothing.
class NullImageStreamReceiver : public IImageStreamReceiver {
public:
    bool Init() override { return false; }
    void Exit() override {}
    bool InitCamera(uint32_t, uint8_t, uint32_t, uint16_t) override { return false; }
    void ExitCamera(uint32_t) override {}
    uint32_t GetPendingCount(uint32_t, uint8_t) override { return 0; }
    bool PopImage(uint32_t, uint8_t, BufferInfo*) override { return false; }
    BufferInfo* GetImage(int, uint32_t, uint8_t) override { return nullptr; }
    void ClearBuffer(uint32_t, uint8_t) override {}
    void InitStream(uint32_t, uint8_t, uint8_t, uint8_t, uint32_t, uint32_t) override {}
    void ResetStatistics(uint32_t) override {}
    bool IsBufferEmpty(uint32_t, uint8_t) override { return false; }
    uint16_t GetStreamPort() override { return 0; }

    bool IsAvailable() { return false; }
};
