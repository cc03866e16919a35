// Lifecycle of the manager, and the registry of cameras.

#include "kelo_manager.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>

#include "ImageStreamReceiverGeneric.h"
#include "ImageStreamReceiverTcp.h"
#include "utils.h"

namespace {

constexpr size_t kCallbackQueueSlots = 1024;
constexpr const char* kOptionsFile = "ImagePacketCommunicatorOptions.txt";
constexpr size_t kOptionsLineMax = 98;
constexpr size_t kClosersMax = 64;

}  // namespace

KELOManager::KELOManager() : CallbackRequests(kCallbackQueueSlots) {
    ReadOptionsFile();
    CallbackRequestsThread = std::thread([this] { ProcessCallbackRequests(); });
    try {
        CreateReceivers();
    } catch (...) {
        StopCallbackThread();
        throw;
    }
}

void KELOManager::ReadOptionsFile() {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(kOptionsFile, "re"), fclose);
    if (file == nullptr) return;
    std::array<char, kOptionsLineMax + 1> line{};
    if (fgets(line.data(), line.size(), file.get()) != nullptr) {
        PacketCommunicatorImageOptions.Parse(line.data());
    }
}

void KELOManager::CreateReceivers() {
    auto udp = std::make_unique<ImageStreamReceiverGeneric<TPacketCommunicatorUDPSocket>>();
    udp->Init();
    imageStreamReceiver = std::move(udp);
    imageStreamReceiverTcp = std::make_unique<ImageStreamReceiverTcp>();
}

void KELOManager::BeginRelease() {
    {
        const std::lock_guard lock(mutex_release);
        IsBeingDestructed = true;
    }
    cv_release.notify_all();
    ForEachReceiver([](IImageStreamReceiver& receiver) { receiver.EndAllWaits(); });
}

// Cameras are closed while their transports and receivers still work; then whatever could call in
// here is stopped, and only then anything is freed that it could have used.
KELOManager::~KELOManager() {
    BeginRelease();
    try {
        CamerasClear();
    } catch (...) {
        // A camera that cannot be closed in order must not keep the others from being released.
        kelo::Log("Exception at close: %s\n", "the registry could not be cleared in order");
    }
    StopCallbackThread();
    RetireTransports();
    // Sessions that are still held, by a firmware run for instance, get no more answers.
    sessions->AbandonAll();
    gate->Close();
    ForEachReceiver([](IImageStreamReceiver& receiver) { receiver.Exit(); });
    imageStreamReceiver.reset();
    imageStreamReceiverTcp.reset();
}

void KELOManager::StopCallbackThread() {
    CallbackRequestsThreadShouldBeStopped = true;
    {
        // Nothing to call: only ends the thread's wait.
        const std::lock_guard lock(mutex_callback_producers);
        (void)CallbackRequests.TryPut(TCallbackRequest{});
    }
    CallbackRequestsThread.join();
}

bool KELOManager::IsCallbackThread() const {
    return std::this_thread::get_id() == CallbackRequestsThread.get_id();
}

void KELOManager::RetireTransports() {
    // Taken over and not copied: the destructor, which calls this, must do without memory.
    std::vector<std::weak_ptr<TPacketCommunicatorUDPSocket>> transports;
    {
        const std::lock_guard lock(mutex_communicators);
        transports.swap(all_transports);
    }
    // All are told before the first is waited for: each takes a moment to notice.
    for (const auto& known : transports) {
        if (const auto transport = known.lock()) transport->BeginRetire();
    }
    for (const auto& known : transports) {
        if (const auto transport = known.lock()) transport->Retire();
    }
}

std::shared_ptr<KELOCamera> KELOManager::FindHandle(CAM_HANDLE handle) {
    const kelo::TScopedLock lock(CameraListMutex, "KELOManager::FindHandle");
    const auto found = CameraMapList.find(handle);
    return found == CameraMapList.end() ? nullptr : found->second;
}

std::shared_ptr<KELOCamera> KELOManager::FindIp(uint32_t camera_ip) {
    const kelo::TScopedLock lock(CameraListMutex, "KELOManager::FindIp");
    for (const auto& [handle, camera] : CameraMapList) {
        if (camera->GetIP() == camera_ip) return camera;
    }
    return nullptr;
}

int KELOManager::GetCameraList(CAM_HANDLE* cameras, uint32_t max) {
    const kelo::TScopedLock lock(CameraListMutex, "KELOManager::GetCameraList");
    // A count that is negative as a signed number was meant as such.
    const int limit = static_cast<int>(max);
    int count = 0;
    for (const auto& [handle, camera] : CameraMapList) {
        if (count >= limit) break;
        cameras[count++] = handle;
    }
    return count;
}

int KELOManager::GetCameraList(std::vector<std::shared_ptr<KELOCamera>>& cameras) {
    const kelo::TScopedLock lock(CameraListMutex, "KELOManager::GetCameraList");
    for (const auto& [handle, camera] : CameraMapList)
        cameras.push_back(camera);
    return static_cast<int>(CameraMapList.size());
}

void KELOManager::CamerasClear() {
    TCameraMapList cleared;
    {
        const kelo::TScopedLock lock(CameraListMutex, "KELOManager::CamerasClear");
        cleared.swap(CameraMapList);
    }
    Sessions_t cameras;
    cameras.reserve(cleared.size());
    for (auto& [handle, camera] : cleared)
        cameras.push_back(std::move(camera));
    CloseSideBySide(cameras);
}

// A camera that does not answer takes seconds to close: together they take no longer than one.
void KELOManager::CloseSideBySide(Sessions_t& cameras) {
    std::atomic<size_t> next{0};
    const auto close_some = [&] {
        for (size_t i = next++; i < cameras.size(); i = next++)
            cameras[i].reset();
    };
    std::vector<std::thread> helpers;
    const size_t helpers_wanted = std::min(cameras.size(), kClosersMax);
    try {
        helpers.reserve(helpers_wanted);
        while (helpers.size() + 1 < helpers_wanted)
            helpers.emplace_back(close_some);
    } catch (const std::exception&) {
        // With fewer threads, for want of them or of memory, it only takes longer.
    }
    close_some();
    for (auto& helper : helpers)
        helper.join();
    cameras.clear();
}

bool KELOManager::SetImageOptions(const char* options) {
    if (options == nullptr) return false;
    const std::lock_guard lock(mutex_options);
    return PacketCommunicatorImageOptions.Parse(options);
}
