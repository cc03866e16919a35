#include "remote_camera.h"
#include "system_fixture.h"

namespace kelo::test {
namespace {

struct Path {
    uint32_t carries;
    uint32_t chosen;
};

// Opens the camera and returns the packet size that it has then. When an answer comes too late and
// the request is made again, the camera sends its test datagram twice, and the next size may seem
// not to pass: a wrong size counts only if no request can have been made again.
template <typename OpenAndAsk>
uint32_t ChosenInTime(uint32_t expected, const OpenAndAsk& open_and_ask) {
    uint32_t chosen = 0;
    RepeatUntilInTime([&] {
        const Stopwatch time;
        chosen = open_and_ask();
        return chosen == expected || time.Elapsed() < milliseconds(250);
    });
    return chosen;
}

class PathSize : public SystemTest, public testing::WithParamInterface<Path> {};

TEST_P(PathSize, DecidesThePacketSize) {
    kelosim::CameraConfig config;
    config.path_packet_size = GetParam().carries;
    kelosim::Camera& camera = StartOne(config);
    const uint32_t before = camera.GetRegister(REG_MTU);
    const CAM_HANDLE handle = Find(camera);
    const uint32_t expected = GetParam().chosen != 0 ? GetParam().chosen : before;
    const uint32_t chosen = ChosenInTime(expected, [&] {
        keloCloseCamera(handle);
        camera.SetRegister(REG_MTU, before);
        Open(handle);
        return camera.GetRegister(REG_MTU);
    });
    EXPECT_EQ(chosen, expected);
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
    const uint32_t chosen = ChosenInTime(GetParam().chosen, [&] {
        keloCloseCamera(handle);
        Open(handle);
        return Get(handle, REG_MTU);
    });
    EXPECT_EQ(chosen, GetParam().chosen);
    RepeatUntilInTime([&] {
        const size_t before = log.Text().size();
        EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        EXPECT_TRUE(WaitFor([&] { return keloGetPendingImageCount(handle, 0) >= 5; }));
        if (AnImageWasCutShort(before)) {
            EXPECT_EQ(keloStopImageAcquisition(handle), KELO_STATUS_SUCCESS);
            keloClearBuffer(handle, 0);
            return false;
        }
        for (int i = 0; i < 5; ++i) {
            const Image image = Take(handle);
            EXPECT_EQ(image.bytes_lost, 0);
            EXPECT_EQ(image.data, RemoteCamera::Stream().Frame(image.number));
        }
        return true;
    });
    EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Veth, CableSize,
                         testing::Values(Path{1500, 1500}, Path{4074, 4074}, Path{8500, 8500},
                                         Path{9000, 9000}));

}  // namespace
}  // namespace kelo::test
