#include <array>
#include <thread>

#include "in_time.h"
#include "kelo_registers.h"
#include "soak.h"

namespace kelo::soak {
namespace {

// A register that the cameras keep and do nothing with.
constexpr uint32_t kPlainRegister = REG_GAIN;
constexpr uint32_t kPlainBlock = REG_BUS_ACCESS;  // of 256 registers
constexpr uint32_t kUnmapped = 9999;
constexpr CAM_HANDLE kUnknown = 0x12345678;

uint32_t AnyCamera(Soak& soak) {
    return soak.Chance(soak.CameraCount());
}

// All cameras, each with its identity.
void Discover(Soak& soak) {
    for (const kelosim::CameraConfig& config : soak.Configs()) {
        EXT_CAM_INFO info{};
        const CAM_HANDLE handle = soak.Find(config);
        Check(keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS, "a known camera's identity");
        Check(info.camera_handle == handle && info.camera_subnetmask == config.subnet_mask &&
                  info.description == config.description,
              "a camera's identity");
    }
}

void ReadAndWrite(Soak& soak) {
    const CAM_HANDLE handle = soak.Find(soak.Configs()[AnyCamera(soak)]);
    const bool open = soak.Chance(2) == 0;
    if (open) soak.Open(handle);
    for (int i = 0; i < 50; ++i) {
        const uint32_t value = static_cast<uint32_t>(soak.Seed());
        uint32_t stored = value;
        soak.Succeeds(keloSetRegisterInt(handle, kPlainRegister, &stored), "write");
        Check(stored == value, "a write stores another value");
        Check(soak.Read(handle, kPlainRegister) == value, "a read gives another value");
    }
    uint32_t value = 7;
    soak.Expect(keloSetRegisterInt(handle, REG_SENSORWIDTH, &value), KELO_STATUS_ERROR,
                "write of a read-only register");
    value = 7;
    soak.Expect(keloGetRegisterInt(handle, kUnmapped, &value), KELO_STATUS_OUT_OF_RANGE,
                "read of an unknown register");
    Check(value == 7, "a read that failed stores a value");
    if (open) soak.Close(handle);
}

void MoveMemory(Soak& soak) {
    const CAM_HANDLE handle = soak.Find(soak.Configs()[AnyCamera(soak)]);
    for (int i = 0; i < 20; ++i) {
        std::array<uint32_t, 128> written{};
        std::array<uint32_t, 128> read{};
        for (uint32_t& value : written)
            value = static_cast<uint32_t>(soak.Seed());
        const uint32_t wanted = 1 + soak.Chance(128);
        const uint32_t start = kPlainBlock + soak.Chance(128);
        uint32_t count = wanted;
        soak.Succeeds(keloWriteMemory(handle, start, &count, written.data()), "memory write");
        Check(count == wanted, "a memory write's count");
        soak.Succeeds(keloReadMemory(handle, start, &count, read.data()), "memory read");
        Check(count == wanted, "a memory read's count");
        for (uint32_t n = 0; n < wanted; ++n)
            Check(read[n] == written[n], "memory that was written reads otherwise");
    }
}

// Threads that share a camera's session; each has a register of its own.
void ReadSideBySide(Soak& soak) {
    const CAM_HANDLE handle = soak.Find(soak.Configs()[AnyCamera(soak)]);
    std::array<KELO_API_STATUS, 4> status{};
    std::array<bool, 4> right{};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < status.size(); ++t) {
        threads.emplace_back([&, t] {
            right[t] = true;
            for (uint32_t i = 0; i < 50 && status[t] == KELO_STATUS_SUCCESS; ++i) {
                uint32_t value = i;
                status[t] = keloSetRegisterInt(handle, kPlainBlock + t, &value);
                if (status[t] != KELO_STATUS_SUCCESS) break;
                status[t] = keloGetRegisterInt(handle, kPlainBlock + t, &value);
                right[t] = right[t] && (status[t] != KELO_STATUS_SUCCESS || value == i);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (uint32_t t = 0; t < status.size(); ++t) {
        soak.Succeeds(status[t], "a read beside others");
        Check(right[t], "a read beside others gives another value");
    }
}

// Up to three lost answers are made good by asking again.
void LoseReplies(Soak& soak) {
    const uint32_t camera = AnyCamera(soak);
    const CAM_HANDLE handle = soak.Find(soak.Configs()[camera]);
    uint32_t value = 5;
    soak.Succeeds(keloSetRegisterInt(handle, kPlainRegister, &value), "write");
    soak.Do({.kind = Order::Kind::kPrepare, .camera = camera, .lost_replies = 1 + soak.Chance(3)});
    Check(soak.Read(handle, kPlainRegister) == 5, "a read behind lost answers");
}

// What C programs get wrong.
void Misuse(Soak& soak) {
    uint32_t value = 0;
    EXT_CAM_INFO info{};
    IMAGE_BUFFER_HANDLE nothing = nullptr;
    Check(keloGetRegisterInt(kUnknown, REG_WIDTH, &value) == KELO_STATUS_ERROR, "unknown handle");
    Check(keloGetRegisterInt(kUnknown, REG_WIDTH, nullptr) == KELO_STATUS_ERROR, "null value");
    Check(keloGetCameraInfo(kUnknown, &info) == KELO_STATUS_ERROR, "unknown handle's identity");
    Check(keloOpenCamera(kUnknown, nullptr) == KELO_STATUS_ERROR, "unknown handle opens");
    Check(keloGetPendingImageCount(kUnknown, 0) == -1, "unknown handle's images");
    Check(keloGetNextImageTimeout(kUnknown, 0, 1000) == nullptr, "unknown handle's image");
    Check(keloIsBufferEmpty(kUnknown, 0) == 1, "unknown handle's buffer");
    Check(keloGetImageData(nothing) == nullptr && keloGetImageSize(nothing) == -1, "null image");
    keloPopImage(kUnknown, 0, &value);
    keloClearBuffer(kUnknown, 200);
    const CAM_HANDLE handle = soak.Find(soak.Configs()[AnyCamera(soak)]);
    soak.Open(handle);
    soak.Open(handle);
    keloPopImage(handle, 0, &value);
    keloPopImage(handle, 255, nullptr);
    Check(keloGetNextImage(handle, 255) == nullptr, "an image of a stream that is not there");
    soak.Close(handle);
    soak.Close(handle);
    Check(keloInit() == KELO_STATUS_SUCCESS, "a second keloInit");
}

void SetAddress(Soak& soak) {
    const kelosim::CameraConfig& home = soak.Configs()[0];
    const uint32_t target = kelosim::Ipv4(127, 0, 1, 1 + soak.Chance(200));
    const CAM_HANDLE before = soak.Find(home);
    EXT_CAM_INFO info{};
    Check(keloSetCameraIP(before, target, home.subnet_mask) == KELO_STATUS_SUCCESS, "set-IP");
    Check(keloGetCameraInfo(before, &info) == KELO_STATUS_ERROR, "a handle outlives its address");
    const CAM_HANDLE after = soak.Find(target);
    Check(after != before, "a camera keeps its handle over a new address");
    soak.Open(after);
    soak.Read(after, REG_WIDTH);
    soak.Close(after);
    Check(keloSetCameraIP(after, home.address, home.subnet_mask) == KELO_STATUS_SUCCESS, "set-IP");
    soak.Find(home);
}

// An answer of the read-back that comes too late can make a run go on with old answers, by design:
// it compares nothing any more and ends after two million steps. One that takes longer than any
// other is looked at.
bool IsLostInItsReadBack(const Soak& soak, const test::Stopwatch& run) {
    return run.Elapsed() > std::chrono::seconds(20) &&
           soak.Log().find("BUG OVERIDE: FW") != std::string::npos;
}

struct RunEnd {
    KELO_API_STATUS status = KELO_STATUS_SUCCESS;
    bool lost = false;  // in its read-back, and made to fail
};

// Polls a firmware run until it ends.
RunEnd Poll(Soak& soak, CAM_HANDLE handle) {
    RunEnd end;
    int last = 0;
    const test::Stopwatch run;
    const bool ended = WaitFor(
        [&] {
            int percent = 0;
            end.status = keloFirmwareGetProgress(handle, &percent);
            if (end.status != KELO_STATUS_SUCCESS) return true;
            Check(percent >= last && percent <= 100, "progress goes back");
            last = percent;
            if (!end.lost && IsLostInItsReadBack(soak, run)) {
                end.lost = true;
                // Now the first read that fails ends the run.
                (void)keloFirmwareProgramAbort(handle);
                soak.Do({.kind = Order::Kind::kSilence, .camera = 0, .value = 1});
            }
            return percent == 100;
        },
        std::chrono::seconds(200));
    if (end.lost) soak.Do({.kind = Order::Kind::kSilence, .camera = 0});
    Check(ended, "a firmware run does not end");
    return end;
}

void Program(Soak& soak) {
    const CAM_HANDLE handle = soak.Find(soak.Configs()[0]);
    const std::string file = soak.FirmwareFile();
    Check(keloFirmwareProgram(handle, (file + ".none").c_str()) == KELO_STATUS_ERROR,
          "a firmware file that is not there");
    Check(keloFirmwareProgram(handle, file.c_str()) == KELO_STATUS_SUCCESS, "a run does not begin");
    const bool abort = soak.Chance(3) == 0;
    if (abort) {
        Check(keloFirmwareProgramAbort(handle) == KELO_STATUS_SUCCESS, "an abort");
    }
    const RunEnd run = Poll(soak, handle);
    // The camera reads on with every request: one that is sent again leaves a piece out, and the
    // run fails by design.
    const bool skipped =
        run.lost ||
        soak.Log().find("FATAL: FW: ExtractReadData:  CurrentAddress") != std::string::npos;
    if (skipped && !abort) soak.InTimeOrWrong("a piece was read twice", 200000);
    soak.Expect(run.status, abort ? KELO_STATUS_ERROR : KELO_STATUS_SUCCESS, "the end of a run");
    const Answer flash = soak.Do({.kind = Order::Kind::kFlash, .camera = 0});
    if (!abort) Check(flash.flash_as_file, "the flash is not as the file");
    Check(WaitFor([&] { return soak.Status(0).powered; }), "the camera is not back");
    soak.Read(soak.Find(soak.Configs()[0]), REG_WIDTH);
}

}  // namespace

std::vector<Step> ControlSteps() {
    return {{"discover", Discover, 3},          {"read and write", ReadAndWrite, 8},
            {"move memory", MoveMemory, 4},     {"read side by side", ReadSideBySide, 3},
            {"lost replies", LoseReplies, 2},   {"misuse", Misuse, 3},
            {"set the address", SetAddress, 2}, {"firmware", Program, 1}};
}

}  // namespace kelo::soak
