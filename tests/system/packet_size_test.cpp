#include "remote_camera.h"
#include "system_fixture.h"

namespace kelo::test {
namespace {

struct Path {
    uint32_t carries;
    uint32_t chosen;
};

class PathSize : public SystemTest, public testing::WithParamInterface<Path> {};

TEST_P(PathSize, DecidesThePacketSize) {
    kelosim::CameraConfig config;
    config.path_packet_size = GetParam().carries;
    kelosim::Camera& camera = StartOne(config);
    const uint32_t before = camera.GetRegister(REG_MTU);
    Open(camera);
    EXPECT_EQ(camera.GetRegister(REG_MTU), GetParam().chosen != 0 ? GetParam().chosen : before);
}

INSTANTIATE_TEST_SUITE_P(Loopback, PathSize,
                         testing::Values(Path{1000, 0}, Path{1500, 1500}, Path{4074, 4074},
                                         Path{8499, 4074}, Path{8500, 8500}, Path{9000, 9000}));

// The camera at the far end of a cable. Made before the library, which starts threads: a process
// with threads should not fork.
class FarEnd : public testing::WithParamInterface<Path> {
protected:
    FarEnd() {
        if (InPrivateNetwork()) remote = std::make_unique<RemoteCamera>(GetParam().carries);
    }
    std::unique_ptr<RemoteCamera> remote;
};

class CableSize : public FarEnd, public SystemTest {};

TEST_P(CableSize, DecidesThePacketSize) {
    if (remote == nullptr) GTEST_SKIP() << "needs a network of its own to lay the cable";
    const CAM_HANDLE handle = Find(RemoteCamera::kAddress);
    ASSERT_NE(handle, 0u);
    ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Get(handle, REG_MTU), GetParam().chosen);
    ASSERT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    for (int i = 0; i < 5; ++i) {
        const Image image = Take(handle);
        ASSERT_TRUE(image.arrived);
        EXPECT_EQ(image.bytes_lost, 0);
        EXPECT_EQ(image.data, RemoteCamera::Stream().Frame(image.number));
    }
    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Veth, CableSize,
                         testing::Values(Path{1500, 1500}, Path{4074, 4074}, Path{8500, 8500},
                                         Path{9000, 9000}));

}  // namespace
}  // namespace kelo::test
