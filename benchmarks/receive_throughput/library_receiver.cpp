#include <stdexcept>

#include "../support/big_endian.h"
#include "../support/cpu.h"
#include "../support/library_camera.h"
#include "receivers.h"

namespace kelo::bench {
namespace {

class LibraryReceiver final : public Receiver {
public:
    LibraryReceiver() {
        if (keloStartImageAcquisition(camera_.Handle()) != KELO_STATUS_SUCCESS) {
            throw std::runtime_error("keloStartImageAcquisition failed");
        }
    }
    ~LibraryReceiver() override { keloStopImageAcquisition(camera_.Handle()); }

    const char* Name() const override { return "library"; }
    RunResult Run(Peer& peer, uint32_t images, double bytes_per_second) override;

private:
    static void Count(IMAGE_BUFFER_HANDLE handle, RunResult& result);

    LibraryCamera camera_;
    uint32_t next_image_ = 0;
};

RunResult LibraryReceiver::Run(Peer& peer, uint32_t images, double bytes_per_second) {
    // Longer than the receiver takes to give up on packets that stopped coming.
    constexpr int QUIET_MS = 400;
    const uint32_t end = next_image_ + images;
    RunResult result;
    result.images_sent = images;
    const double start = Now();
    const double cpu_start = CpuSeconds();
    peer.Begin(SendOrder{0, next_image_, images, bytes_per_second});
    bool sent = false;
    while (true) {
        void* handle = keloGetNextImageTimeout(camera_.Handle(), 0, QUIET_MS);
        if (handle == nullptr) {
            // Nothing came since the sender was done: what is missing is lost.
            if (sent) break;
            sent = peer.Done();
            continue;
        }
        Count(handle, result);
        const bool last = keloGetImageNumber(handle) + 1 == end;
        keloPopImage(camera_.Handle(), 0, handle);
        result.seconds = Now() - start;
        result.cpu_seconds = CpuSeconds() - cpu_start;
        if (last) break;
    }
    peer.Wait<double>();
    next_image_ = end;
    return result;
}

void LibraryReceiver::Count(IMAGE_BUFFER_HANDLE handle, RunResult& result) {
    const auto& image = *static_cast<const BufferInfo*>(handle);
    const BufferStatistics& statistics = image.bufferStatistics;
    result.bytes += statistics.bytesReceived;
    result.datagrams += static_cast<uint64_t>(image.allPacketsAmount - statistics.missingPackets);
    if (statistics.errorFlag != 0) return;
    ++result.whole_images;
    const auto* data = reinterpret_cast<const std::byte*>(keloGetImageData(handle));
    if (statistics.bytesReceived != IMAGE_SIZE || Get32(data) != image.imageNumber) {
        throw std::runtime_error("the library delivered a wrong image");
    }
}

}  // namespace

std::unique_ptr<Receiver> MakeLibraryReceiver() {
    return std::make_unique<LibraryReceiver>();
}

}  // namespace kelo::bench
