#include <filesystem>

#include "camera_fault_fixture.h"
#include "far_network.h"
#include "kelosim/firmware.h"
#include "process_figures.h"
#include "read_back_guard.h"

namespace kelo::test {
namespace {

using End = FarNetwork::End;

// Longer than a request's first attempt waits, shorter than all four.
constexpr milliseconds kOutage(400);

// The far network goes when the library has gone.
class FarCamera {
protected:
    FarCamera() {
        if (InPrivateNetwork()) far = std::make_unique<FarNetwork>();
    }
    std::unique_ptr<FarNetwork> far;
};

class CableTest : public FarCamera, public CameraFaultTest {
protected:
    void SetUp() override {
        if (far == nullptr) GTEST_SKIP() << "needs a network of its own to lay the cable";
        camera = &far->StartCamera(Patient(Streaming()));
        handle = Find(*camera);
        ASSERT_NE(handle, 0u);
    }
    // Makes the library forget a camera, and with it what its session keeps.
    static void Forget(kelosim::Camera& forgotten) {
        forgotten.UpdateFaults([](auto& faults) { faults.ignore_discovery = true; });
        EXPECT_TRUE(WaitFor([&] { return Among(Discover(), forgotten.address()) == 0; }));
        forgotten.UpdateFaults([](auto& faults) { faults.ignore_discovery = false; });
    }
    static void WaitOut() { std::this_thread::sleep_for(kOutage); }

    kelosim::Camera* camera = nullptr;
    CAM_HANDLE handle = 0;
};

// At whichever end the cable is pulled.
class Cable : public CableTest, public testing::WithParamInterface<End> {};

TEST_P(Cable, PulledAndPutBackDuringDiscoveries) {
    RepeatUntilInTime([&] {
        const uint64_t asked = camera->counters().replies;
        std::atomic<bool> over{false};
        std::vector<CAM_HANDLE> found;
        std::thread discovery([&] {
            found = Discover(1, 600);
            over = true;
        });
        EXPECT_TRUE(WaitFor([&] { return camera->counters().replies > asked; }));
        far->Pull(GetParam());
        const bool in_time = !over;
        discovery.join();
        if (in_time) {
            EXPECT_THAT(found, testing::ElementsAre(handle));
        }
        EXPECT_TRUE(Discover().empty());
        uint32_t value = 0;
        EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &value), KELO_STATUS_ERROR);
        far->PutBack(GetParam());
        EXPECT_EQ(Find(*camera), handle);
        return in_time;
    });
    OpenAndStart(handle);
    ExpectWholeFromTheFirst(*camera, handle);
}

TEST_P(Cable, PulledAndPutBackWithinAnOpenCostsOnlyTime) {
    RepeatUntilInTime([&] {
        camera->ClearRequests();
        camera->UpdateFaults([](kelosim::Faults& faults) {
            faults.drop_replies = 1;
            faults.drop_replies_register = REG_STREAMPORT;
        });
        KELO_API_STATUS status = KELO_STATUS_ERROR;
        std::thread opening([&] { status = keloOpenCamera(handle, &CloseEvents::OnClosed); });
        EXPECT_TRUE(WaitFor([&] { return camera->counters().replies_dropped > 0; }));
        const Stopwatch outage;
        far->Pull(GetParam());
        WaitOut();
        far->PutBack(GetParam());
        bool in_time = outage.Elapsed() < milliseconds(1000);
        opening.join();
        if (in_time) {
            EXPECT_EQ(status, KELO_STATUS_SUCCESS);
            std::vector<uint32_t> numbers;
            for (const auto& request : camera->Requests()) {
                if (request.register_number == REG_STREAMPORT)
                    numbers.push_back(request.message_number);
            }
            EXPECT_GE(numbers.size(), 2u);
            // The camera has missed at least one attempt, or none was made meanwhile.
            in_time = numbers.back() - numbers.front() >= 2;
            Start(handle);
            ExpectWholeFromTheFirst(*camera, handle);
        }
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
    EXPECT_EQ(CloseEvents::count, 0);
}

TEST_P(Cable, PulledAndPutBackWhileImagesCome) {
    OpenAndStart(handle);
    AcquisitionJudge judge(StreamOf(*camera));
    ExpectWhole(handle, judge);
    far->Pull(GetParam());
    WaitOut();
    far->PutBack(GetParam());
    // By themselves: nobody starts anything again.
    EXPECT_TRUE(WaitFor([&] {
        judge.JudgeAll(handle);
        return judge.skipped() > 0 || judge.cut_in_two();
    }));
    ExpectWhole(handle, judge);
    EXPECT_EQ(judge.first_number(), 1u);
    if (!judge.cut_in_two()) {
        EXPECT_EQ(judge.whole() + judge.damaged() + judge.skipped(), judge.last_number());
        EXPECT_LE(judge.damaged(), 2u);
    }
    EXPECT_EQ(Get(handle, REG_WIDTH), 320u);
    EXPECT_EQ(CloseEvents::count, 0);
}

INSTANTIATE_TEST_SUITE_P(At, Cable, testing::Values(End::kHost, End::kFar), [](const auto& test) {
    return test.param == End::kHost ? "TheHost" : "TheFarEnd";
});

TEST_F(CableTest, PulledDuringAnOpenFailsItAndTheNextOneSucceeds) {
    camera->UpdateFaults([](kelosim::Faults& faults) {
        faults.drop_replies = 1;
        faults.drop_replies_register = REG_STREAMPORT;
    });
    KELO_API_STATUS status = KELO_STATUS_SUCCESS;
    std::thread opening([&] { status = keloOpenCamera(handle, &CloseEvents::OnClosed); });
    EXPECT_TRUE(WaitFor([&] { return camera->counters().replies_dropped > 0; }));
    far->Pull(End::kHost);
    opening.join();
    EXPECT_EQ(status, KELO_STATUS_ERROR);
    far->PutBack(End::kHost);
    OpenAndStart(handle);
    ExpectWholeFromTheFirst(*camera, handle);
    EXPECT_EQ(CloseEvents::count, 0);
}

TEST_F(CableTest, PulledForGoodIsReportedOnceAndTheCameraFoundAgain) {
    OpenWatchful(*camera, handle);
    Start(handle);
    ExpectWholeFromTheFirst(*camera, handle);
    far->Pull(End::kHost);
    WaitForLoss();
    far->PutBack(End::kHost);  // or the session's farewells would be waited for
    ASSERT_TRUE(WaitFor([] { return CloseEvents::count > 0; }));
    EXPECT_EQ(CloseEvents::last, handle);
    EXPECT_EQ(Find(*camera), handle);
    OpenAndStart(handle);
    ExpectWholeFromTheFirst(*camera, handle);
    EXPECT_EQ(CloseEvents::count, 1);
}

TEST_F(CableTest, PulledAndPutBackWhileFirmwareIsSent) {
    const auto image = kelosim::MakeFirmwareImage(kelosim::kMinFirmwareSize, 7);
    const std::string path =
        std::filesystem::temp_directory_path() / ("kelo-cable-" + std::to_string(getpid()));
    kelosim::WriteFirmwareFile(path, image);
    const auto writes = [&] {
        size_t count = 0;
        for (const auto& request : camera->Requests())
            count += request.register_number == KELO_CMD_FIRMWARE ? 1 : 0;
        return count;
    };
    const auto delay_replies = [&](uint32_t ms) {
        camera->UpdateFaults([ms](auto& faults) { faults.reply_delay_ms = ms; });
    };
    const std::string retry = "FW writeMemory failed (attempt 1 of 3)";
    RepeatUntilInTime([&] {
        camera->ClearRequests();
        const size_t retries_before = log.Count(retry);
        const ReadBackGuard guard(*camera, image.size());
        // So slowly that the image is still being sent when the cable is pulled.
        delay_replies(1);
        EXPECT_EQ(keloFirmwareProgram(handle, path.c_str()), KELO_STATUS_SUCCESS);
        EXPECT_TRUE(WaitFor([&] { return writes() > 500; }));
        const Stopwatch outage;
        far->Pull(End::kHost);
        // The attempt that the cable took away has been given up.
        EXPECT_TRUE(WaitFor([&] { return log.Count(retry) > retries_before; }));
        far->PutBack(End::kHost);
        delay_replies(0);
        const bool in_time = outage.Elapsed() < seconds(2);
        KELO_API_STATUS status = KELO_STATUS_SUCCESS;
        EXPECT_TRUE(WaitFor(
            [&] {
                int percent = 0;
                status = keloFirmwareGetProgress(handle, &percent);
                return status != KELO_STATUS_SUCCESS || percent == 100;
            },
            seconds(60)));
        // Late answers to the read-back fail a run by design.
        if (!in_time || status == KELO_STATUS_ERROR) return false;
        EXPECT_EQ(status, KELO_STATUS_SUCCESS);
        EXPECT_TRUE(camera->FlashContents(kelosim::kMinFirmwareSize) == image);
        return true;
    });
    std::filesystem::remove(path);
}

TEST_F(CableTest, AnInterfaceThatAppearsOrVanishesLeavesTheOthersAlone) {
    kelosim::Camera& near = StartOne(Streaming());
    RepeatUntilInTime([&] {
        const CAM_HANDLE near_handle = OpenAndStart(near);
        AcquisitionJudge judge(StreamOf(near));
        std::vector<CAM_HANDLE> found;
        // False when the near camera's answer was late: then it is dropped, and its session with
        // it.
        const auto discover = [&] {
            found = Discover();
            return Among(found, near.address()) == near_handle;
        };
        // For images, the any-address and the loopback interface; and for the cable.
        const auto receivers = [] { return CountThreads("kelo-rx"); };
        bool in_time = true;
        for (int i = 0; i < 2 && in_time; ++i) {
            far->RemoveCable();
            // What the far camera answered before may still come. The near one answers over both
            // interfaces: when only the other answer is in time, the session alone keeps the
            // loopback interface's receiver, and there is a further one.
            in_time = discover() && found.size() == 1 && receivers() == 3;
            far->LayCable();
            if (!in_time) break;
            EXPECT_TRUE(WaitFor([&] {
                in_time = in_time && discover();
                return !in_time || found.size() == 2;
            }));
            in_time = in_time && receivers() == 4;
            if (!in_time) break;
            EXPECT_EQ(Among(found, FarNetwork::kCamera), handle);
            EXPECT_EQ(Get(handle, REG_WIDTH), 320u);
        }
        if (in_time) ExpectWhole(near_handle, judge);
        in_time = in_time && !judge.cut_in_two() && judge.damaged() == 0;
        if (in_time) {
            EXPECT_EQ(judge.whole(), judge.last_number());
            EXPECT_EQ(CloseEvents::count, 0);
        }
        (void)keloCloseCamera(near_handle);
        Forget(near);
        CloseEvents::Reset();
        return in_time;
    });
}

// The session's farewells find no answer, which takes 5 s.
TEST_F(CableTest, AnInterfaceThatVanishesUnderASessionEndsItOnce) {
    OpenAndStart(handle);
    ExpectWholeFromTheFirst(*camera, handle);
    far->RemoveCable();
    EXPECT_TRUE(Discover().empty());
    ASSERT_TRUE(WaitFor([] { return CloseEvents::count > 0; }));
    EXPECT_EQ(CloseEvents::last, handle);
    EXPECT_EQ(keloGetNextImage(handle, 0), nullptr);
    far->LayCable();
    EXPECT_EQ(Find(*camera), handle);
    OpenAndStart(handle);
    AcquisitionJudge judge(StreamOf(*camera));
    ExpectWhole(handle, judge);
    EXPECT_EQ(CloseEvents::count, 1);
}

TEST_F(CableTest, AnInterfaceThatComesBackBeforeTheNextDiscoveryIsNoLoss) {
    OpenAndStart(handle);
    AcquisitionJudge judge(StreamOf(*camera));
    ExpectWhole(handle, judge);
    far->RemoveCable();
    far->LayCable();
    EXPECT_EQ(Set(handle, REG_EXPOSURETIME, 77), KELO_STATUS_SUCCESS);
    EXPECT_EQ(camera->GetRegister(REG_EXPOSURETIME), 77u);
    // What was sent while the camera's host still asked for our address may come in another order.
    const uint64_t sent = camera->counters().streams[0].images;
    EXPECT_TRUE(WaitFor([&] {
        const Image image = Take(handle, 0, 100);
        return image.arrived && image.number > sent && image.info.bufferStatistics.errorFlag == 0 &&
               image.data == StreamOf(*camera).Frame(image.number);
    }));
    EXPECT_EQ(CloseEvents::count, 0);
}

}  // namespace
}  // namespace kelo::test
