#include "camera_fault_fixture.h"

namespace kelo::test {
namespace {

// Cameras that reboot while they stream. The parameter: over TCP.
class Reboot : public CameraFaultTest, public testing::WithParamInterface<bool> {
protected:
    kelosim::Camera& StartCamera(uint32_t reboot_time_ms) {
        kelosim::CameraConfig config = Streaming();
        config.streams[0].over_tcp = GetParam();
        config.firmware.reboot_time_ms = reboot_time_ms;
        return StartOne(config);
    }
};

// Shorter than the time after which a silent camera is given up: the session goes on, the images do
// not, and opening it anew is all it takes.
TEST_P(Reboot, ThatIsShortEndsTheImagesAndNotTheSession) {
    kelosim::Camera& camera = StartCamera(100);
    const CAM_HANDLE handle = OpenAndStart(camera);
    AcquisitionJudge before(StreamOf(camera));
    ExpectWhole(handle, before);
    camera.Reboot();
    ASSERT_TRUE(WaitFor([&] { return camera.powered(); }));
    EXPECT_EQ(Get(handle, REG_MAX_STREAMS_MASK), 1u);
    EXPECT_FALSE(camera.used());
    // Nothing more is on its way, and what was cut short has been completed.
    ASSERT_TRUE(WaitFor([&] {
        before.JudgeAll(handle);
        const Image late = Take(handle, 0, 300);
        if (late.arrived) before.Judge(late);
        return !late.arrived;
    }));
    EXPECT_LE(before.damaged(), before.cut_in_two() ? 2u : 1u);
    EXPECT_EQ(CloseEvents::count, 0);

    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
    OpenAndStart(handle);
    ExpectWholeFromTheFirst(camera, handle);
    EXPECT_EQ(CloseEvents::count, 0);
}

// By itself: the application does nothing until it is told.
TEST_P(Reboot, ThatIsLongIsReportedOnceAndTheCameraFoundAgain) {
    kelosim::Camera& camera = StartCamera(3600000);
    const CAM_HANDLE handle = Find(camera);
    OpenWatchful(camera, handle);
    Start(handle);
    ExpectWholeFromTheFirst(camera, handle);
    camera.Reboot();
    WaitForLoss();
    camera.PowerOn();  // the reboot's end, so that the session need not wait for its farewells
    ASSERT_TRUE(WaitFor([] { return CloseEvents::count > 0; }));
    EXPECT_EQ(CloseEvents::last, handle);
    EXPECT_EQ(keloGetNextImage(handle, 0), nullptr);
    EXPECT_EQ(Find(camera), handle);
    camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 100000);
    OpenAndStart(handle);
    ExpectWholeFromTheFirst(camera, handle);
    EXPECT_EQ(CloseEvents::count, 1);
}

INSTANTIATE_TEST_SUITE_P(Streaming, Reboot, testing::Bool(),
                         [](const auto& test) { return test.param ? "Tcp" : "Udp"; });

}  // namespace
}  // namespace kelo::test
