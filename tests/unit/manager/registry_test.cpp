#include <filesystem>
#include <fstream>

#include "manager_fixture.h"

namespace kelo::test {
namespace {

using Registry = ManagerTest;

TEST_F(Registry, IsEmptyAtFirst) {
    CAM_HANDLE untouched = 77;
    EXPECT_EQ(manager->GetCameraList(&untouched, 1), 0);
    EXPECT_EQ(untouched, 77u);
    EXPECT_EQ(manager->FindHandle(0), nullptr);
    EXPECT_EQ(manager->FindIp(kCamera), nullptr);
    std::vector<std::shared_ptr<KELOCamera>> cameras;
    EXPECT_EQ(manager->GetCameraList(cameras), 0);
}

TEST_F(Registry, ListsAscendingHandlesUpToALimit) {
    for (uint8_t i = 0; i < 5; ++i)
        Receive(DiscoveryReply(kCamera + i, "Camera", 0xFF000000, i));
    ASSERT_EQ(manager->Discover(0, 0), 5u);
    const auto handles = Handles();
    ASSERT_EQ(handles.size(), 5u);
    EXPECT_TRUE(std::is_sorted(handles.begin(), handles.end()));
    CAM_HANDLE two[3] = {0, 0, 77};
    EXPECT_EQ(manager->GetCameraList(two, 2), 2);
    EXPECT_EQ(two[1], handles[1]);
    EXPECT_EQ(two[2], 77u);
    EXPECT_EQ(manager->GetCameraList(two, 0), 0);
    EXPECT_EQ(manager->GetCameraList(two, 0x80000000), 0);
    for (const CAM_HANDLE handle : handles)
        EXPECT_NE(manager->FindHandle(handle), nullptr);
    EXPECT_EQ(manager->FindIp(kCamera + 3)->GetIP(), kCamera + 3);
    manager->CamerasClear();
    EXPECT_TRUE(Handles().empty());
}

TEST_F(Registry, FindIpTakesTheLowestHandle) {
    Receive(DiscoveryReply(kCamera, "First"));
    manager->Discover(0, 0);
    const auto first = manager->FindIp(kCamera);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->GetId(), Handles().at(0));
}

TEST_F(Registry, StreamCallsWithoutARouteAnswerTheirValues) {
    EXPECT_EQ(manager->getStreamReceiver(kCamera, 0), nullptr);
    EXPECT_EQ(manager->GetPendingCount(kCamera, 0), 0u);
    BufferInfo image{};
    EXPECT_FALSE(manager->PopImage(kCamera, 0, &image));
    EXPECT_EQ(manager->GetImage(1000000, kCamera, 0), nullptr);
    manager->ClearBuffer(kCamera, 0);
    EXPECT_TRUE(manager->IsBufferEmpty(kCamera, 0));
}

TEST_F(Registry, RoutesEachStreamToItsReceiver) {
    EXPECT_TRUE(manager->IsImageStreamReceiverReady());
    EXPECT_NE(manager->GetStreamPort(), 0);
    manager->InitCamera(kCamera, 2, 20, 1);
    manager->InitStream(kCamera, 0, 0, 0, 0, 64, false);
    IImageStreamReceiver* udp = manager->getStreamReceiver(kCamera, 0);
    ASSERT_NE(udp, nullptr);
    EXPECT_EQ(udp->GetStreamPort(), manager->GetStreamPort());
    BufferInfo image{};
    EXPECT_FALSE(manager->PopImage(kCamera, 0, &image));  // known stream, unknown image
    manager->ExitCamera(kCamera);
    EXPECT_TRUE(manager->PopImage(kCamera, 0, &image));  // the route stays, its stream is gone
    // Nobody listens on port 1: the route is set all the same.
    manager->InitStream(kCamera, 0, 0, 0, 0, 64, true);
    EXPECT_NE(manager->getStreamReceiver(kCamera, 0), udp);
}

TEST_F(Registry, ATcpStreamOfAnUnknownCameraIsRefused) {
    EXPECT_THROW(manager->InitStream(kCamera, 0, 0, 0, 0, 64, true), std::out_of_range);
    EXPECT_EQ(manager->getStreamReceiver(kCamera, 0), nullptr);
}

TEST_F(Registry, HasNoFilterDriverToMiss) {
    EXPECT_FALSE(manager->IsMissingFilterDriver());
}

TEST_F(Registry, TakesOptions) {
    EXPECT_TRUE(manager->SetImageOptions("UDP 2"));
    EXPECT_FALSE(manager->SetImageOptions("UDP 0.1"));
    EXPECT_FALSE(manager->SetImageOptions(nullptr));
}

TEST(OptionsFile, IsReadFromTheCurrentDirectoryWhateverItHolds) {
    const auto before = std::filesystem::current_path();
    const auto directory =
        std::filesystem::temp_directory_path() / ("kelo-options-" + std::to_string(getpid()));
    std::filesystem::create_directory(directory);
    std::filesystem::current_path(directory);
    for (const std::string& text : {std::string("UDP 2\n"), std::string(), std::string(5000, 'x'),
                                    std::string("\0\0\xFF\n", 4)}) {
        std::ofstream("ImagePacketCommunicatorOptions.txt") << text;
        const KELOManager manager;
        EXPECT_TRUE(manager.IsImageStreamReceiverReady());
    }
    std::filesystem::current_path(before);
    std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace kelo::test
