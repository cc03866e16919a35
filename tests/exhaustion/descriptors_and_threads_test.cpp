#include <fcntl.h>
#include <sys/resource.h>

#include "exhaustion_fixture.h"
#include "in_time.h"
#include "refusals.h"

namespace kelo::test {
namespace {

// For its own lifetime the process can open so many more descriptors and no other.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int free) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const int highest = *OpenDescriptors().rbegin();
        int filler = fcntl(0, F_DUPFD_CLOEXEC, 0);
        for (; filler >= 0 && filler < highest; filler = fcntl(0, F_DUPFD_CLOEXEC, 0))
            fillers_.push_back(filler);
        close(filler);
        rlimit limit = before_;
        limit.rlim_cur = static_cast<rlim_t>(highest + 1 + free);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~DescriptorLimit() {
        setrlimit(RLIMIT_NOFILE, &before_);
        for (const int filler : fillers_)
            close(filler);
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before_{};
    std::vector<int> fillers_;
};

// More than any call opens at a time.
constexpr int kMoreThanEnough = 3;

class Descriptors : public ExhaustionTest {
protected:
    using ExhaustionTest::ExhaustionTest;

    // Runs call with 0, 1, ... descriptors to be had; check(free, result) judges.
    template <typename Prepare, typename Call, typename Check>
    static void ForEveryCount(const Prepare& prepare, const Call& call, const Check& check) {
        for (int free = 0; free <= kMoreThanEnough && !HasFailure(); ++free) {
            SCOPED_TRACE(testing::Message() << free << " descriptors to be had");
            prepare();
            auto result = [&] {
                const DescriptorLimit limit(free);
                return call();
            }();
            check(free, result);
        }
    }
    void StartLibraryAndFind() {
        ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        ASSERT_TRUE(Find());
    }
};

class DescriptorsOverTcp : public Descriptors {
protected:
    DescriptorsOverTcp() : Descriptors(true) {}

    size_t refused_before = 0;
};

TEST_F(Descriptors, InitSucceedsAndOpenMakesUpForTheSocket) {
    ForEveryCount([] { keloRelease(); }, [] { return keloInit(); },
                  [&](int, KELO_API_STATUS status) {
                      EXPECT_EQ(status, KELO_STATUS_SUCCESS);
                      ExpectToWork();
                      keloRelease();
                      ExpectNothingLeft();
                  });
    EXPECT_FALSE(log.ContainsPrefix("No socket for images"));
}

TEST_F(Descriptors, OpenTellsThatThereIsStillNoSocketForImages) {
    {
        const DescriptorLimit limit(0);
        ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
    }
    ASSERT_TRUE(Find());
    {
        const DescriptorLimit limit(0);
        EXPECT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
    }
    EXPECT_TRUE(log.Contains("No socket for images can be had: no image can arrive over UDP."));
    // Registers need none.
    uint32_t width = 0;
    EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &width), KELO_STATUS_SUCCESS);
    ExpectToWork();
}

TEST_F(Descriptors, DiscoverFindsWhatItCanReach) {
    ForEveryCount(
        [] {
            keloRelease();
            ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        },
        [&] { return Discover(60); },
        [&](int free, bool found) {
            // One for the any-address and one for the interface; the list of interfaces takes one
            // for a moment.
            if (free < 2) {
                EXPECT_FALSE(found);
            }
            if (free == kMoreThanEnough) {
                EXPECT_TRUE(found || Find());
            }
            EXPECT_TRUE(Find());
            keloRelease();
            ExpectNothingLeft();
        });
    ExpectToWork();
}

TEST_F(Descriptors, OpenKeepsThePacketSizeThatItCannotTest) {
    StartLibraryAndFind();
    const uint32_t size_before = camera_tell(0, CAMERA_GET_REGISTER, REG_MTU, 0);
    const auto set_size_back = [&] { camera_tell(0, CAMERA_SET_REGISTER, REG_MTU, size_before); };
    const auto open = [&] { return keloOpenCamera(handle, nullptr); };
    RepeatUntilInTime([&] {
        bool in_time = true;
        ForEveryCount(set_size_back, open, [&](int free, KELO_API_STATUS status) {
            EXPECT_EQ(status, KELO_STATUS_SUCCESS);
            const uint32_t size = camera_tell(0, CAMERA_GET_REGISTER, REG_MTU, 0);
            EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
            if (free == 0) {
                EXPECT_EQ(size, size_before);
            } else {
                // A request that was made again may make the next size seem not to pass.
                in_time &= size == 9000;
            }
        });
        return in_time;
    });
}

TEST_F(Descriptors, AStreamOverUdpNeedsNone) {
    StartLibraryAndFind();
    ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
    const DescriptorLimit limit(0);
    EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    ExpectNewImages();
}

TEST_F(DescriptorsOverTcp, AStreamWithoutAConnectionGetsOneAtTheNextStart) {
    StartLibraryAndFind();
    ForEveryCount(
        [&] {
            ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
            EXPECT_EQ(keloGetPendingImageCount(handle, 0), 0);
        },
        [&] { return keloStartImageAcquisition(handle); },
        [&](int free, KELO_API_STATUS status) {
            EXPECT_EQ(status, KELO_STATUS_SUCCESS);
            // One for each of the two streams.
            const auto refused = static_cast<size_t>(std::max(2 - free, 0)) * 20;
            EXPECT_EQ(log.Count("tcp_connect: ERROR opening socket") - refused_before, refused);
            refused_before += refused;
            EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
            ExpectNewImages();
            EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        });
}

TEST_F(Descriptors, AFirmwareRunThatCannotOpenItsFileDoesNotBegin) {
    StartLibraryAndFind();
    ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
    FirmwareFile();
    SlowRunsDown();
    ForEveryCount([] {}, [&] { return keloFirmwareProgram(handle, firmware.c_str()); },
                  [&](int free, KELO_API_STATUS status) {
                      EXPECT_EQ(status, free == 0 ? KELO_STATUS_ERROR : KELO_STATUS_SUCCESS);
                      if (free > 0) AbortRun();
                  });
}

TEST_F(Descriptors, SettingAnAddressTellsNoFailure) {
    StartLibraryAndFind();
    ForEveryCount([&] { ASSERT_TRUE(Known() || Find()); },
                  [&] { return keloSetCameraIP(handle, camera_address(0), 0xFF000000); },
                  [&](int, KELO_API_STATUS status) {
                      EXPECT_EQ(status, KELO_STATUS_SUCCESS);
                      EXPECT_FALSE(Known());
                      EXPECT_TRUE(Find());
                  });
}

// Above the numbers that select can wait for.
class ManyDescriptors : public Descriptors, public testing::WithParamInterface<bool> {
protected:
    static constexpr int kOthers = 2000;

    ManyDescriptors() : Descriptors(GetParam()) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int i = 0; i < kOthers; ++i) {
            others.push_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
            descriptors_before.insert(others.back());
        }
    }
    ~ManyDescriptors() override {
        for (const int fd : others) {
            close(fd);
            descriptors_before.erase(fd);
        }
    }

    std::vector<int> others;
};

TEST_P(ManyDescriptors, AreNoHindrance) {
    ASSERT_GT(others.back(), 1024);
    ExpectToWork();
    const std::set<int> open = OpenDescriptors();
    EXPECT_GT(*open.rbegin(), others.back());
    SlowRunsDown();
    ASSERT_EQ(keloFirmwareProgram(handle, FirmwareFile().c_str()), KELO_STATUS_SUCCESS);
    AbortRun();
    ExpectNewImages();
}

INSTANTIATE_TEST_SUITE_P(Over, ManyDescriptors, testing::Bool(),
                         [](const auto& test) { return test.param ? "Tcp" : "Udp"; });

class Threads : public ExhaustionTest {
protected:
    using ExhaustionTest::ExhaustionTest;

    // Runs call with the first, the second, ... thread refused until it asks for no more, and again
    // with all from that one on. check(refused, result) judges. Returns how many were asked for.
    template <typename Prepare, typename Call, typename Check>
    static int ForEveryThread(const Prepare& prepare, const Call& call, const Check& check) {
        constexpr int kThreadsMax = 20;
        int asked_for = 0;
        for (const Extent extent : {Extent::kOne, Extent::kAllFromThere}) {
            bool refused = true;
            for (int nth = 1; refused && nth < kThreadsMax && !HasFailure(); ++nth) {
                SCOPED_TRACE(testing::Message() << "thread " << nth << " refused"
                                                << (extent == Extent::kOne ? "" : " and the rest"));
                prepare();
                auto result = [&] {
                    const NoThread none(nth, extent);
                    return call();
                }();
                refused = NoThread::Happened();
                check(refused, result);
                if (refused) asked_for = std::max(asked_for, nth);
            }
            EXPECT_FALSE(refused && !HasFailure());
        }
        return asked_for;
    }
    static KELO_API_STATUS Expected(bool refused) {
        return refused ? KELO_STATUS_ERROR : KELO_STATUS_SUCCESS;
    }
    void StartLibraryAndFind() {
        ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        ASSERT_TRUE(Find());
    }
};

class ThreadsOverTcp : public Threads {
protected:
    ThreadsOverTcp() : Threads(true) {}
};

TEST_F(Threads, InitFailsAndLeavesNothing) {
    const int asked_for = ForEveryThread([] { keloRelease(); }, [] { return keloInit(); },
                                         [&](bool refused, KELO_API_STATUS status) {
                                             EXPECT_EQ(status, Expected(refused));
                                             if (refused) ExpectNothingLeft();
                                         });
    EXPECT_EQ(asked_for, 3);
    ExpectToWork();
}

TEST_F(Threads, DiscoverFindsWhatItCanReach) {
    const int asked_for = ForEveryThread(
        [] {
            keloRelease();
            ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
        },
        [&] { return Discover(60); },
        [&](bool, bool) {
            EXPECT_TRUE(Find());
            keloRelease();
            ExpectNothingLeft();
        });
    ExpectToWork();
    // Two transports; and a camera's heartbeat, if one answered in time.
    EXPECT_GE(asked_for, 2);
}

TEST_F(Threads, OpenIsRefusedTheReceptionThatInitCouldNotBegin) {
    const int asked_for = ForEveryThread(
        [&] {
            keloRelease();
            {
                const DescriptorLimit limit(0);
                ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
            }
            ASSERT_TRUE(Find());
        },
        [&] { return keloOpenCamera(handle, nullptr); },
        [&](bool refused, KELO_API_STATUS status) {
            EXPECT_EQ(status, Expected(refused));
            ExpectToWork();
        });
    EXPECT_EQ(asked_for, 1);
}

TEST_F(Threads, AStreamOverUdpNeedsNone) {
    StartLibraryAndFind();
    ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
    const NoThread none(1, Extent::kAllFromThere);
    EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    EXPECT_FALSE(NoThread::Happened());
    ExpectNewImages();
}

TEST_F(ThreadsOverTcp, AStreamWithoutAReaderFailsTheStart) {
    StartLibraryAndFind();
    const int asked_for =
        ForEveryThread([&] { ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS); },
                       [&] { return keloStartImageAcquisition(handle); },
                       [&](bool refused, KELO_API_STATUS status) {
                           EXPECT_EQ(status, Expected(refused));
                           EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
                           ExpectNewImages();
                           EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
                       });
    EXPECT_EQ(asked_for, 2);
}

TEST_F(Threads, AFirmwareRunThatCannotBeginIsOver) {
    StartLibraryAndFind();
    ASSERT_EQ(keloOpenCamera(handle, nullptr), KELO_STATUS_SUCCESS);
    FirmwareFile();
    SlowRunsDown();
    const std::set<int> open = OpenDescriptors();
    const int asked_for =
        ForEveryThread([] {}, [&] { return keloFirmwareProgram(handle, firmware.c_str()); },
                       [&](bool refused, KELO_API_STATUS status) {
                           EXPECT_EQ(status, Expected(refused));
                           if (!refused) return AbortRun();
                           int percent = 77;
                           EXPECT_EQ(keloFirmwareGetProgress(handle, &percent), KELO_STATUS_ERROR);
                           EXPECT_EQ(percent, 0);
                           EXPECT_EQ(OpenDescriptors(), open);
                       });
    EXPECT_EQ(asked_for, 1);
}

TEST_F(Threads, ReleaseClosesEveryCameraWithThoseThatItGets) {
    const int asked_for = ForEveryThread(
        [&] {
            ASSERT_EQ(keloInit(), KELO_STATUS_SUCCESS);
            CAM_HANDLE found[2] = {};
            ASSERT_TRUE(WaitFor([&] { return keloDiscover(found, 2, kShortMs) == 2; }));
            for (const CAM_HANDLE camera : found)
                ASSERT_EQ(keloOpenCamera(camera, nullptr), KELO_STATUS_SUCCESS);
        },
        [] { return keloRelease(); },
        [&](bool, KELO_API_STATUS status) {
            EXPECT_EQ(status, KELO_STATUS_SUCCESS);
            for (const int camera : {0, 1})
                EXPECT_EQ(camera_tell(camera, CAMERA_IS_USED, 0, 0), 0u);
            ExpectNothingLeft();
        });
    EXPECT_EQ(asked_for, 1);
}

class Interrupted : public ExhaustionTest, public testing::WithParamInterface<bool> {
protected:
    Interrupted() : ExhaustionTest(GetParam()) {}
};

TEST_P(Interrupted, CallsOfTheSystemAreRepeated) {
    const Interruptions interruptions;
    ExpectToWork();
    RepeatUntilInTime([&] {
        const Stopwatch time;
        for (int i = 0; i < 20; ++i) {
            uint32_t width = 0;
            EXPECT_EQ(keloGetRegisterInt(handle, REG_WIDTH, &width), KELO_STATUS_SUCCESS);
        }
        // A request that is not sent is sent again a quarter of a second later.
        return time.Elapsed() < std::chrono::seconds(2);
    });
    EXPECT_GT(Interruptions::Count(), 20);
}

TEST_P(Interrupted, AConnectionThatStandsIsKept) {
    ExpectToWork();
    const size_t connections = log.Count("tcp_connect: connected");
    EXPECT_EQ(connections, GetParam() ? 2u : 0u);
    const Interruptions interruptions;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    EXPECT_EQ(log.Count("tcp_connect: connected"), connections);
    ExpectNewImages();
}

INSTANTIATE_TEST_SUITE_P(Over, Interrupted, testing::Bool(),
                         [](const auto& test) { return test.param ? "Tcp" : "Udp"; });

}  // namespace
}  // namespace kelo::test
