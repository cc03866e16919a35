#include "system_fixture.h"

namespace kelo::test {
namespace {

class Heartbeat : public SystemTest {
protected:
    static kelosim::CameraConfig Config(uint32_t timeout_ms) {
        kelosim::CameraConfig config;
        config.heartbeat_timeout_ms = timeout_ms;
        return config;
    }
};

TEST_F(Heartbeat, KeepsTheCamerasWatchdogFed) {
    constexpr uint32_t kTimeoutMs = 900;
    kelosim::Camera& camera = StartOne(Config(kTimeoutMs));
    // An attempt counts when the camera never had to wait for the watchdog's time: a library that
    // lets it wait makes none count.
    RepeatUntilInTime([&] {
        const CAM_HANDLE handle = Find(camera);
        const uint64_t expired = camera.counters().watchdog_expired;
        Stopwatch since_last;  // since when at the latest the camera has heard nothing
        Stopwatch since_look;
        steady_clock::duration longest{};
        size_t seen = 0;
        Open(handle);
        camera.ClearRequests();
        // Longer than the watchdog's time, without any call.
        const bool came = WaitFor([&] {
            const Stopwatch look;
            const size_t count = camera.Requests().size();
            longest = std::max(longest, since_last.Elapsed());
            if (count > seen) since_last = since_look;
            seen = count;
            since_look = look;
            return count >= 5 || longest >= milliseconds(kTimeoutMs);
        });
        const uint64_t expired_meanwhile = camera.counters().watchdog_expired - expired;
        const bool used = camera.used();
        longest = std::max(longest, since_last.Elapsed());
        const auto requests = camera.Requests();
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        if (longest >= milliseconds(kTimeoutMs)) return false;
        EXPECT_TRUE(came);
        for (const auto& request : requests) {
            EXPECT_EQ(request.register_number, uint32_t{REG_WIDTH});
        }
        EXPECT_EQ(expired_meanwhile, 0u);
        EXPECT_TRUE(used);
        return true;
    });
}

TEST_F(Heartbeat, ALostCameraIsClosedAndReported) {
    kelosim::Camera& camera = StartOne(Config(300));
    const CAM_HANDLE handle = Open(camera);
    camera.PowerOff();
    ASSERT_TRUE(WaitFor([] { return CloseEvents::count == 1; }, seconds(40)));
    EXPECT_EQ(CloseEvents::last, handle);
    ASSERT_TRUE(WaitFor([&] { return log.ContainsPrefix("heartbeat missing, 0x0x"); }));
    EXPECT_TRUE(log.Contains("KELOCamera::HeartbeatIsMissing()"));
    EXPECT_TRUE(log.Contains("doClose(notify app == true) isOpened == true"));
    ASSERT_TRUE(WaitFor([&] { return log.Contains("Returned from the callback"); }));
    // Back again, it can be opened anew.
    camera.PowerOn();
    EXPECT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
}

std::atomic<KELO_API_STATUS> reopened{KELO_STATUS_NO_RESPONSE};

KELO_API_STATUS Reopen(CAM_HANDLE handle) {
    reopened = keloOpenCamera(handle, nullptr);
    ++CloseEvents::count;
    return KELO_STATUS_SUCCESS;
}

TEST_F(Heartbeat, TheCallbackMayCallTheLibrary) {
    const std::string lost = "KELOCamera::HeartbeatIsMissing()";
    kelosim::Camera& camera = StartOne(Config(300));
    const CAM_HANDLE handle = Find(camera);
    const auto fall_silent = [&](bool silent) {
        camera.UpdateFaults([=](kelosim::Faults& faults) { faults.silent = silent; });
    };
    RepeatUntilInTime([&] {
        CloseEvents::Reset();
        const size_t lost_before = log.Count(lost);
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 300);
        EXPECT_EQ(keloOpenCamera(handle, &Reopen), KELO_STATUS_SUCCESS);
        fall_silent(true);
        const bool in_time = log.Count(lost) == lost_before;
        EXPECT_TRUE(WaitFor([&] { return log.Count(lost) > lost_before; }));
        // The reopened session is there to stay.
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 100000);
        fall_silent(false);
        EXPECT_TRUE(WaitFor([] { return CloseEvents::count == 1; }, seconds(40)));
        if (in_time) {
            EXPECT_EQ(reopened, KELO_STATUS_SUCCESS);
            EXPECT_TRUE(camera.used());
        }
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
}

TEST_F(Heartbeat, ATimeoutOfZeroMeansNoKeepAlive) {
    kelosim::Camera& camera = StartOne(Config(0));
    Open(camera);
    camera.ClearRequests();
    std::this_thread::sleep_for(milliseconds(400));
    EXPECT_TRUE(camera.Requests().empty());
}

}  // namespace
}  // namespace kelo::test
