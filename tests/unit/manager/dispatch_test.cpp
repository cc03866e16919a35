#include <atomic>
#include <chrono>
#include <thread>

#include "library.h"
#include "manager_fixture.h"
#include "utils.h"

namespace kelo::test {
namespace {

using Dispatch = ManagerTest;

constexpr const char* kUnknown = "KELOManager::OnRcv: unknown response.";

TEST_F(Dispatch, UpTo14BytesAreDroppedWithoutAWord) {
    const Bytes datagram = Header(5, 1);
    for (size_t length = 0; length <= 14; ++length) {
        Receive(Bytes(datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(length)));
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Dispatch, AnUnknownSenderIsLogged) {
    Bytes datagram = Header(5, 1);
    datagram.push_back(0);
    Receive(datagram);
    EXPECT_EQ(log.Count(kUnknown), 1u);
}

TEST_F(Dispatch, From15BytesOnADatagramReachesTheCameraOfItsSender) {
    Receive(DiscoveryReply(kCamera, "Camera"));
    ASSERT_EQ(manager->Discover(0, 0), 1u);
    Bytes datagram = Header(5, 99);
    Receive(datagram);
    const std::string discarded =
        "discarded message from camera our msg num != rcvd msg num 1 != 99";
    EXPECT_EQ(log.Count(discarded), 0u);
    datagram.push_back(0);
    Receive(datagram);
    EXPECT_EQ(log.Count(discarded), 1u);
    Receive(datagram, kCamera + 1);
    EXPECT_EQ(log.Count(kUnknown), 1u);
}

TEST_F(Dispatch, ADiscoveryReplyOfARegisteredCameraIsNotPassedOn) {
    Receive(DiscoveryReply(kCamera, "Camera"));
    ASSERT_EQ(manager->Discover(0, 0), 1u);
    Receive(DiscoveryReply(kCamera, "Camera"));
    EXPECT_EQ(log.Count("got VC_DISCOVER_REPLY"), 0u);
}

TEST_F(Dispatch, AShortDiscoveryReplyIsReadNoFurtherThanItGoes) {
    Bytes stump = Header(2, 0);
    stump.push_back(1);
    stump.shrink_to_fit();
    Receive(stump);
    EXPECT_EQ(manager->Discover(0, 0), 1u);  // a camera without description at 0.0.0.0
    EXPECT_NE(manager->FindIp(0), nullptr);
}

TEST_F(Dispatch, AFloodOfDiscoveryRepliesIsBounded) {
    for (uint32_t i = 0; i < 6000; ++i)
        Receive(DiscoveryReply(0x0A000000 + i, "Made up"));
    kelo::test::LogCapture discovery_log;
    EXPECT_EQ(manager->Discover(0, 0), 1024u);
    EXPECT_EQ(discovery_log.Count("Discover: Got 4096 responses."), 1u);
}

std::atomic<int> calls{0};
std::atomic<CAM_HANDLE> last_handle{0};
std::atomic<std::thread::id> caller{};

KELO_API_STATUS OnClosed(CAM_HANDLE handle) {
    last_handle = handle;
    caller = std::this_thread::get_id();
    ++calls;
    return KELO_STATUS_ERROR;  // ignored
}

TEST_F(Dispatch, CallbacksRunOnTheManagersOwnThread) {
    calls = 0;
    manager->AddCallbackRequest(42, &OnClosed);
    ASSERT_TRUE(WaitFor([] { return calls == 1; }));
    EXPECT_EQ(last_handle, 42u);
    EXPECT_NE(caller.load(), std::this_thread::get_id());
    ASSERT_TRUE(WaitFor([&] { return log.Count("Returned from the callback") == 1; }));
}

TEST_F(Dispatch, CallbacksRunInTheOrderQueuedAlsoWhenTheQueueWasFull) {
    calls = 0;
    for (CAM_HANDLE handle = 1; handle <= 3000; ++handle) {
        manager->AddCallbackRequest(handle, &OnClosed);
    }
    ASSERT_TRUE(WaitFor([] { return calls == 3000; }));
    EXPECT_EQ(last_handle, 3000u);
}

std::atomic<bool> callback_inside{false};
std::atomic<bool> callback_left{false};

// Is inside the library, as with a call that waits for a dead camera, for longer than a release
// waits for the calls of other threads.
KELO_API_STATUS StayInside(CAM_HANDLE) {
    const auto held = CurrentManager();
    callback_inside = true;
    EXPECT_TRUE(WaitFor([] { return CurrentManager() == nullptr; }));
    Sleep(400);
    callback_left = true;
    return KELO_STATUS_SUCCESS;
}

TEST(Release, WaitsForACallbackThatIsInsideTheLibrary) {
    const LogCapture log;
    CreateManager();
    CurrentManager()->AddCallbackRequest(1, &StayInside);
    ASSERT_TRUE(WaitFor([] { return callback_inside.load(); }));
    DestroyManager();
    EXPECT_TRUE(callback_left);
}

TEST_F(Dispatch, AnIdleManagerIsStoppedQuickly) {
    const auto begin = std::chrono::steady_clock::now();
    manager.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

}  // namespace
}  // namespace kelo::test
