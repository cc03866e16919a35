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
    kelosim::Camera& camera = StartOne(Config(900));
    const CAM_HANDLE handle = Open(camera);
    camera.ClearRequests();
    // Longer than the watchdog's time, without any call.
    ASSERT_TRUE(WaitFor([&] { return camera.Requests().size() >= 5; }));
    for (const auto& request : camera.Requests()) {
        EXPECT_EQ(request.register_number, uint32_t{REG_WIDTH});
    }
    EXPECT_EQ(camera.counters().watchdog_expired, 0u);
    EXPECT_TRUE(camera.used());
    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
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
    kelosim::Camera& camera = StartOne(Config(300));
    const CAM_HANDLE handle = Find(camera);
    ASSERT_EQ(keloOpenCamera(handle, &Reopen), KELO_STATUS_SUCCESS);
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.silent = true; });
    ASSERT_TRUE(WaitFor([&] { return log.Contains("KELOCamera::HeartbeatIsMissing()"); }));
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.silent = false; });
    ASSERT_TRUE(WaitFor([] { return CloseEvents::count == 1; }, seconds(40)));
    EXPECT_EQ(reopened, KELO_STATUS_SUCCESS);
    EXPECT_TRUE(camera.used());
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
