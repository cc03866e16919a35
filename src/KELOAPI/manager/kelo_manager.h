#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "AccessGate.h"
#include "IImageStreamReceiver.h"
#include "TPacketCommunicator.h"
#include "TPacketCommunicatorUDPSocket.h"
#include "cam_info.h"
#include "image_options.h"
#include "kelo_camera.h"
#include "syncd_queue.h"

// One call of an application's close callback that is to be made.
struct TCallbackRequest {
    CAM_HANDLE CamHandle = 0;
    keloCameraCloseEvent* Function = nullptr;
};

// The one object behind the exported functions: the registry of cameras and their handles, the
// control transports, the two image receivers, and the thread that calls close callbacks.
//
// Owned by the library's state and by every exported call for its duration. Entered by application
// threads, by the transports' receive threads (OnRcv) and by the sessions' threads.
//
//  1. No registry lock is held while a camera is closed or destroyed, or a transport is joined.
//  2. A receive thread holds no session and releases no transport: both could end on it.
//  3. Lock order: mutex_discovery_responses, CameraListMutex, mutex_communicators; mutex_routes,
//     mutex_callback_producers and the sessions' locks stand alone.
//  4. Sessions may outlive the manager; they reach it through Gate(), which its destructor closes.
class KELOManager : public IPacketReceiver {
public:
    using TCameraMapList = std::map<CAM_HANDLE, std::shared_ptr<KELOCamera>>;

    // Reads the options file, starts the callback thread and the receivers. Throws when the system
    // refuses.
    KELOManager();

    // One datagram from a control transport: a discovery reply, or a session's.
    void OnRcv(TPacketCommunicator* from, uint32_t source_ip, const void* data, int length,
               unsigned short source_port) override;
    ~KELOManager() override;
    KELOManager(const KELOManager&) = delete;
    KELOManager& operator=(const KELOManager&) = delete;

    // The library is being released: every wait for an image or for discovery replies ends. To be
    // called before the manager is destroyed, while other threads may still be inside.
    void BeginRelease();
    bool IsGoing() const { return IsBeingDestructed; }
    bool IsCallbackThread() const;
    // Whether the application is being called, and may be inside the library again.
    bool IsInCallback() const { return in_callback; }

    // ---- Registry (kelo_manager.cpp) ----

    // Empty if unknown.
    std::shared_ptr<KELOCamera> FindHandle(CAM_HANDLE handle);
    // The first in handle order with that address; empty if none.
    std::shared_ptr<KELOCamera> FindIp(uint32_t camera_ip);
    // Ascending handles, at most max.
    int GetCameraList(CAM_HANDLE* cameras, uint32_t max);
    int GetCameraList(std::vector<std::shared_ptr<KELOCamera>>& cameras);
    // Empties the registry; the cameras that nobody else holds are closed side by side.
    void CamerasClear();
    bool IsMissingFilterDriver() const { return missingFilterDriver; }
    // True when the options were understood. Receivers that exist are not changed.
    bool SetImageOptions(const char* options);

    // For the sessions.
    const std::shared_ptr<AccessGate>& Gate() const { return gate; }
    const std::shared_ptr<SessionDirectory>& Sessions() const { return sessions; }

    // ---- Discovery and addresses (kelo_manager_discovery.cpp) ----

    // Returns the number of cameras known afterwards. max_count is not looked at: the caller cuts
    // the list.
    uint32_t Discover(uint32_t max_count, uint32_t ms_delay);
    KELO_API_STATUS setCameraIP(CAM_HANDLE handle, uint32_t new_ip, uint32_t new_subnet);
    static bool SendSetIP(TPacketCommunicator& transport, const uint8_t mac[6], uint32_t current_ip,
                          uint32_t ip, uint32_t subnet);

    // ---- Close callbacks (kelo_manager_dispatch.cpp) ----

    // Waits while the queue is full.
    void AddCallbackRequest(CAM_HANDLE handle, keloCameraCloseEvent* function);
    void ProcessCallbackRequests();

    // ---- Image streams (kelo_manager_streams.cpp) ----

    bool IsImageStreamReceiverReady() const;
    uint16_t GetStreamPort();
    void InitCamera(uint32_t ip, uint8_t stream_count, uint32_t buffer_count, uint16_t tcp_port);
    void ExitCamera(uint32_t ip);
    // The camera is given up without the application's asking: images in its hands stay until
    // GiveBackLeftBehind.
    void LoseCamera(uint32_t ip);
    // False when it is no image of a lost camera.
    bool GiveBackLeftBehind(const void* image);
    void BeginClosing(uint32_t ip);
    void EndClosing(uint32_t ip);
    void ResetStatistics(uint32_t ip);
    void InitStream(uint32_t ip, uint8_t stream, uint8_t streamFormat, uint8_t headerFormat,
                    uint32_t headerSize, uint32_t maxFrameSize, bool useTcp);
    // Null when the stream was never initialised; the calls below then answer 0, false, null and
    // true.
    IImageStreamReceiver* getStreamReceiver(uint32_t ip, uint8_t stream);
    uint32_t GetPendingCount(uint32_t ip, uint8_t stream);
    bool PopImage(uint32_t ip, uint8_t stream, BufferInfo* image);
    BufferInfo* GetImage(int timeout_ms, uint32_t ip, uint8_t stream);
    void ClearBuffer(uint32_t ip, uint8_t stream);
    bool IsBufferEmpty(uint32_t ip, uint8_t stream);

private:
    using Transport = std::pair<TPacketCommunicator::Ptr, uint32_t>;  // and the interface's netmask
    using DiscoveryResponse = std::pair<CAM_INFO, Transport>;
    using Sessions_t = std::vector<std::shared_ptr<KELOCamera>>;
    using StreamKey = std::pair<uint32_t, uint8_t>;  // camera address, stream number
    struct StreamKeyHash {
        size_t operator()(const StreamKey& key) const { return key.first ^ key.second; }
    };

    void ReadOptionsFile();
    void CreateReceivers();
    void StopCallbackThread();
    void RetireTransports();
    // UDP first, then TCP.
    template <typename Use>
    void ForEachReceiver(Use use) {
        if (imageStreamReceiver != nullptr) use(*imageStreamReceiver);
        if (imageStreamReceiverTcp != nullptr) use(*imageStreamReceiverTcp);
    }

    std::shared_ptr<TPacketCommunicatorUDPSocket> MakeTransport(uint32_t ip, int port);
    std::shared_ptr<TPacketCommunicatorUDPSocket> OpenTransport(uint32_t ip, int port);
    uint16_t EnsureAnyAddressTransport();
    TPacketCommunicator::Ptr EnsureTransport(uint32_t ip, uint32_t netmask, uint16_t port);
    TPacketCommunicator::Ptr FindTransport(uint32_t ip);
    void BroadcastDiscovery();
    void ListenForReplies(uint32_t ms_delay);
    void TakeVanished(Sessions_t& dropped);
    void AddNew();
    void LogCameras();
    void TakeIdleTransports(std::vector<TPacketCommunicator::Ptr>& retired);
    static void CloseSideBySide(Sessions_t& cameras);

    void OnDiscoveryReply(const TPacketCommunicator* from, const void* data, size_t length);
    Transport TransportOf(const TPacketCommunicator* from);
    std::shared_ptr<ReplyIntake> FindIntake(uint32_t camera_ip);
    void Park(TPacketCommunicator::Ptr transport);

    TImageOptions PacketCommunicatorImageOptions;
    std::mutex mutex_options;  // guards PacketCommunicatorImageOptions
    std::atomic<bool> IsBeingDestructed{false};
    std::mutex mutex_release;
    std::condition_variable cv_release;

    const std::shared_ptr<AccessGate> gate = std::make_shared<AccessGate>();
    const std::shared_ptr<SessionDirectory> sessions = std::make_shared<SessionDirectory>();

    TCameraMapList CameraMapList;  // guarded by CameraListMutex
    std::recursive_mutex CameraListMutex;

    ImagesLeftBehind images_left_behind;
    std::unique_ptr<IImageStreamReceiver> imageStreamReceiver;  // UDP
    std::unique_ptr<IImageStreamReceiver> imageStreamReceiverTcp;
    std::unordered_map<StreamKey, IImageStreamReceiver*, StreamKeyHash> streamReceivers;
    std::mutex mutex_routes;  // guards streamReceivers

    // Key 0 is the transport on the any-address. Guarded by mutex_communicators.
    std::unordered_map<uint32_t, Transport> m_packetCommunicators;
    // Every transport that may still exist, in the map or held by a session. Same guard.
    std::vector<std::weak_ptr<TPacketCommunicatorUDPSocket>> all_transports;
    std::mutex mutex_communicators;

    std::vector<DiscoveryResponse> discovery_responses;
    // Transports that receive threads let go of; the next discovery releases them. Each is there
    // once.
    std::vector<TPacketCommunicator::Ptr> parked_transports;
    std::mutex mutex_discovery_responses;  // guards both

    std::mutex mutex_callback_producers;  // the queue takes one producer at a time
    TSyncdQueue<TCallbackRequest> CallbackRequests;
    std::thread CallbackRequestsThread;
    std::atomic<bool> in_callback{false};
    std::atomic<bool> CallbackRequestsThreadShouldBeStopped{false};
    const bool missingFilterDriver = false;
};
