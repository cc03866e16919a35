#include <algorithm>
#include <set>

#include "fault_fixture.h"
#include "process_figures.h"

namespace kelo::test {
namespace {

double Milliseconds(steady_clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

// As many cameras as a host can have, and more.
class Scale : public FaultTest {
protected:
    static constexpr int kMost = 1024;
    static constexpr uint64_t kDescriptorsPerCamera = 8;
    // Enough for all of them on most machines; where it is not, another discovery is made.
    static constexpr uint32_t kWindowMs = 300;

    // Small ones: with a thread each for control and images, and a few descriptors.
    void StartMany(int count, const kelosim::CameraConfig& config = {}) {
        kelosim::CameraConfig base = config;
        base.streams[0].source = kelosim::MakeTestChart8(64, 48);
        AddCameras(count, base);
        simulator.Start();
    }
    // Listens in ever longer windows until the library knows so many cameras; how long the window
    // was that sufficed.
    static uint32_t DiscoverInWindow(size_t count, std::vector<CAM_HANDLE>& handles) {
        uint32_t listen_ms = 50;
        for (; listen_ms <= 12800; listen_ms *= 2) {
            handles = Discover(2 * kMost, listen_ms);
            if (handles.size() == count) break;
        }
        return listen_ms;
    }
    static std::set<uint32_t> AddressesOf(const std::vector<CAM_HANDLE>& handles) {
        std::set<uint32_t> addresses;
        for (const CAM_HANDLE handle : handles) {
            EXT_CAM_INFO info{};
            EXPECT_EQ(keloGetCameraInfo(handle, &info), KELO_STATUS_SUCCESS);
            addresses.insert(info.camera_ip);
        }
        return addresses;
    }
    // Until every camera's answer has come in time. How long that discovery took.
    steady_clock::duration DiscoverUntilAllAnswer(std::vector<CAM_HANDLE>& handles) {
        const std::string all = "Discover: Got " + std::to_string(simulator.size()) + " responses.";
        steady_clock::duration took{};
        EXPECT_TRUE(WaitFor([&] {
            const size_t since = log.Text().size();
            const Stopwatch time;
            handles = Discover(2 * kMost, kWindowMs);
            took = time.Elapsed();
            return log.Text().find(all, since) != std::string::npos;
        }));
        return took;
    }
};

// A camera beyond the limit is there as soon as another one goes; the list never grows longer.
TEST_F(Scale, ThousandCamerasAndOneMore) {
    if (kThreadsAreCostly && !Long()) GTEST_SKIP() << "begins three thousand threads";
    if (!AllowDescriptors(kMost * kDescriptorsPerCamera))
        GTEST_SKIP() << "too few descriptors for so many cameras";
    StartMany(kMost + 1);
    const int64_t kib_before = ResidentKib();
    const int threads_before = CountThreads();
    const int descriptors_before = CountDescriptors();
    std::vector<CAM_HANDLE> handles;
    const Stopwatch first;
    State("listening_ms_that_sufficed", DiscoverInWindow(kMost, handles));
    ASSERT_EQ(handles.size(), size_t{kMost});
    State("first_discoveries_ms", Milliseconds(first.Elapsed()));
    State("kib_per_known_camera", static_cast<double>(ResidentKib() - kib_before) / kMost);
    EXPECT_TRUE(std::is_sorted(handles.begin(), handles.end()));
    EXPECT_EQ(std::adjacent_find(handles.begin(), handles.end()), handles.end());
    // A thread for each camera; a transport for the interface and one for the any-address.
    EXPECT_EQ(CountThreads("kelo-heartbeat"), kMost);
    EXPECT_EQ(CountThreads() - threads_before, kMost + 2);
    EXPECT_EQ(CountDescriptors() - descriptors_before, 2);

    std::vector<CAM_HANDLE> again;
    State("discovery_ms_beside_listening", Milliseconds(DiscoverUntilAllAnswer(again)) - kWindowMs);
    ASSERT_EQ(again.size(), size_t{kMost});
    EXPECT_TRUE(log.Contains("Discover: Detected 1024 cameras."));

    // Which one is left out is decided by the order of the answers.
    const auto known = AddressesOf(again);
    EXPECT_EQ(known.size(), size_t{kMost});
    std::vector<size_t> left_out;
    for (size_t i = 0; i < simulator.size(); ++i) {
        if (!known.contains(simulator[i].address())) left_out.push_back(i);
    }
    ASSERT_EQ(left_out.size(), 1u);
    kelosim::Camera& leaver = simulator[left_out[0] == 0 ? 1 : 0];
    leaver.PowerOff();
    EXPECT_TRUE(WaitFor([&] {
        again = Discover(2 * kMost, kWindowMs);
        return again.size() == size_t{kMost} && !AddressesOf(again).contains(leaver.address());
    }));
    EXPECT_TRUE(AddressesOf(again).contains(simulator[left_out[0]].address()));
}

// Open sessions cost a thread each, and no descriptor; all of them live on.
TEST_F(Scale, SixtyFourCamerasStayOpen) {
    constexpr int kOpen = 64;
    constexpr uint32_t kTimeoutMs = 600;
    constexpr size_t kPeriods = 3;
    StartMany(kOpen);
    const auto handles = DiscoverAll(kOpen);
    ASSERT_EQ(handles.size(), size_t{kOpen});
    const int threads_before = CountThreads();
    const int descriptors_before = CountDescriptors();
    for (size_t i = 0; i < kOpen; ++i)
        simulator[i].SetRegister(REG_HEARTBEAT_TIMEOUT, kTimeoutMs);
    for (const CAM_HANDLE handle : handles)
        Open(handle);
    // The cameras' own watchdogs would end the sessions of a machine that stands still.
    for (size_t i = 0; i < kOpen; ++i) {
        simulator[i].SetRegister(REG_HEARTBEAT_TIMEOUT, 100000);
        simulator[i].ClearRequests();
    }
    const double cpu_before = ThreadCpuMs("kelo-heartbeat") + ThreadCpuMs("kelo-rx");
    const Stopwatch time;
    // A keep-alive goes out after a third of the time-out.
    EXPECT_TRUE(WaitFor([&] {
        for (size_t i = 0; i < kOpen; ++i) {
            if (simulator[i].Requests().size() < 3 * kPeriods) return false;
        }
        return true;
    }));
    const double elapsed_ms = Milliseconds(time.Elapsed());
    const double cpu_ms = ThreadCpuMs("kelo-heartbeat") + ThreadCpuMs("kelo-rx") - cpu_before;
    State("heartbeat_periods", elapsed_ms / kTimeoutMs);
    State("cpu_percent_of_64_sessions", 100 * cpu_ms / elapsed_ms);
    EXPECT_GE(elapsed_ms, kPeriods * kTimeoutMs * 0.9);
    EXPECT_EQ(CountThreads(), threads_before);
    EXPECT_EQ(CountThreads("kelo-heartbeat"), kOpen);
    EXPECT_EQ(CountDescriptors(), descriptors_before);
    EXPECT_EQ(CloseEvents::count, 0);
    for (size_t i = 0; i < kOpen; ++i) {
        EXPECT_TRUE(simulator[i].used());
        for (const auto& request : simulator[i].Requests())
            EXPECT_EQ(request.register_number, uint32_t{REG_WIDTH});
        Get(handles[i], REG_WIDTH);
    }
}

}  // namespace
}  // namespace kelo::test
