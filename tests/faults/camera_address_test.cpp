#include "camera_fault_fixture.h"
#include "wire_client.h"

namespace kelo::test {
namespace {

constexpr uint32_t kOldAddress = Address(127, 0, 0, 11);
constexpr uint32_t kNewAddress = Address(127, 0, 0, 99);
constexpr uint32_t kMask = 0xFF000000;

class MovingCamera : public CameraFaultTest {
protected:
    static void MoveAsAnotherHost(const kelosim::Camera& camera) {
        const auto mac = camera.config().mac;
        kelosim::test::UdpClient other;
        other.Broadcast(
            kelosim::test::SetIp({mac.begin(), mac.end()}, kOldAddress, kNewAddress, kMask));
        EXPECT_TRUE(WaitFor([&] { return camera.address() == kNewAddress; }));
    }
    // The handle is the application's no more, whatever it does with it.
    static void ExpectUnknown(CAM_HANDLE handle) {
        uint32_t value = 0;
        EXT_CAM_INFO info{};
        EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &value), KELO_STATUS_ERROR);
        EXPECT_EQ(keloGetCameraInfo(handle, &info), KELO_STATUS_ERROR);
        EXPECT_EQ(keloGetNextImage(handle, 0), nullptr);
        EXPECT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_ERROR);
    }
};

enum class Session { kKnown, kOpen, kStreaming };
enum class By { kUs, kAnotherHost };

struct Move {
    const char* name;
    Session session;
    By by;
};

// By our call or by another host's, in every state of the session.
class AddressChange : public MovingCamera, public testing::WithParamInterface<Move> {};

TEST_P(AddressChange, EndsTheSessionOnceAndTheCameraIsFoundAnew) {
    const auto& [name, session, by] = GetParam();
    kelosim::Camera& camera = StartOne(Streaming());
    const CAM_HANDLE before = Find(camera);
    if (session != Session::kKnown) OpenWatchful(camera, before);
    if (session == Session::kStreaming) {
        Start(before);
        ExpectWholeFromTheFirst(camera, before);
    }
    if (by == By::kUs) {
        EXPECT_EQ(keloSetCameraIP(before, kNewAddress, kMask), KELO_STATUS_SUCCESS);
        ExpectUnknown(before);
    } else {
        MoveAsAnotherHost(camera);
    }
    const int reports = session == Session::kKnown ? 0 : 1;
    ASSERT_TRUE(WaitFor([&] { return CloseEvents::count >= reports; }));

    const CAM_HANDLE after = Find(kNewAddress);
    ASSERT_NE(after, 0u);
    EXPECT_NE(after, before);
    ExpectUnknown(before);
    EXPECT_FALSE(camera.used());
    OpenAndStart(after);
    ExpectWholeFromTheFirst(camera, after);
    EXPECT_EQ(keloCloseCamera(after), KELO_STATUS_SUCCESS);
    EXPECT_EQ(CloseEvents::count, reports);
}

INSTANTIATE_TEST_SUITE_P(
    While, AddressChange,
    testing::Values(Move{"KnownByUs", Session::kKnown, By::kUs},
                    Move{"OpenByUs", Session::kOpen, By::kUs},
                    Move{"StreamingByUs", Session::kStreaming, By::kUs},
                    Move{"KnownByAnotherHost", Session::kKnown, By::kAnotherHost},
                    Move{"OpenByAnotherHost", Session::kOpen, By::kAnotherHost},
                    Move{"StreamingByAnotherHost", Session::kStreaming, By::kAnotherHost}),
    [](const auto& test) { return test.param.name; });

// The next discovery finds another camera where the streaming one was: their images and registers
// must not be taken for each other's.
TEST_F(MovingCamera, AnotherOneAtItsOldAddressIsAnotherCamera) {
    kelosim::CameraConfig other = With({ChartStream(0, 100)});
    other.address = kNewAddress;
    other.streams[0].source = kelosim::MakeBytes(5000, 100, 50);
    kelosim::Camera& moved = AddCamera(Streaming());
    kelosim::Camera& successor = AddCamera(other);
    simulator.Start();
    const CAM_HANDLE before = Among(DiscoverAll(2), kOldAddress);
    OpenAndStart(before);
    ExpectWholeFromTheFirst(moved, before);

    moved.SetAddress(Address(127, 0, 0, 50), kMask);
    successor.SetAddress(kOldAddress, kMask);
    const auto handles = DiscoverAll(2);
    EXPECT_TRUE(WaitFor([] { return CloseEvents::count == 1; }));
    EXPECT_EQ(CloseEvents::last, before);
    ExpectUnknown(before);
    for (kelosim::Camera* camera : {&moved, &successor}) {
        const CAM_HANDLE handle = Among(handles, camera->address());
        ASSERT_NE(handle, 0u);
        EXPECT_NE(handle, before);
        OpenAndStart(handle);
        ExpectWholeFromTheFirst(*camera, handle);
    }
    EXPECT_EQ(CloseEvents::count, 1);
}

}  // namespace
}  // namespace kelo::test
