// Text, log, time, locking, byte order and checksums.

#include "utils.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <string_view>

#include <stdio_ext.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "crc32.h"
#include "log_capture.h"

using kelo::test::LogCapture;
using kelo::test::StreamCapture;
using testing::ElementsAre;

namespace {

// What the system's clock says to this executable.
enum class Clock { kReal, kFixed, kBroken };
std::atomic<Clock> system_clock{Clock::kReal};

}  // namespace

// Stands in front of the C library's function.
extern "C" int gettimeofday(timeval* now, void*) noexcept {
    switch (system_clock) {
        case Clock::kFixed:
            *now = {.tv_sec = 1700000000, .tv_usec = 123999};
            return 0;
        case Clock::kBroken:
            errno = EINVAL;
            return -1;
        case Clock::kReal:
            break;
    }
    return static_cast<int>(syscall(SYS_gettimeofday, now, nullptr));
}

namespace {

std::string TextOf(StrArg text) {
    return text.c_str();
}

TEST(StrTest, AppendsTextsAndDecimalNumbersInOrder) {
    const std::string owned = " of ";
    const Str text = Str() + "frame " + -12 + owned + 4294967295u + ";" + 0;
    EXPECT_STREQ("frame -12 of 4294967295;0", text.c_str());
}

TEST(StrTest, AppendingChangesTheBuilderItselfAndReturnsIt) {
    Str builder("a");
    Str& returned = builder + "b";
    EXPECT_EQ(&builder, &returned);
    builder + 1 + 2u;
    EXPECT_STREQ("ab12", builder.c_str());
}

TEST(StrTest, ConvertsToBothKindsOfText) {
    const Str text("converted");
    const char* plain = text;
    const StrArg argument = text;
    EXPECT_STREQ("converted", plain);
    EXPECT_EQ(text.c_str(), argument.c_str()) << "the argument borrows the builder's text";
    EXPECT_EQ("n = 3", TextOf(Str("n = ") + 3));
}

TEST(StrTest, BeginsEmpty) {
    EXPECT_STREQ("", Str().c_str());
}

TEST(StrArgTest, BorrowsEitherKindOfText) {
    const std::string owned = "owned";
    const char* plain = "plain";
    EXPECT_EQ(owned.c_str(), StrArg(owned).ptr);
    EXPECT_EQ(plain, StrArg(plain).ptr);
    EXPECT_EQ(plain, StrArg(plain).c_str());
    const char* back = StrArg(plain);
    EXPECT_EQ(plain, back);
}

class LogTest : public testing::Test {
protected:
    void TearDown() override {
        kelo::Logging(true);
        amark_was_here = 0;
    }
};

TEST_F(LogTest, LoggingIsOnFromTheStart) {
    EXPECT_TRUE(log_enable);
}

TEST_F(LogTest, ALineBeginsWithTheRunningNumber) {
    const LogCapture log;
    const int before = alog_counter;
    kelo::Log("camera %u has %s\n", 7u, "answered");
    kelo::Log("next\n");
    EXPECT_EQ(before + 2, alog_counter);
    EXPECT_EQ(std::to_string(before + 1) + ": camera 7 has answered\n" +
                  std::to_string(before + 2) + ": next\n",
              log.Text());
}

TEST_F(LogTest, LinesAreCountedWhileLoggingIsOff) {
    const LogCapture log;
    const int before = alog_counter;
    kelo::Logging(false);
    kelo::Log("not seen\n");
    kelo::Log("not seen either\n");
    kelo::Logging(true);
    kelo::Log("seen\n");
    EXPECT_EQ(std::to_string(before + 3) + ": seen\n", log.Text());
}

TEST_F(LogTest, StandardOutputIsFlushedAfterEachLine) {
    const StreamCapture output(STDOUT_FILENO);
    kelo::Log("flushed\n");
    EXPECT_EQ(0u, __fpending(stdout));
}

TEST_F(LogTest, StandardOutputIsFlushedEvenWhileLoggingIsOff) {
    const StreamCapture output(STDOUT_FILENO);
    kelo::Logging(false);
    fputs("the application's own text", stdout);
    ASSERT_NE(0u, __fpending(stdout)) << "the text should still be in the buffer";
    kelo::Log("not printed\n");
    EXPECT_EQ(0u, __fpending(stdout));
    EXPECT_EQ("the application's own text", output.Text());
}

TEST_F(LogTest, AnOpenProgressMarkIsEndedOnceOnStandardError) {
    const LogCapture log;
    const StreamCapture errors(STDERR_FILENO);
    amark_was_here = 1;
    kelo::Log("first\n");
    kelo::Log("second\n");
    EXPECT_EQ("\n", errors.Text());
    EXPECT_EQ(0, amark_was_here);
    EXPECT_THAT(log.Lines(), ElementsAre("first", "second"));
}

TEST_F(LogTest, AnOpenProgressMarkIsEndedAlsoWhileLoggingIsOff) {
    const LogCapture log;
    const StreamCapture errors(STDERR_FILENO);
    kelo::Logging(false);
    amark_was_here = -3;
    kelo::Log("not printed\n");
    EXPECT_EQ("\n", errors.Text());
    EXPECT_EQ(0, amark_was_here);
    EXPECT_EQ("", log.Text());
}

TEST_F(LogTest, ShowMessageIsOneLogLine) {
    const LogCapture log;
    const int before = alog_counter;
    kelo::ShowMessage("Fatal", Str() + "code " + 5);
    EXPECT_EQ(std::to_string(before + 1) + ": Fatal: code 5\n", log.Text());
}

TEST_F(LogTest, ShowMessageTakesItsTextsAsTheyAre) {
    const LogCapture log;
    kelo::ShowMessage(std::string("100%s"), "%d%n");
    EXPECT_THAT(log.Lines(), ElementsAre("100%s: %d%n"));
}

TEST_F(LogTest, LinesOfManyThreadsStayWhole) {
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const LogCapture log;
    const int before = alog_counter;
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
        threads.emplace_back([id] {
            for (int line = 0; line < kLines; ++line)
                kelo::Log("%d says %d\n", id, line);
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(before + kThreads * kLines, alog_counter);
    for (int id = 0; id < kThreads; ++id) {
        for (int line = 0; line < kLines; ++line) {
            const std::string text = std::to_string(id) + " says " + std::to_string(line);
            if (line % 50 == 0) {
                EXPECT_EQ(1u, log.Count(text)) << text;
            }
        }
    }
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), log.Lines().size());
}

class TimeTest : public testing::Test {
protected:
    void TearDown() override { system_clock = Clock::kReal; }
};

TEST_F(TimeTest, MillisecondsAreCutNotRounded) {
    system_clock = Clock::kFixed;
    EXPECT_EQ(1700000000123u, vc_get_time_msec());
}

TEST_F(TimeTest, TheClockIsTheSystemsWallClock) {
    const auto wall = [] {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    };
    const uint64_t before = wall();
    const uint64_t now = vc_get_time_msec();
    EXPECT_LE(before, now);
    EXPECT_LE(now, wall());
}

TEST_F(TimeTest, ABrokenClockEndsTheProcess) {
    const auto ask = [] {
        system_clock = Clock::kBroken;
        vc_get_time_msec();
    };
    EXPECT_EXIT(ask(), testing::ExitedWithCode(1),
                "vc_get_time_msec: gettimeofday failed\\.: Invalid argument");
}

TEST(SleepTest, SleepsAtLeastTheTimeGiven) {
    const auto begin = std::chrono::steady_clock::now();
    kelo::Sleep(15);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(15));
}

TEST(SleepTest, ASignalDoesNotCutItShort) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t sleeper = pthread_self();
    std::atomic<bool> done{false};
    std::thread disturber([&] {
        while (!done) {
            pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    kelo::Sleep(30);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
    done = true;
    disturber.join();
}

TEST(SleepTest, OfZeroReturnsAtOnce) {
    // A real sleep of any length costs at least the timer's slack of 50 microseconds. The quickest
    // of many rounds counts: the machine may be busy.
    auto quickest = std::chrono::steady_clock::duration::max();
    for (int round = 0; round < 50; ++round) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < 20; ++i)
            kelo::Sleep(0);
        quickest = std::min(quickest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_LT(quickest, std::chrono::microseconds(500));
}

size_t LinesOf(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(BacktraceTest, WritesTheStackToStandardOutput) {
    const StreamCapture output(STDOUT_FILENO);
    print_backtrace();
    EXPECT_GE(LinesOf(output.Text()), 2u) << output.Text();
    EXPECT_THAT(output.Text(), testing::HasSubstr("[0x"));
}

TEST(BacktraceTest, ComesAfterWhatWasPrintedBefore) {
    const StreamCapture output(STDOUT_FILENO);
    fputs("before\n", stdout);
    print_backtrace();
    EXPECT_EQ(0u, output.Text().find("before\n"));
}

// The empty statement after the call keeps the compiler from making a loop of the recursion.
[[gnu::noinline]] void BacktraceFromDepth(int depth) {
    if (depth == 0) {
        print_backtrace();
    } else {
        BacktraceFromDepth(depth - 1);
    }
    asm volatile("" ::: "memory");
}

TEST(BacktraceTest, IsCutTo256Frames) {
    const StreamCapture output(STDOUT_FILENO);
    BacktraceFromDepth(400);
    EXPECT_EQ(256u, LinesOf(output.Text()));
}

bool AnotherThreadCanLock(std::recursive_mutex& mutex) {
    bool locked = false;
    std::thread([&] {
        locked = mutex.try_lock();
        if (locked) mutex.unlock();
    }).join();
    return locked;
}

TEST(ScopedLockTest, HoldsTheMutexForItsOwnLifetimeAndMayNest) {
    std::recursive_mutex mutex;
    {
        const kelo::TScopedLock outer(mutex, "outer");
        {
            const kelo::TScopedLock inner(mutex, "inner");
            EXPECT_FALSE(AnotherThreadCanLock(mutex));
        }
        EXPECT_FALSE(AnotherThreadCanLock(mutex));
    }
    EXPECT_TRUE(AnotherThreadCanLock(mutex));
}

TEST(ByteOrderTest, SwapsAreUnconditional) {
    EXPECT_EQ(0x44332211u, kelo_ntohl(0x11223344u));
    EXPECT_EQ(0x44332211u, kelo_htonl(0x11223344u));
    EXPECT_EQ(0x3412u, kelo_htons(0x1234));
    EXPECT_EQ(0x3412u, kelo_ntohs(0x1234));
    EXPECT_EQ(0x80FFu, kelo_ntohs(0xFF80));
    EXPECT_EQ(0xFF000080u, kelo_ntohl(0x800000FFu));
}

TEST(ThreadNameTest, IsVisibleToTheSystem) {
    std::string name;
    std::thread([&] {
        kelo::NameThisThread("kelo-test");
        char text[16] = {};
        pthread_getname_np(pthread_self(), text, sizeof(text));
        name = text;
    }).join();
    EXPECT_EQ("kelo-test", name);
}

struct Wire {
    uint8_t bytes[4];
};

struct CopyRecordTest : testing::TestWithParam<std::pair<size_t, std::array<uint8_t, 4>>> {};

TEST_P(CopyRecordTest, TakesWhatIsThereAndReadsTheRestAsZero) {
    const auto& [length, expected] = GetParam();
    // A block of exactly this length lets AddressSanitizer see a byte too many.
    const auto data = std::make_unique<uint8_t[]>(length);
    for (size_t i = 0; i < length; ++i)
        data[i] = static_cast<uint8_t>(0xA1 + i);
    EXPECT_THAT(kelo::CopyRecord<Wire>(data.get(), length).bytes,
                testing::ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, CopyRecordTest,
    testing::Values(std::pair(0, std::array<uint8_t, 4>{}),
                    std::pair(1, std::array<uint8_t, 4>{0xA1}),
                    std::pair(3, std::array<uint8_t, 4>{0xA1, 0xA2, 0xA3}),
                    std::pair(4, std::array<uint8_t, 4>{0xA1, 0xA2, 0xA3, 0xA4}),
                    std::pair(9, std::array<uint8_t, 4>{0xA1, 0xA2, 0xA3, 0xA4})),
    [](const auto& test) { return "Of" + std::to_string(test.param.first); });

uint32_t Crc32Of(uint32_t start, std::string_view text) {
    return kelo_crc32(start, reinterpret_cast<const uint8_t*>(text.data()),
                      static_cast<uint32_t>(text.size()));
}

constexpr std::string_view kCheckText = "123456789";
constexpr uint32_t kFirmwareStart = 0x5478DE90;

TEST(Crc32Test, GivesTheStandardCheckValue) {
    EXPECT_EQ(0xCBF43926u, Crc32Of(0xFFFFFFFF, kCheckText) ^ 0xFFFFFFFF);
}

TEST(Crc32Test, InvertsNeitherTheStartNorTheResult) {
    EXPECT_EQ(0x2DFD2D88u, Crc32Of(0, kCheckText));
    EXPECT_EQ(0xBC67DF35u, Crc32Of(kFirmwareStart, kCheckText));
}

TEST(Crc32Test, UsesEveryEntryOfTheTable) {
    std::array<uint8_t, 256> bytes{};
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(0xD0591E89u, kelo_crc32(kFirmwareStart, bytes.data(), 256));
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t expected = i;
        for (int bit = 0; bit < 8; ++bit) {
            expected = (expected >> 1) ^ (0xEDB88320u & (0u - (expected & 1)));
        }
        const auto byte = static_cast<uint8_t>(i);
        EXPECT_EQ(expected, kelo_crc32(0, &byte, 1)) << i;
    }
}

TEST(Crc32Test, EqualsTheDivisionBitByBitAtEveryLengthAndAlignment) {
    std::array<uint8_t, 64> bytes{};
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(i * 37 + 11);
    for (uint32_t begin = 0; begin < 9; ++begin) {
        uint32_t expected = kFirmwareStart;
        for (uint32_t length = 0; begin + length < bytes.size(); ++length) {
            ASSERT_EQ(expected, kelo_crc32(kFirmwareStart, bytes.data() + begin, length)) << length;
            expected ^= bytes[begin + length];
            for (int bit = 0; bit < 8; ++bit) {
                expected = (expected >> 1) ^ (0xEDB88320u & (0u - (expected & 1)));
            }
        }
    }
}

TEST(Crc32Test, OverNothingIsTheStartValue) {
    const uint8_t byte = 1;
    EXPECT_EQ(0x12345678u, kelo_crc32(0x12345678, &byte, 0));
    EXPECT_EQ(0x12345678u, kelo_crc32(0x12345678, nullptr, 0));
}

TEST(Crc32Test, LongInputsCanBeFedInPieces) {
    for (size_t cut = 0; cut <= kCheckText.size(); ++cut) {
        const uint32_t first = Crc32Of(kFirmwareStart, kCheckText.substr(0, cut));
        EXPECT_EQ(0xBC67DF35u, Crc32Of(first, kCheckText.substr(cut))) << cut;
    }
}

TEST(Crc16Test, GivesTheStandardCheckValue) {
    EXPECT_EQ(0xBB3D, kelo_crc16(reinterpret_cast<const uint8_t*>(kCheckText.data()), 9));
}

TEST(Crc16Test, OverNothingIsZero) {
    const uint8_t byte = 0x55;
    EXPECT_EQ(0, kelo_crc16(&byte, 0));
    EXPECT_EQ(0, kelo_crc16(nullptr, 0));
    EXPECT_EQ(0, kelo_crc16(&byte, -1));
}

TEST(ReflectTest, ReversesTheLowestBitsAndClearsTheOthers) {
    EXPECT_EQ(0x80u, reflect(0x01, 8));
    EXPECT_EQ(0x8000u, reflect(0x0001, 16));
    EXPECT_EQ(0x80000000u, reflect(1, 32));
    EXPECT_EQ(1u, reflect(0x80000000u, 32));
    EXPECT_EQ(0xAu, reflect(0xFF5, 4));
    EXPECT_EQ(0u, reflect(0xFFFFFFFFu, 0));
}

}  // namespace
