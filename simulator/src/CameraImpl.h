#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ControlProtocol.h"
#include "Flash.h"
#include "RegisterFile.h"
#include "Sockets.h"
#include "Stream.h"
#include "TcpStreams.h"
#include "kelosim/camera.h"

namespace kelosim {

// What is behind a Camera.
//
// The control thread owns the sockets: whatever opens, closes or reads one runs there (Run, Post).
// State that the public functions read as well is guarded by mutex_. Lock order: mutex_, then a
// stream's lock; events_mutex_ is a leaf. Neither is held while the event sink is called.
class Camera::Impl {
public:
    using Sink = std::function<void(const std::string&)>;

    Impl(const CameraConfig& config, Sink sink);
    ~Impl();

    // Takes the addresses and starts the control thread; throws std::runtime_error.
    void Start();
    void Stop();
    // From the simulator's thread that hears broadcasts.
    void OnBroadcast(std::vector<uint8_t> datagram, const Endpoint& from);

    CameraConfig config() const;
    uint32_t GetRegister(uint32_t number) const;
    void SetRegister(uint32_t number, uint32_t value);
    void UnmapRegister(uint32_t number);
    Faults faults() const;
    void UpdateFaults(const std::function<void(Faults&)>& change);
    void SetFirmware(const FirmwareConfig& firmware);
    void SetPathPacketSize(uint32_t size);
    void SetFrameRate(int stream, double frame_rate);
    void SetImageCount(int stream, uint32_t images);
    std::vector<uint8_t> FlashContents(uint32_t length) const;
    CameraCounters counters() const;
    std::vector<std::vector<uint8_t>> SentDatagrams(int stream) const;
    std::vector<ControlRequest> Requests() const;
    void ClearRequests();
    bool acquiring() const;
    bool used() const;
    bool powered() const;
    void Trigger();
    void PowerOff();
    void PowerOn();
    void Reboot();
    void SetAddress(uint32_t address, uint32_t subnet_mask);
    void CloseConnections();

private:
    using Clock = std::chrono::steady_clock;

    struct DelayedReply {
        Clock::time_point due;
        std::vector<uint8_t> datagram;
        Endpoint to;
        bool ends_flash_work = false;
    };

    // The control thread (Camera.cpp).
    void Loop();
    void Run(const std::function<void()>& task);
    void Post(std::function<void()> task);
    void RunTasks();
    int PollTimeout() const;
    void ReceiveDatagrams();
    void HandleConnections();
    void Tick();
    void Handle(std::span<const uint8_t> datagram, const Endpoint& from, bool broadcast);
    // With the lock held.
    void WatchClient();
    void SendDueReplies();
    void Emit(const std::string& text);
    void FlushEvents();

    // Power and network (Camera.cpp), on the control thread.
    void OpenSockets(uint32_t address);
    void CloseSockets();
    void DoPowerOff();
    void DoPowerOn();
    void DoReboot();
    void DoSetAddress(uint32_t address, uint32_t subnet_mask);
    void ApplyAcceptMode();

    // Acquisition (CameraRequests.cpp), with the lock held.
    bool Started() const;
    StreamPlan PlanFor(size_t stream) const;
    void UpdatePlans();
    void StartAcquisition();
    void StopAcquisition();
    void EndSession(const std::string& why);

    // Requests (CameraRequests.cpp), with the lock held.
    void OnDatagram(std::span<const uint8_t> datagram, const Endpoint& from, bool broadcast);
    void Record(const Request& request, const Endpoint& from);
    void OnDiscover(const Request& request, const Endpoint& from);
    void OnSetIp(const Request& request);
    void OnReadRegister(const Request& request, const Endpoint& from);
    void OnWriteRegister(const Request& request, const Endpoint& from);
    void OnReadMemory(const Request& request, const Endpoint& from);
    void OnWriteMemory(const Request& request, const Endpoint& from);
    bool SendTestDatagram(uint32_t packet_size, const Endpoint& to);
    void OnFirmwarePayload(const Request& request, const Endpoint& from);
    // These return a status of the wire.
    uint32_t Check(uint32_t first, uint32_t count) const;
    uint32_t Write(uint32_t number, uint32_t value, const Endpoint& from);
    uint32_t WriteStreamPort(uint32_t value, const Endpoint& from);
    uint32_t WriteUsed(uint32_t value, const Endpoint& from);
    uint32_t WriteMtu(uint32_t value, const Endpoint& from);
    uint32_t WriteStart();
    void Reply(std::vector<uint8_t> datagram, const Request& request, const Endpoint& to,
               uint32_t delay_ms = 0, bool ends_flash_work = false);
    void Falsify(std::vector<uint8_t>& datagram, const Request& request);
    bool LosesReply(const Request& request);
    void SendNow(std::span<const uint8_t> datagram, const Endpoint& to);

    // Constant after construction.
    const Sink sink_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    CameraConfig config_;
    uint16_t tcp_port_ = 0;
    RegisterFile registers_;
    Faults faults_;
    std::shared_ptr<const Faults> image_faults_;
    Flash flash_;
    CameraCounters counters_;
    std::deque<ControlRequest> requests_;
    bool running_ = false;
    bool powered_ = false;
    bool quit_ = false;
    std::thread::id control_thread_;
    std::optional<Endpoint> owner_;  // who claimed the camera
    Endpoint stream_destination_;    // who wrote the stream port
    Clock::time_point owner_heard_;
    std::array<bool, kMaxStreams> over_tcp_{};  // as the options were at the start
    bool flash_busy_ = false;
    uint64_t reply_index_ = 0;
    std::vector<DelayedReply> delayed_;
    std::optional<Clock::time_point> power_on_at_;
    std::vector<std::function<void()>> tasks_;
    std::vector<std::function<void()>> after_reply_;  // for the control thread, without the lock
    std::vector<std::unique_ptr<Stream>> streams_;

    std::mutex events_mutex_;
    std::vector<std::string> events_;

    // Owned by the control thread.
    Fd control_;
    Fd test_;
    TcpStreams tcp_;
    TcpFaults::Accept accept_ = TcpFaults::Accept::kNormal;

    Waker waker_;
    std::thread thread_;
};

}  // namespace kelosim
