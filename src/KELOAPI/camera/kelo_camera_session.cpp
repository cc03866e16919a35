// Construction, open, close and heartbeat of a camera session.

#include <algorithm>
#include <array>
#include <bit>
#include <exception>

#include <pthread.h>
#include <sched.h>

#include "kelo_registers.h"
#include "manager_access.h"
#include "stream_mask.h"
#include "utils.h"

namespace {

constexpr uint16_t kDefaultVideoPort = 54321;
constexpr uint32_t kDefaultBufferCount = 20;
constexpr uint32_t kDefaultHeartbeatTimeoutMs = 3000;
constexpr uint32_t kKeepAliveIntervalMsMax = 5000;
constexpr auto kHeartbeatTick = std::chrono::milliseconds(100);
constexpr int kFirmwarePayloadMax = 512;

constexpr size_t kTestDatagramMax = 16384;
constexpr uint32_t kIpAndUdpHeaders = 28;
constexpr int kPacketSizeTries = 2;
constexpr int kPacketSizeRetryPauseMs = 100;
// Ethernet, and what common cards call jumbo frames; in the order of the test.
constexpr std::array<uint32_t, 4> kPacketSizes = {1500, 4074, 8500, 9000};
// Whoever sends without end must not keep a session from being opened.
constexpr int kTestDatagramsMax = 16;

// Whether the socket, which does not block, holds a datagram of that many bytes. Others are left
// over from requests that were sent more than once: the camera answers each of them.
bool HoldsDatagramOf(ssize_t bytes, UDPSocket& u, std::vector<uint8_t>& buffer) {
    for (int i = 0; i < kTestDatagramsMax; ++i) {
        const ssize_t received = u.receive(buffer.data(), buffer.size(), nullptr, nullptr);
        if (received == bytes) return true;
        if (received < 0) return false;
    }
    return false;
}

}  // namespace

// Tells the receivers that the camera is being closed, before the session's lock is taken: whoever
// holds it may be waiting for a connection, and others wait for images that will not come.
class KELOCamera::ClosingMark {
public:
    explicit ClosingMark(KELOCamera& camera)
        : camera_(camera), set_(camera.isOpened || camera.starting_acquisition) {
        ++camera_.closers_waiting;
        if (!set_) return;
        camera_.WithManager([&](KELOManager& manager) { manager.BeginClosing(camera_.GetIP()); });
    }
    ~ClosingMark() { End(); }
    ClosingMark(const ClosingMark&) = delete;
    ClosingMark& operator=(const ClosingMark&) = delete;

    // To be called with the session's lock held, so that whoever opens the session next finds
    // nothing of this closing.
    void End() {
        if (ended_) return;
        ended_ = true;
        --camera_.closers_waiting;
        if (!set_) return;
        camera_.WithManager([&](KELOManager& manager) { manager.EndClosing(camera_.GetIP()); });
    }

private:
    KELOCamera& camera_;
    const bool set_;
    bool ended_ = false;
};

KELOCamera::KELOCamera(KELOManager* manager, CAM_HANDLE id, const CAM_INFO& info,
                       TPacketCommunicator::Ptr packetCommunicator)
    : m_id(id),
      Manager(manager),
      gate(manager != nullptr ? manager->Gate() : nullptr),
      directory(manager != nullptr ? manager->Sessions() : nullptr),
      m_packetCommunicator(std::move(packetCommunicator)),
      intake(std::make_shared<ReplyIntake>(info.camera_ip)),
      identity(info),
      m_info(info),
      m_heartbeat_timeout(kDefaultHeartbeatTimeoutMs),
      m_bufferSize(kDefaultBufferCount),
      FWClient(kFirmwarePayloadMax) {
    m_info.video_port = kDefaultVideoPort;
    if (directory != nullptr) directory->Add(intake);
    try {
        HeartbeatThread = std::thread([this] { HeartbeatThreadFunc(); });
    } catch (...) {
        if (directory != nullptr) directory->Remove(intake.get());
        throw;
    }
    SetHeartbeatPriority();
}

KELOCamera::~KELOCamera() {
    {
        const std::lock_guard lock(mutex_heartbeat_stop);
        HeartbeatThreadStopWanted = true;
    }
    cv_heartbeat_stop.notify_one();
    HeartbeatThread.join();
    try {
        doClose(!ManagerIsGoing());
    } catch (const std::exception& exception) {
        kelo::Log("Exception at close: %s\n", exception.what());
    }
    if (directory != nullptr) directory->Remove(intake.get());
}

void KELOCamera::SetHeartbeatPriority() {
    sched_param priority{};
    priority.sched_priority = sched_get_priority_max(SCHED_RR);
    // Most processes may not do this; the thread then runs like any other.
    (void)pthread_setschedparam(HeartbeatThread.native_handle(), SCHED_RR, &priority);
}

bool KELOCamera::ImageReceiverReady() {
    return WithManager(false,
                       [](KELOManager& manager) { return manager.IsImageStreamReceiverReady(); });
}

bool KELOCamera::ManagerIsGoing() {
    return WithManager(true, [](KELOManager& manager) { return manager.IsGoing(); });
}

const CAM_INFO* KELOCamera::camInfo() {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::camInfo");
    return &m_info;
}

KELO_API_STATUS KELOCamera::Open(keloCameraCloseEvent* onClose, bool reopening) {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::Open");
    // A reopened session keeps the callback that it was first opened with.
    if (!reopening) closeEvent = onClose;

    UDPSocket test_socket(0);
    test_socket.setNonBlocking(true);
    std::vector<uint8_t> buffer(kTestDatagramMax);

    if (setRegisterConst(REG_CAMERA_USED, 1) != KELO_STATUS_SUCCESS) return KELO_STATUS_ERROR;
    uint32_t heartbeat_timeout_ms = 0;
    if (getRegisterValue(REG_HEARTBEAT_TIMEOUT, heartbeat_timeout_ms) != KELO_STATUS_SUCCESS) {
        return KELO_STATUS_ERROR;
    }
    m_heartbeat_timeout = heartbeat_timeout_ms;
    HeartbeatStart();
    // From here on a failure leaves the session open, with its heartbeat: the camera is claimed,
    // and Close or a missing heartbeat gives it back.
    isOpened = true;

    if (ImageReceiverReady() && !RegisterStreams()) return KELO_STATUS_ERROR;
    return NegotiatePacketSize(test_socket, buffer);
}

bool KELOCamera::RegisterStreams() {
    uint32_t streams_mask = 0;
    if (getRegisterValue(REG_MAX_STREAMS_MASK, streams_mask) != KELO_STATUS_SUCCESS) return false;
    m_MaxStreams = StreamCountOfMask(streams_mask);
    // A camera without TCP streams has no such register.
    (void)getRegisterValue(REG_TCP_STREAMPORT, m_tcp_port);

    uint32_t stream_port = 0;
    WithManager([&](KELOManager& manager) {
        manager.InitCamera(GetIP(), m_MaxStreams, m_bufferSize, static_cast<uint16_t>(m_tcp_port));
        stream_port = manager.GetStreamPort();
    });
    if (setRegisterValue(REG_STREAMPORT, stream_port) != KELO_STATUS_SUCCESS) return false;
    m_info.video_port = static_cast<uint16_t>(stream_port);
    return true;
}

KELO_API_STATUS KELOCamera::NegotiatePacketSize(UDPSocket& test_socket,
                                                std::vector<uint8_t>& buffer) {
    uint32_t packet_size = 0;
    if (getRegisterValue(REG_MTU, packet_size) != KELO_STATUS_SUCCESS) return KELO_STATUS_ERROR;
    // The largest size that passed; the camera's own one if none did.
    for (const uint32_t size : kPacketSizes) {
        if (!TestMTU(test_socket, buffer, size)) break;
        packet_size = size;
    }
    const bool written = setRegisterConst(REG_MTU, packet_size) == KELO_STATUS_SUCCESS;
    return written ? KELO_STATUS_SUCCESS : KELO_STATUS_ERROR;
}

bool KELOCamera::TestMTU(UDPSocket& u, std::vector<uint8_t>& buffer, uint32_t mtu) {
    buffer.resize(kTestDatagramMax);
    const auto udp_payload_size = static_cast<ssize_t>(mtu - kIpAndUdpHeaders);
    for (int attempt = 0; attempt < kPacketSizeTries; ++attempt) {
        if (attempt > 0) kelo::Sleep(kPacketSizeRetryPauseMs);
        // The camera sends the datagram before it answers this write, so it is here by then.
        uint32_t request = uint32_t{u.getPort()} << 16 | mtu;
        if (setRegisterValue(REG_MTU, request) != KELO_STATUS_SUCCESS) return false;
        if (HoldsDatagramOf(udp_payload_size, u, buffer)) return true;
    }
    return false;
}

KELO_API_STATUS KELOCamera::Close() {
    doClose(false);
    return KELO_STATUS_SUCCESS;
}

void KELOCamera::doClose(bool do_notify_the_app) {
    ClosingMark closing(*this);
    const kelo::TScopedLock lock(Mutex, "KELOCamera::doClose");
    kelo::Log("doClose(notify app == %s) isOpened == %s\n", do_notify_the_app ? "true" : "false",
              isOpened ? "true" : "false");
    if (isOpened) EndSession(do_notify_the_app);
    closing.End();
}

void KELOCamera::EndSession(bool do_notify_the_app) {
    isOpened = false;
    HeartbeatStop();
    (void)setRegisterConst(REG_CAMERA_USED, 0);
    StopAcquisition();
    if (do_notify_the_app && closeEvent != nullptr) {
        WithManager([&](KELOManager& manager) { manager.AddCallbackRequest(m_id, closeEvent); });
    }
    WithManager([&](KELOManager& manager) {
        if (!manager.IsImageStreamReceiverReady()) return;
        if (do_notify_the_app) {
            manager.LoseCamera(GetIP());
        } else {
            manager.ExitCamera(GetIP());
        }
    });
}

void KELOCamera::HeartbeatStart() {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::HeartbeatStart");
    const uint64_t now = vc_get_time_msec();
    heartbeat_last_rcv_time = now;
    heartbeat_last_send_time = now;
    m_heartbeat_active = true;
}

void KELOCamera::HeartbeatStop() {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::HeartbeatStop");
    m_heartbeat_active = false;
}

void KELOCamera::HeartbeatThreadFunc() {
    kelo::NameThisThread("kelo-heartbeat");
    while (!HeartbeatThreadStopWanted) {
        try {
            HeartbeatRun();
        } catch (const std::exception& exception) {
            kelo::Log("Exception at close: %s\n", exception.what());
        }
        std::unique_lock lock(mutex_heartbeat_stop);
        cv_heartbeat_stop.wait_for(lock, kHeartbeatTick,
                                   [this] { return HeartbeatThreadStopWanted.load(); });
    }
}

bool KELOCamera::HeartbeatWatches() const {
    return isOpened && m_heartbeat_active && m_heartbeat_timeout != 0;
}

bool KELOCamera::HeartbeatLost(uint64_t now, uint64_t last_received) const {
    return now >= last_received + m_heartbeat_timeout;
}

void KELOCamera::HeartbeatRun() {
    if (!HeartbeatWatches()) return;
    KeepAliveIfDue();
    if (!HeartbeatLost(vc_get_time_msec(), heartbeat_last_rcv_time)) return;

    // Looked at again under the lock: while it was waited for, the session may have been closed and
    // opened anew, or a request of another thread may have been answered.
    const kelo::TScopedLock lock(Mutex, "KELOCamera::HeartbeatRun");
    const uint64_t now = vc_get_time_msec();
    const uint64_t last_received = heartbeat_last_rcv_time;
    const uint32_t timeout_ms = m_heartbeat_timeout;
    if (!HeartbeatWatches() || !HeartbeatLost(now, last_received)) return;
    HeartbeatStop();
    HeartbeatIsMissing();
    kelo::Log("heartbeat missing, 0x%p %d >= %d + %d\n", static_cast<void*>(this),
              static_cast<int>(now), static_cast<int>(last_received), static_cast<int>(timeout_ms));
}

void KELOCamera::KeepAliveIfDue() {
    const uint64_t interval_ms = std::min(m_heartbeat_timeout / 3, kKeepAliveIntervalMsMax);
    const uint64_t last_sent = heartbeat_last_send_time;
    const uint64_t last_received = heartbeat_last_rcv_time;
    const uint64_t now = vc_get_time_msec();
    if (now < last_sent || now < last_received) {
        // The host's clock was set back: counts anew from here, or neither a keep-alive nor a loss
        // would be due until the clock is where it was.
        heartbeat_last_send_time = now;
        heartbeat_last_rcv_time = now;
        return;
    }
    if (now < last_sent + interval_ms) return;
    uint32_t width = 0;
    (void)getRegisterValue(REG_WIDTH, width);
}

void KELOCamera::HeartbeatIsMissing() {
    kelo::Log("KELOCamera::HeartbeatIsMissing()\n");
    try {
        doClose(true);
    } catch (const std::exception& exception) {
        kelo::Log("Exception at close: %s\n", exception.what());
    }
}
