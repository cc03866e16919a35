#include <set>

#include "system_fixture.h"

namespace kelo::test {
namespace {

using Discovery = SystemTest;

TEST_F(Discovery, FindsEveryCameraWithItsIdentity) {
    kelosim::CameraConfig config;
    config.description = "A camera whose text has 32 chars";
    config.mac = {2, 0x10, 0x20, 0x30, 0x40, 0x50};
    AddCamera(config);
    AddCameras(3, {.address = kelosim::Ipv4(127, 0, 0, 21)});
    simulator.Start();
    const auto handles = DiscoverAll(4);
    ASSERT_EQ(handles.size(), 4u);
    EXPECT_TRUE(std::is_sorted(handles.begin(), handles.end()));
    std::set<uint32_t> addresses;
    for (const CAM_HANDLE handle : handles) {
        EXT_CAM_INFO info;
        memset(&info, 0xEE, sizeof(info));
        ASSERT_EQ(keloGetCameraInfo(handle, &info), KELO_STATUS_SUCCESS);
        EXPECT_EQ(info.camera_handle, handle);
        EXPECT_EQ(info.camera_subnetmask, 0xFF000000u);
        EXPECT_EQ(info.description[32], 0);
        addresses.insert(info.camera_ip);
        if (info.camera_ip == kelosim::Ipv4(127, 0, 0, 11)) {
            EXPECT_STREQ(info.description, "A camera whose text has 32 chars");
            EXPECT_THAT(info.camera_mac, testing::ElementsAre(2, 0x10, 0x20, 0x30, 0x40, 0x50));
        }
    }
    EXPECT_EQ(addresses.size(), 4u);
}

TEST_F(Discovery, ListsTheLowestHandlesUpToTheLimit) {
    AddCameras(5);
    simulator.Start();
    const auto all = DiscoverAll(5);
    ASSERT_EQ(all.size(), 5u);
    std::vector<CAM_HANDLE> two;
    EXPECT_TRUE(HoldsForADiscovery([&](uint32_t listen_ms) {
        two = Discover(2, listen_ms);
        return two == std::vector{all[0], all[1]};
    })) << testing::PrintToString(two);
    EXPECT_EQ(keloDiscover(nullptr, 5, kListenMs), 0);
}

TEST_F(Discovery, KeepsHandlesOverDiscoveries) {
    AddCameras(3);
    simulator.Start();
    EXPECT_EQ(DiscoverAll(3), DiscoverAll(3));
}

TEST_F(Discovery, WithoutCamerasLeavesTheListAlone) {
    CAM_HANDLE untouched = 77;
    EXPECT_EQ(keloDiscover(&untouched, 1, 0), 0);
    EXPECT_EQ(untouched, 77u);
}

TEST_F(Discovery, ASilentCameraIsDroppedAndItsOpenSessionReported) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE handle = Open(camera);
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.ignore_discovery = true; });
    EXPECT_TRUE(Discover().empty());
    uint32_t value = 0;
    EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &value), KELO_STATUS_ERROR);
    ASSERT_TRUE(WaitFor([] { return CloseEvents::count == 1; }));
    EXPECT_EQ(CloseEvents::last, handle);
    // It still answers requests, so it was told.
    EXPECT_FALSE(camera.used());
}

TEST_F(Discovery, ACameraWhoseAnswerComesWhenItsTransportIsGivenUpCanBeUsed) {
    kelosim::Camera& camera = StartOne();
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.reply_delay_ms = 30; });
    CAM_HANDLE handle = 0;
    ASSERT_TRUE(WaitFor([&] {
        handle = Among(Discover(4, 0), camera.address());
        return handle != 0;
    }));
    EXPECT_EQ(Get(handle, REG_CAMERA_USED), 0u);
    Open(handle);
    EXPECT_TRUE(camera.used());
}

TEST_F(Discovery, AnOpenCameraStaysOpenOverADiscovery) {
    kelosim::Camera& camera = StartOne();
    EXPECT_TRUE(HoldsForADiscovery([&](uint32_t listen_ms) {
        CloseEvents::Reset();
        const CAM_HANDLE handle = Open(camera);
        const auto found = Discover(1024, listen_ms);
        if (found.empty()) {  // its answer came too late: it was dropped
            EXPECT_TRUE(WaitFor([] { return CloseEvents::count == 1; }));
            return false;
        }
        EXPECT_THAT(found, testing::ElementsAre(handle));
        EXPECT_TRUE(camera.used());
        EXPECT_EQ(CloseEvents::count, 0);
        Get(handle, REG_WIDTH);
        return true;
    }));
}

TEST_F(Discovery, SetIpMovesTheCameraToANewHandle) {
    kelosim::Camera& camera = StartOne();
    const CAM_HANDLE before = Open(camera);
    const uint32_t target = kelosim::Ipv4(127, 0, 0, 99);
    ASSERT_EQ(keloSetCameraIP(before, target, 0xFFFF0000), KELO_STATUS_SUCCESS);
    EXT_CAM_INFO info{};
    EXPECT_EQ(keloGetCameraInfo(before, &info), KELO_STATUS_ERROR);
    const CAM_HANDLE after = Find(target);
    ASSERT_NE(after, 0u);
    EXPECT_NE(after, before);
    ASSERT_EQ(keloGetCameraInfo(after, &info), KELO_STATUS_SUCCESS);
    EXPECT_EQ(info.camera_subnetmask, 0xFFFF0000u);
    EXPECT_EQ(camera.address(), target);
    EXPECT_EQ(keloOpenCamera(after, nullptr), KELO_STATUS_SUCCESS);
}

TEST_F(Discovery, SetIpOfAnUnknownHandleFails) {
    EXPECT_EQ(keloSetCameraIP(1, 2, 3), KELO_STATUS_ERROR);
}

}  // namespace
}  // namespace kelo::test
