#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "AccessGate.h"
#include "TPacketCommunicator.h"
#include "TResponse.h"
#include "UDPSocket.h"
#include "cam_info.h"
#include "kelo_fw_client.h"
#include "kelo_types.h"
#include "reply_intake.h"
#include "run_length.h"

class KELOManager;

// A received image with names for its fields; adds no data, so that the records of the receivers
// can be handed out as it.
class TImageBuffer : public _BufferInfo {
public:
    uint32_t GetCurrentImageNum() const { return imageNumber; }
    uint32_t GetBufferLength() const { return bufferLength; }
    uint8_t GetHeaderSize() const { return headerSize; }
    uint32_t GetBytesLost() const { return bufferStatistics.bytesLost; }
    uint32_t GetSkippedCount() const {
        return static_cast<uint32_t>(streamStatistics.imagesSkipped);
    }
    // Reception drops no finished image, so there is nothing to count.
    uint32_t GetDroppedCount() const { return 0; }
    uint32_t GetReceivedCount() const {
        return static_cast<uint32_t>(streamStatistics.imagesReceived);
    }
    uint8_t GetStreamNumber() const { return streamNumber; }
    uint8_t* GetData() const { return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(buffer)); }
};
static_assert(sizeof(TImageBuffer) == sizeof(BufferInfo));

// The session with one camera: requests, open and close, heartbeat, acquisition, firmware.
//
// Made by the manager for every camera that a discovery finds and shared with whoever uses it: the
// registry, exported functions for the time of a call, the firmware thread for the time of a run.
// It may therefore outlive the manager; every use of the manager goes through the gate, and is left
// out when the gate is closed.
//
// Threads that enter: application threads, its own heartbeat thread, the firmware thread. Receive
// threads only reach its ReplyIntake. Requests are serialised by Mutex, which is held over sending,
// waiting and retries. The close callback is queued to the manager and never runs under Mutex.
class KELOCamera {
public:
    KELOCamera(KELOManager* manager, CAM_HANDLE id, const CAM_INFO& info,
               TPacketCommunicator::Ptr packetCommunicator);
    virtual ~KELOCamera();
    KELOCamera(const KELOCamera&) = delete;
    KELOCamera& operator=(const KELOCamera&) = delete;

    // ---- Session (kelo_camera_session.cpp) ----

    KELO_API_STATUS Open(keloCameraCloseEvent* onClose, bool reopening);
    // Always success.
    KELO_API_STATUS Close();
    void doClose(bool do_notify_the_app);
    bool IsOpened() const { return isOpened; }

    void HeartbeatStart();
    void HeartbeatStop();
    void HeartbeatRun();
    void HeartbeatIsMissing();
    // The heartbeat thread's body: runs until the session is destroyed.
    void HeartbeatThreadFunc();

    // Whether the path carries packets of that size. Asks the camera to send one to u, which must
    // not block; buffer is where it is received.
    bool TestMTU(UDPSocket& u, std::vector<uint8_t>& buffer, uint32_t mtu);

    const CAM_INFO* camInfo();
    // The same without the video port, and without the session's lock: for callers that hold a lock
    // which a reply to this session's request may be waiting for.
    const CAM_INFO& Identity() const { return identity; }
    uint32_t GetIP() const { return identity.camera_ip; }
    CAM_HANDLE GetId() const { return m_id; }
    const std::shared_ptr<ReplyIntake>& Intake() const { return intake; }

    // ---- Requests (kelo_camera_requests.cpp) ----

    KELO_API_STATUS getRegisterValue(uint32_t reg_num, uint32_t& value);
    // value holds what the register holds afterwards.
    KELO_API_STATUS setRegisterValue(uint32_t reg_num, uint32_t& value);
    KELO_API_STATUS setRegisterConst(uint32_t reg_num, uint32_t value);
    // count registers wanted; stores as many as the camera gives, so values MUST hold 128.
    KELO_API_STATUS readMemory(uint32_t start_reg_num, uint32_t& count, uint32_t values[]);
    // timeout_msec -1 takes the usual four attempts, any other value is one attempt of that time.
    KELO_API_STATUS writeMemory(uint32_t start_reg_num, uint32_t& count, const uint32_t values[],
                                int timeout_msec, AbortFlag abort);

    void OnRcv(uint32_t ip_from, const void* udp_payload, int length, unsigned short socketPort);
    // Waits for a reply of the request in flight. Throws std::runtime_error for an endless wait
    // with an abort flag.
    TResponse WaitForResponse(int msec, AbortFlag abort);
    void ResetResponses() { intake->ResetResponses(); }

    // The steps that every request is made of. A session without a transport sends nothing.
    void vc_send(const void* udp_payload, int length);
    void vc_hearbeat_received();
    void SideEffectsOnMemChange(uint32_t address_0, uint32_t count, const uint32_t* values,
                                bool on_write);

    // ---- Acquisition and images (kelo_camera_acquisition.cpp) ----

    KELO_API_STATUS StartAcquisition();
    // Always success.
    KELO_API_STATUS StopAcquisition();
    bool GetImageAcquisitionOK();

    uint32_t GetPendingImageCount(uint8_t streamNumber);
    TImageBuffer* GetNextImage(uint8_t streamNumber);
    TImageBuffer* GetNextImage(uint8_t streamNumber, int timeout_msec);
    TImageBuffer* GetNextDecodedImage(uint8_t streamNumber, void* pDecodedBuffer, int header_size,
                                      int bufferSize, int* status);
    void PopImage(uint8_t streamNumber, TImageBuffer* imageBuffer);
    void ClearBuffer(uint8_t streamNumber);
    bool IsBufferEmpty(uint8_t streamNumber);
    // 0 and 1 are ignored; takes effect at the next Open.
    void SetBufferSize(uint32_t bufferSize);
    // See run_length.h.
    static int DecodeRLE(void* pBuffer, const void* pRLEbuffer, int BufferSize,
                         int RleMaxBufferSize) {
        return ::DecodeRLE(pBuffer, pRLEbuffer, BufferSize, RleMaxBufferSize);
    }
    // images_pending stays 0; nothing is set without an image.
    static EXT_CAM_STATS getStats(const TImageBuffer* imageBuffer);

    // ---- Firmware (kelo_camera_firmware.cpp) ----

    // camera is this session, shared: the run holds it until it ends.
    KELO_API_STATUS FirmwareProgram(const std::shared_ptr<KELOCamera>& camera, const char* path);
    KELO_API_STATUS FirmwareProgramAbort();
    KELO_API_STATUS FirmwareGetProgress(int* percent);

private:
    // kEnding: the end has been reported, the run's thread is about to leave.
    enum class FirmwareState { kIdle, kRunning, kEnding };
    struct StreamSetup;
    class ClosingMark;
    class FirmwareRun;

    // Calls use(manager) while the manager exists, else returns otherwise.
    template <typename Result, typename Use>
    Result WithManager(Result otherwise, Use use);
    template <typename Use>
    void WithManager(Use use);

    bool ImageReceiverReady();
    bool ManagerIsGoing();

    bool RegisterStreams();
    void EndSession(bool do_notify_the_app);
    KELO_API_STATUS NegotiatePacketSize(UDPSocket& test_socket, std::vector<uint8_t>& buffer);
    void SetHeartbeatPriority();
    bool HeartbeatWatches() const;
    void KeepAliveIfDue();
    bool HeartbeatLost(uint64_t now, uint64_t last_received) const;

    template <typename SendCommand>
    TResponse Request(std::span<const int> timeouts_ms, AbortFlag abort, SendCommand send_command);
    KELO_API_STATUS TransferRegister(uint32_t reg_num, uint32_t& value, bool write,
                                     TResponse& response);

    KELO_API_STATUS SetUpStreams();
    KELO_API_STATUS ReadStreamSetup(uint8_t stream, uint8_t used_streams_mask, StreamSetup& setup);
    bool ReadUseTcp(uint32_t options_register);
    KELO_API_STATUS ActivateAcquisition();

    bool BeginFirmwareRun();
    void FirmwareProgramThreadFunc();

    std::recursive_mutex Mutex;  // serialises requests, open, close, acquisition

    // Constant after construction.
    const CAM_HANDLE m_id;
    KELOManager* const Manager;              // used through gate only
    const std::shared_ptr<AccessGate> gate;  // null without a manager
    const std::shared_ptr<SessionDirectory> directory;
    const TPacketCommunicator::Ptr m_packetCommunicator;  // null: requests fail at once
    const std::shared_ptr<ReplyIntake> intake;

    const CAM_INFO identity;

    // Guarded by Mutex.
    CAM_INFO m_info;  // the identity, and the video port
    uint8_t m_usedStreams = 0;
    uint8_t m_MaxStreams = 0;
    uint32_t m_tcp_port = 0;
    bool streamOptionsRead = false;
    bool streamOptionsAvailable = false;
    keloCameraCloseEvent* closeEvent = nullptr;

    // Written under Mutex, read without it.
    std::atomic<bool> isOpened{false};
    std::atomic<uint32_t> m_heartbeat_timeout;  // milliseconds; 0: no supervision
    std::atomic<bool> m_heartbeat_active{false};
    std::atomic<bool> starting_acquisition{false};

    std::atomic<uint32_t> m_bufferSize;
    std::atomic<uint64_t> heartbeat_last_rcv_time{0};   // wall-clock milliseconds
    std::atomic<uint64_t> heartbeat_last_send_time{0};  // wall-clock milliseconds

    TKeloFWClient FWClient;
    std::atomic<bool> FirmwareProgramAbortWanted{false};
    std::atomic<FirmwareState> firmware_state{FirmwareState::kIdle};
    std::atomic<int> closers_waiting{0};  // threads that want to close while firmware is sent

    std::mutex mutex_heartbeat_stop;
    std::condition_variable cv_heartbeat_stop;
    std::atomic<bool> HeartbeatThreadStopWanted{false};
    std::thread HeartbeatThread;
};
