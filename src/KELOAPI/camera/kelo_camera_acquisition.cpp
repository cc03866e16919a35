// Acquisition control and image access of a camera session.

#include <algorithm>
#include <cstdio>

#include "ScopedFlag.h"
#include "SigpipeBlock.h"
#include "kelo_registers.h"
#include "manager_access.h"
#include "stream_mask.h"
#include "utils.h"

namespace {

constexpr uint8_t kRunLengthFormat = 0x24;
constexpr uint32_t kActivate = 0xFFFFFFFF;
constexpr int kReceiversMissingPauseMs = 100;
constexpr int kSettlePauseMs = 100;
constexpr int kRetryPauseMs = 500;
// Streams that the camera does not use still get a receiver, with a frame that costs nothing.
constexpr uint32_t kUnusedFrameSize = 32;
constexpr int kDecodeWaitMs = 1000;
constexpr uint32_t kRunLengthDataMin = 8;

// The register block of one stream.
constexpr uint32_t kStreamBlockSize = REG_STREAM1_FORMAT - REG_STREAM0_FORMAT;
constexpr uint32_t kFrameSizeOffset = REG_STREAM0_FRAME_SIZE - REG_STREAM0_FORMAT;
constexpr uint32_t kHeaderFormatOffset = REG_STREAM0_HEADER_FORMAT - REG_STREAM0_FORMAT;
constexpr uint32_t kHeaderSizeOffset = REG_STREAM0_HEADER_SIZE - REG_STREAM0_FORMAT;
constexpr uint32_t kOptionsOffset = REG_STREAM0_OPTIONS - REG_STREAM0_FORMAT;

}  // namespace

struct KELOCamera::StreamSetup {
    uint8_t format = 0;
    uint8_t header_format = 0;
    uint8_t header_size = 0;
    uint32_t frame_size = 0;
    bool use_tcp = false;
};

bool KELOCamera::GetImageAcquisitionOK() {
    return ImageReceiverReady();
}

KELO_API_STATUS KELOCamera::StartAcquisition() {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::StartAcquisition");
    if (!ImageReceiverReady()) {
        kelo::Sleep(kReceiversMissingPauseMs);
        return KELO_STATUS_ERROR;
    }
    WithManager([&](KELOManager& manager) { manager.ResetStatistics(GetIP()); });
    const KELO_API_STATUS status = SetUpStreams();
    if (status != KELO_STATUS_SUCCESS) return status;
    return ActivateAcquisition();
}

KELO_API_STATUS KELOCamera::SetUpStreams() {
    const ScopedFlag starting(starting_acquisition);
    uint32_t mask = 0;
    if (getRegisterValue(REG_USED_STREAMS_MASK, mask) != KELO_STATUS_SUCCESS) {
        return KELO_STATUS_ERROR;
    }
    m_usedStreams = StreamCountOfMask(mask);
    for (uint8_t stream = 0; stream < m_usedStreams; ++stream) {
        StreamSetup setup;
        const KELO_API_STATUS status = ReadStreamSetup(stream, static_cast<uint8_t>(mask), setup);
        if (status != KELO_STATUS_SUCCESS) return status;
        WithManager([&](KELOManager& manager) {
            manager.InitStream(GetIP(), stream, setup.format, setup.header_format,
                               setup.header_size, setup.frame_size, setup.use_tcp);
        });
    }
    return KELO_STATUS_SUCCESS;
}

KELO_API_STATUS KELOCamera::ReadStreamSetup(uint8_t stream, uint8_t used_streams_mask,
                                            StreamSetup& setup) {
    const uint32_t base = REG_STREAM0_FORMAT + kStreamBlockSize * stream;
    uint32_t format = 0;
    uint32_t header_size = 0;
    uint32_t header_format = 0;
    uint32_t frame_size = 0;
    if (getRegisterValue(base, format) != KELO_STATUS_SUCCESS ||
        getRegisterValue(base + kHeaderSizeOffset, header_size) != KELO_STATUS_SUCCESS ||
        getRegisterValue(base + kHeaderFormatOffset, header_format) != KELO_STATUS_SUCCESS ||
        getRegisterValue(base + kFrameSizeOffset, frame_size) != KELO_STATUS_SUCCESS) {
        return KELO_STATUS_ERROR;
    }
    const bool used = (used_streams_mask >> stream & 1) != 0;
    setup = {.format = static_cast<uint8_t>(format),
             .header_format = static_cast<uint8_t>(header_format),
             .header_size = static_cast<uint8_t>(header_size),
             .frame_size = used ? frame_size : kUnusedFrameSize,
             .use_tcp = ReadUseTcp(base + kOptionsOffset)};
    return KELO_STATUS_SUCCESS;
}

// A camera that once refused the options register is never asked again: old ones do not have it,
// and each refusal would cost a log line per stream and start.
bool KELOCamera::ReadUseTcp(uint32_t options_register) {
    if (streamOptionsRead && !streamOptionsAvailable) return false;
    uint32_t options = 0;
    const bool available = getRegisterValue(options_register, options) == KELO_STATUS_SUCCESS;
    if (!streamOptionsRead) {
        streamOptionsRead = true;
        streamOptionsAvailable = available;
    }
    return available && (options & STREAM_OPTIONS_USE_TCP) != 0;
}

KELO_API_STATUS KELOCamera::ActivateAcquisition() {
    kelo::Sleep(kSettlePauseMs);
    if (setRegisterConst(REG_ACQUISITIONSTART, kActivate) == KELO_STATUS_SUCCESS) {
        return KELO_STATUS_SUCCESS;
    }
    // A camera that is still busy with an earlier acquisition refuses; stopping it first helps.
    kelo::Sleep(kRetryPauseMs);
    (void)setRegisterConst(REG_ACQUISITIONSTOP, kActivate);
    kelo::Sleep(kRetryPauseMs);
    const KELO_API_STATUS status = setRegisterConst(REG_ACQUISITIONSTART, kActivate);
    if (status == KELO_STATUS_SUCCESS) return KELO_STATUS_SUCCESS;

    kelo::Sleep(kRetryPauseMs);
    // Printed also while logging is off, by design: without it nothing would tell why no image
    // comes.
    {
        const kelo::SigpipeBlock output_may_be_gone;
        printf("REG_ACQUISITIONSTART (%d) in the camera could not be activated!\n",
               static_cast<int>(status));
        fflush(stdout);
    }
    StopAcquisition();
    return status;
}

KELO_API_STATUS KELOCamera::StopAcquisition() {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::StopAcquisition");
    if (ImageReceiverReady()) (void)setRegisterConst(REG_ACQUISITIONSTOP, kActivate);
    return KELO_STATUS_SUCCESS;
}

uint32_t KELOCamera::GetPendingImageCount(uint8_t streamNumber) {
    if (!isOpened) return 0;
    return WithManager(uint32_t{0}, [&](KELOManager& manager) {
        return manager.GetPendingCount(GetIP(), streamNumber);
    });
}

TImageBuffer* KELOCamera::GetNextImage(uint8_t streamNumber) {
    if (!isOpened || IsBufferEmpty(streamNumber)) return nullptr;
    return GetNextImage(streamNumber, 0);
}

TImageBuffer* KELOCamera::GetNextImage(uint8_t streamNumber, int timeout_msec) {
    if (!isOpened) return nullptr;
    BufferInfo* image = WithManager(static_cast<BufferInfo*>(nullptr), [&](KELOManager& manager) {
        return manager.GetImage(timeout_msec, GetIP(), streamNumber);
    });
    return static_cast<TImageBuffer*>(image);
}

TImageBuffer* KELOCamera::GetNextDecodedImage(uint8_t streamNumber, void* pDecodedBuffer,
                                              int header_size, int bufferSize, int* status) {
    if (header_size < 0 || bufferSize < 0) return nullptr;
    if (!isOpened || IsBufferEmpty(streamNumber)) return nullptr;
    TImageBuffer* image = GetNextImage(streamNumber, kDecodeWaitMs);
    if (image == nullptr || image->streamFormat != kRunLengthFormat) return nullptr;
    const auto header = static_cast<uint32_t>(header_size);
    // Repeated packets are counted again, so the count may be larger than the memory.
    const uint32_t size = std::min(image->bufferStatistics.bytesReceived, image->bufferLength);
    if (size < header + kRunLengthDataMin) return nullptr;
    const int result = DecodeRLE(pDecodedBuffer, image->GetData() + header, bufferSize,
                                 static_cast<int>(size - header));
    if (status != nullptr) *status = result;
    return image;
}

void KELOCamera::PopImage(uint8_t streamNumber, TImageBuffer* imageBuffer) {
    if (!isOpened || IsBufferEmpty(streamNumber)) return;
    const bool popped = WithManager(true, [&](KELOManager& manager) {
        return manager.PopImage(GetIP(), streamNumber, imageBuffer);
    });
    if (!popped) kelo::Log("KELOCamera::PopImage failed\n");
}

void KELOCamera::ClearBuffer(uint8_t streamNumber) {
    if (!isOpened) return;
    WithManager([&](KELOManager& manager) { manager.ClearBuffer(GetIP(), streamNumber); });
}

bool KELOCamera::IsBufferEmpty(uint8_t streamNumber) {
    if (!isOpened) return true;
    return WithManager(
        true, [&](KELOManager& manager) { return manager.IsBufferEmpty(GetIP(), streamNumber); });
}

void KELOCamera::SetBufferSize(uint32_t bufferSize) {
    if (bufferSize >= 2) m_bufferSize = bufferSize;
}

EXT_CAM_STATS KELOCamera::getStats(const TImageBuffer* imageBuffer) {
    EXT_CAM_STATS stats{};
    if (imageBuffer == nullptr) return stats;
    stats.current_image_number = imageBuffer->GetCurrentImageNum();
    stats.images_received = imageBuffer->GetReceivedCount();
    stats.images_dropped = imageBuffer->GetDroppedCount();
    stats.images_skipped = imageBuffer->GetSkippedCount();
    return stats;
}
