// Programming a camera's firmware: the run, on a thread of its own, and the operations that start,
// abort and watch it.

#include <algorithm>
#include <array>
#include <stdexcept>

#include "kelo_camera.h"
#include "kelo_registers.h"
#include "utils.h"

namespace {

constexpr int kWriteAttempts = 3;
constexpr int kReadAttempts = 3;
constexpr int kRetryPauseMs = 100;
constexpr int kTimeoutMarginMs = 100;
constexpr int kStepsMax = 2000000;

}  // namespace

// One run. The payload buffer is an array of 32-bit values in host order, as every memory transfer
// takes them: each word is swapped on its way out, and the cameras, being little-endian, store the
// values that they receive and so get the payload's bytes back.
class KELOCamera::FirmwareRun {
public:
    explicit FirmwareRun(KELOCamera& camera) : camera_(camera), client_(camera.FWClient) {}

    void Execute() {
        try {
            const Step step = RunToTheEnd();
            // Before the end is told: from then on the file is the application's again.
            client_.CloseFileIfNeeded();
            Finish(step);
        } catch (const std::exception& error) {
            client_.CloseFileIfNeeded();
            camera_.firmware_state = FirmwareState::kEnding;
            client_.SetProgressError(R_ERROR);
            kelo::Log("Programming error: %s\n", error.what());
            Finish(Step::kFailed);
        }
    }

private:
    enum class Step { kNext, kDone, kDoneAndVerified, kFailed, kTimedOut };

    Step RunToTheEnd() {
        for (steps_ = 0; steps_ < kStepsMax; ++steps_) {
            // The session's lock is not fair: somebody who wants to close gets a chance.
            if (camera_.closers_waiting > 0) kelo::Sleep(1);
            if (AbortIsHeeded()) return Step::kFailed;
            const Step step = reading_back_ ? VerifyPiece() : SendPayload();
            if (step != Step::kNext) return step;
        }
        return Step::kFailed;
    }

    bool AbortIsHeeded() const {
        return client_.AbortionAllowed && camera_.FirmwareProgramAbortWanted;
    }

    Step SendPayload() {
        int length = 0;
        int timeout_sec = 0;
        const TResult result = client_.GetNextPayload(buffer_.data(), length, timeout_sec);
        if (result != R_OK) return Dispatch(result);
        if (timeout_sec > 1) kelo::Log("est_timeout_sec = %d\n", timeout_sec);
        return WritePayload(length, timeout_sec);
    }

    Step WritePayload(int length, int timeout_sec) {
        for (int attempt = 1; attempt <= kWriteAttempts; ++attempt) {
            // The payload's length in bytes, and not in registers, is what the cameras' firmware
            // expects here; it takes everything above the limit for a full payload.
            auto count = std::min(static_cast<uint32_t>(length), MAX_MEMORY_REGISTERS);
            const AbortFlag abort = client_.AbortionAllowed
                                        ? AbortFlag(&camera_.FirmwareProgramAbortWanted)
                                        : AbortFlag();
            if (camera_.writeMemory(KELO_CMD_FIRMWARE, count, buffer_.data(),
                                    timeout_sec * 1000 + kTimeoutMarginMs,
                                    abort) == KELO_STATUS_SUCCESS) {
                return AbortIsHeeded() ? Step::kFailed : Step::kNext;
            }
            kelo::Log("FW writeMemory failed (attempt %d of %d)\n", attempt, kWriteAttempts);
            if (camera_.FirmwareProgramAbortWanted) return Step::kFailed;
            if (attempt < kWriteAttempts) kelo::Sleep(kRetryPauseMs);
        }
        kelo::Log(
            "Sensor TIMEOUT. Sensor restart required. Normally, the firmware has been updated "
            "correctly.\n");
        return Step::kTimedOut;
    }

    Step VerifyPiece() {
        uint32_t count = 0;
        for (int attempt = 1; attempt <= kReadAttempts; ++attempt) {
            count = MAX_MEMORY_REGISTERS;
            if (camera_.readMemory(KELO_CMD_FIRMWARE, count, buffer_.data()) ==
                KELO_STATUS_SUCCESS) {
                break;
            }
            kelo::Log("FW readMemory failed\n");
            if (camera_.FirmwareProgramAbortWanted) return Step::kFailed;
            // After the last attempt the old contents of the buffer are looked at: the client
            // recognises an address that it has had.
        }
        const void* data = nullptr;
        uint32_t address = 0;
        int size = 0;
        const TResult extracted = client_.ExtractReadData(
            buffer_.data(), static_cast<int>(count * sizeof(uint32_t)), data, address, size);
        if (extracted == R_ERROR) kelo::Log("FW ExtractReadData error\n");
        if (extracted != R_OK) return Dispatch(extracted);

        switch (client_.CheckReadData(data, address, size)) {
            case R_OK:
                return Step::kNext;
            case R_END:
                return Step::kDoneAndVerified;
            default:
                kelo::Log("FW readback failed\n");
                return Step::kFailed;
        }
    }

    Step Dispatch(TResult result) {
        switch (result) {
            case R_END:
                return Step::kDone;
            case R_READ:
                kelo::Log("FW readback\n");
                reading_back_ = true;
                return Step::kNext;
            case R_ERROR:
                kelo::Log("FW error\n");
                return Step::kFailed;
            default:
                kelo::Log("FW strange\n");
                return Step::kFailed;
        }
    }

    void Finish(Step step) {
        switch (step) {
            case Step::kDone:
                kelo::Log("FW done in %d steps - without READBACK\n", steps_);
                RebootCamera();
                return;
            case Step::kDoneAndVerified:
                kelo::Log("FW done in %d steps - with READBACK\n", steps_);
                RebootCamera();
                return;
            case Step::kTimedOut:
                camera_.firmware_state = FirmwareState::kEnding;
                client_.SetProgressError(R_ERROR_TIMEOUT);
                return;
            default:
                kelo::Log("FW update FAILED\n");
                camera_.firmware_state = FirmwareState::kEnding;
                client_.SetProgressError(R_ERROR);
        }
    }

    void RebootCamera() {
        kelo::Log("FW update succesfully completed - REBOOTING camera\n");
        (void)camera_.setRegisterConst(REG_REBOOT, 1);
        camera_.firmware_state = FirmwareState::kEnding;
        client_.UpdateProgress(0);
    }

    KELOCamera& camera_;
    TKeloFWClient& client_;
    std::array<uint32_t, MAX_MEMORY_REGISTERS> buffer_{};
    int steps_ = 0;
    bool reading_back_ = false;
};

KELO_API_STATUS KELOCamera::FirmwareProgram(const std::shared_ptr<KELOCamera>& camera,
                                            const char* path) {
    if (path == nullptr) return KELO_STATUS_ERROR;
    // Before the lock, which the run may hold for minutes while the camera writes its flash.
    if (!BeginFirmwareRun()) return KELO_STATUS_ERROR;
    const kelo::TScopedLock lock(Mutex, "KELOCamera::FirmwareProgram");
    kelo::Log("Started fw_program %s\n", path);
    // The camera is busy and must not be closed for a missing heartbeat.
    HeartbeatStop();
    bool prepared = false;
    try {
        FWClient.StartProgramming(path, FW_EMBLEM_OFFSET);
        prepared = true;
        FirmwareProgramAbortWanted = false;
        std::thread([camera] { camera->FirmwareProgramThreadFunc(); }).detach();
    } catch (const std::exception&) {
        // A thread that is not to be had leaves a run behind that never begins.
        if (prepared) {
            FWClient.CloseFileIfNeeded();
            FWClient.SetProgressError(R_ERROR);
        }
        firmware_state = FirmwareState::kIdle;
        return KELO_STATUS_ERROR;
    }
    return KELO_STATUS_SUCCESS;
}

// False while a run is going on. One whose end has just been reported is waited for: it takes
// microseconds, and the application must not be refused for having been quick.
bool KELOCamera::BeginFirmwareRun() {
    while (true) {
        FirmwareState state = FirmwareState::kIdle;
        if (firmware_state.compare_exchange_strong(state, FirmwareState::kRunning)) return true;
        if (state == FirmwareState::kRunning) return false;
        std::this_thread::yield();
    }
}

void KELOCamera::FirmwareProgramThreadFunc() {
    kelo::NameThisThread("kelo-firmware");
    FirmwareRun(*this).Execute();
    firmware_state = FirmwareState::kIdle;
}

KELO_API_STATUS KELOCamera::FirmwareProgramAbort() {
    FirmwareProgramAbortWanted = true;
    return KELO_STATUS_SUCCESS;
}

KELO_API_STATUS KELOCamera::FirmwareGetProgress(int* percent) {
    if (percent == nullptr) return KELO_STATUS_ERROR;
    KELO_API_STATUS status = KELO_STATUS_SUCCESS;
    switch (FWClient.GetProgress(percent)) {
        case R_ERROR_TIMEOUT:
            kelo::Log("KELOCamera::FirmwareGetProgress(): timeout\n");
            status = KELO_STATUS_NO_RESPONSE;
            break;
        case R_ERROR:
            status = KELO_STATUS_ERROR;
            break;
        default:
            if (*percent <= 99) return KELO_STATUS_SUCCESS;
            break;
    }
    // The run is over, one way or the other: the camera is supervised again, unless another thread
    // has begun the next run meanwhile.
    const kelo::TScopedLock lock(Mutex, "KELOCamera::FirmwareGetProgress");
    if (firmware_state != FirmwareState::kRunning) HeartbeatStart();
    return status;
}
