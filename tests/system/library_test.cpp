#include <fcntl.h>
#include <sys/resource.h>

#include "system_fixture.h"

namespace kelo::test {
namespace {

using Library = SystemTest;

TEST_F(Library, ReleaseWithFourOpenCamerasIsQuick) {
    kelosim::CameraConfig base;
    base.streams[0].source = kelosim::MakeTestChart8(64, 64);
    base.streams[0].frame_rate = 20;
    AddCameras(4, base);
    simulator.Start();
    for (const CAM_HANDLE handle : DiscoverAll(4))
        OpenAndStart(handle);
    const auto begin = steady_clock::now();
    EXPECT_EQ(keloRelease(), KELO_STATUS_SUCCESS);
    const auto elapsed = steady_clock::now() - begin;
    // Less than a second on an idle machine; here only far from four cameras one after the other.
    EXPECT_LT(elapsed, seconds(8));
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_FALSE(simulator[i].used());
        EXPECT_FALSE(simulator[i].acquiring());
    }
    EXPECT_EQ(CloseEvents::count, 0);
}

TEST_F(Library, DeadCamerasAreClosedSideBySide) {
    AddCameras(8);
    simulator.Start();
    for (const CAM_HANDLE handle : DiscoverAll(8))
        Open(handle);
    for (size_t i = 0; i < 8; ++i)
        simulator[i].PowerOff();
    const auto begin = steady_clock::now();
    EXPECT_EQ(keloRelease(), KELO_STATUS_SUCCESS);
    // Two writes of 2.5 s each, for one camera; one after the other would take 40 s.
    EXPECT_LT(steady_clock::now() - begin, seconds(20));
}

TEST_F(Library, WorksAgainAfterARelease) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Open(camera);
    keloRelease();
    uint32_t value = 0;
    EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &value), KELO_STATUS_ERROR);
    EXPECT_EQ(keloGetPendingImageCount(handle, 0), -1);
    EXPECT_EQ(keloGetNextImageTimeout(handle, 0, 100000), nullptr);
    EXPECT_EQ(keloIsBufferEmpty(handle, 0), 1);
    ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Open(camera), handle);
}

TEST_F(Library, ReleaseFromACloseCallbackReturns) {
    kelosim::CameraConfig config;
    config.heartbeat_timeout_ms = 300;
    kelosim::Camera& camera = StartOne(config);
    const CAM_HANDLE handle = Find(camera);
    static std::atomic<bool> released;
    released = false;
    ASSERT_EQ(keloOpenCamera(handle,
                             [](CAM_HANDLE) {
                                 keloRelease();
                                 released = true;
                                 return KELO_STATUS_SUCCESS;
                             }),
              KELO_STATUS_SUCCESS);
    camera.PowerOff();
    EXPECT_TRUE(WaitFor([] { return released.load(); }, seconds(40)));
    uint32_t value = 0;
    EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &value), KELO_STATUS_ERROR);
}

TEST_F(Library, SurvivesRunningOutOfDescriptors) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Find(camera);
    keloRelease();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 3;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const KELO_API_STATUS status = keloInit();
    std::vector<CAM_HANDLE> found(4);
    const int count = keloDiscover(found.data(), 4, 10);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(status, KELO_STATUS_SUCCESS);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(Find(camera), handle);
}

TEST_F(Library, OwnsNoDescriptorBehindARelease) {
    kelosim::Camera& camera = StartOne();
    const auto count = [] {
        int open = 0;
        for (int fd = 0; fd < 1024; ++fd)
            open += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
        return open;
    };
    keloRelease();
    const int before = count();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        const CAM_HANDLE handle = OpenAndStart(camera);
        EXPECT_TRUE(Take(handle).arrived);
        keloRelease();
    }
    EXPECT_EQ(count(), before);
}

}  // namespace
}  // namespace kelo::test
