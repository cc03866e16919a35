// Through the exported functions of the shared library.
#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "../support/big_endian.h"
#include "../support/cpu.h"
#include "../support/library_cameras.h"
#include "receiver.h"

namespace kelo::bench {
namespace {

// Longer than the library takes to give up on packets that stopped coming.
constexpr int QUIET_MS = 400;

std::vector<pid_t> ThreadsNamed(const std::string& wanted) {
    std::vector<pid_t> found;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm") >> std::ws, name);
        if (name == wanted) found.push_back(std::stoi(task.path().filename()));
    }
    return found;
}

// Takes one camera's images from the library, as an application does, and gives them back at once.
class Application {
public:
    Application(CAM_HANDLE camera, const Traffic& traffic) : camera_(camera), traffic_(traffic) {}

    Received Run(const SenderDone& done, Latencies& latencies) {
        received_ = {};
        const double start = Now();
        bool sent = false;
        while (true) {
            void* handle = keloGetNextImageTimeout(camera_, 0, QUIET_MS);
            const int64_t delivered = NowNs();
            if (handle == nullptr) {
                // Nothing came since the sender was done: what is missing is lost.
                if (sent) break;
                sent = done();
                continue;
            }
            NotePending();
            if (Take(handle, delivered, latencies)) received_.seconds = Now() - start;
            keloPopImage(camera_, 0, handle);
        }
        return received_;
    }

private:
    // Those that wait, and the one under reception.
    void NotePending() {
        const int pending = keloGetPendingImageCount(camera_, 0);
        received_.images_in_flight =
            std::max(received_.images_in_flight, static_cast<uint32_t>(std::max(pending, 1)) + 1);
    }

    // Whether the image is whole.
    bool Take(IMAGE_BUFFER_HANDLE handle, int64_t delivered, Latencies& latencies) {
        const auto& image = *static_cast<const BufferInfo*>(handle);
        const BufferStatistics& statistics = image.bufferStatistics;
        received_.bytes += statistics.bytesReceived;
        received_.datagrams +=
            static_cast<uint64_t>(image.allPacketsAmount - statistics.missingPackets);
        if (statistics.errorFlag != 0) return false;
        ++received_.whole_images;
        const auto* data = reinterpret_cast<const std::byte*>(keloGetImageData(handle));
        if (statistics.bytesReceived != traffic_.ImageSize() || Get32(data) != image.imageNumber) {
            throw std::runtime_error("the library delivered a wrong image");
        }
        int64_t sent = 0;
        std::memcpy(&sent, data + traffic_.StampOffset(), sizeof sent);
        latencies.Add(sent, delivered);
        return true;
    }

    const CAM_HANDLE camera_;
    const Traffic traffic_;
    Received received_;
};

void Add(Received& sum, const Received& part) {
    sum.seconds = std::max(sum.seconds, part.seconds);
    sum.bytes += part.bytes;
    sum.datagrams += part.datagrams;
    sum.whole_images += part.whole_images;
    sum.images_in_flight += part.images_in_flight;
}

class LibraryReceiver final : public Receiver {
public:
    explicit LibraryReceiver(const ReceiverSetup& setup)
        : setup_(setup), cameras_(setup.first_camera, setup.traffic.cameras) {
        if (!setup.restart) Start();
    }
    ~LibraryReceiver() override { Stop(); }

    std::vector<pid_t> Threads() const override {
        return ThreadsNamed(setup_.traffic.tcp ? "kelo-tcp" : "kelo-rx");
    }
    void Begin() override {
        if (setup_.restart) Start();
    }
    Received Run(const SenderDone& done, Latencies& latencies) override;

private:
    void Start() {
        for (const CAM_HANDLE handle : cameras_.Handles()) {
            if (keloStartImageAcquisition(handle) != KELO_STATUS_SUCCESS) {
                throw std::runtime_error("keloStartImageAcquisition failed");
            }
        }
    }
    void Stop() {
        for (const CAM_HANDLE handle : cameras_.Handles())
            keloStopImageAcquisition(handle);
    }

    const ReceiverSetup setup_;
    const LibraryCameras cameras_;
};

// One thread for each camera.
Received LibraryReceiver::Run(const SenderDone& done, Latencies& latencies) {
    std::mutex mutex;
    Received sum;
    std::exception_ptr failure;
    std::vector<std::thread> threads;
    for (const CAM_HANDLE handle : cameras_.Handles()) {
        threads.emplace_back([&, handle] {
            try {
                const Received part = Application(handle, setup_.traffic).Run(done, latencies);
                const std::lock_guard lock(mutex);
                Add(sum, part);
            } catch (...) {
                const std::lock_guard lock(mutex);
                failure = std::current_exception();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    if (setup_.restart) Stop();
    if (failure) std::rethrow_exception(failure);
    return sum;
}

}  // namespace

std::unique_ptr<Receiver> MakeLibraryReceiver(const ReceiverSetup& setup) {
    return std::make_unique<LibraryReceiver>(setup);
}

}  // namespace kelo::bench
