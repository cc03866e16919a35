// kelo stats: lines, the live table, the end.

#include <csignal>
#include <regex>

#include "in_time.h"
#include "interval_histogram.h"
#include "json_number.h"
#include "tool_fixture.h"

namespace kelo::test {
namespace {

using kelotool::IntervalHistogram;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ContainsRegex;

// ---- Intervals
// -----------------------------------------------------------------------------------

TEST(IntervalHistogramTest, IsEmptyAtFirst) {
    const IntervalHistogram histogram;
    EXPECT_EQ(histogram.count(), 0U);
    EXPECT_EQ(histogram.min_us(), 0);
    EXPECT_EQ(histogram.PercentileUs(0.5), 0);
    EXPECT_THAT(histogram.Rows(10), IsEmpty());
    EXPECT_EQ(histogram.Text(10, 40), "");
}

TEST(IntervalHistogramTest, KnowsShortestLongestMeanAndPercentiles) {
    IntervalHistogram histogram;
    for (int i = 1; i <= 1000; ++i)
        histogram.Add(microseconds(i * 100));
    EXPECT_EQ(histogram.min_us(), 100);
    EXPECT_EQ(histogram.max_us(), 100000);
    EXPECT_DOUBLE_EQ(histogram.mean_us(), 50050);
    EXPECT_NEAR(histogram.PercentileUs(0.5), 50000, 50000 * 0.012);
    EXPECT_NEAR(histogram.PercentileUs(0.99), 99000, 99000 * 0.012);
    EXPECT_EQ(histogram.PercentileUs(1), 100000);
}

TEST(IntervalHistogramTest, RowsCoverEverythingAndAreFew) {
    IntervalHistogram histogram;
    histogram.Add(microseconds(10));
    histogram.Add(milliseconds(10));
    histogram.Add(std::chrono::hours(1));
    const auto rows = histogram.Rows(16);
    ASSERT_LE(rows.size(), 16U);
    EXPECT_LE(rows.front().from_us, 10);
    EXPECT_GT(rows.back().below_us, 3.6e9);
    uint64_t count = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        count += rows[i].count;
        if (i > 0) {
            EXPECT_EQ(rows[i].from_us, rows[i - 1].below_us);
        }
    }
    EXPECT_EQ(count, 3U);
}

TEST(IntervalHistogramTest, FewAmongManyStillShow) {
    IntervalHistogram histogram;
    for (int i = 0; i < 1000; ++i)
        histogram.Add(milliseconds(10));
    histogram.Add(milliseconds(20));
    const std::string text = histogram.Text(16, 40);
    EXPECT_THAT(text, HasSubstr("     1000  " + std::string(40, '#') + "\n"));
    EXPECT_THAT(text, HasSubstr("        1  #\n"));
    EXPECT_THAT(text, Not(HasSubstr(" \n")));
}

TEST(IntervalHistogramTest, TakesWhatAClockMayGive) {
    IntervalHistogram histogram;
    histogram.Add(milliseconds(-5));
    histogram.Add(std::chrono::hours(1000));
    EXPECT_EQ(histogram.count(), 2U);
    EXPECT_EQ(histogram.min_us(), 0);
    EXPECT_EQ(histogram.Rows(4).size(), 4U);
}

// ---- The command
// ---------------------------------------------------------------------------------

class KeloStats : public ToolTest {
protected:
    static kelosim::CameraConfig Camera(uint32_t host, std::vector<double> rates) {
        kelosim::CameraConfig config;
        config.address = kelosim::Ipv4(127, 0, 0, host);
        config.streams.clear();
        for (const double rate : rates) {
            kelosim::StreamConfig stream;
            stream.source = kelosim::MakeTestChart8(320, 200);
            stream.frame_rate = rate;
            stream.over_tcp = true;
            config.streams.push_back(stream);
        }
        return Patient(config);
    }
    static std::vector<std::string> Arguments(std::vector<std::string> more) {
        more.insert(more.begin(), "stats");
        return Patiently(more);
    }
};

TEST_F(KeloStats, PrintsALinePerStreamAndIntervalIntoAPipe) {
    simulator.Add(Camera(11, {100, 50}));
    simulator.Start();
    KeloProcess process(Arguments({"127.0.0.11", "--interval", "50"}));
    ASSERT_TRUE(process.WaitForOutput("\n0.2 s  127.0.0.11 stream 1: ") ||
                process.WaitForOutput(" s  127.0.0.11 stream 1: "));
    EXPECT_THAT(
        process.Output(),
        ContainsRegex("[0-9.]+ s  127.0.0.11 stream 0: [0-9]+ images, [0-9.]+ images/s, "
                      "[0-9.]+ MB/s, 0 packets lost \\(0.000 %\\), 0 images skipped, [0-9]+ "
                      "pending\n"));
    EXPECT_THAT(process.Output(), Not(HasSubstr("\x1b")));
    process.Signal(SIGINT);
    EXPECT_EQ(process.Wait(), 0);
    EXPECT_THAT(process.Output(), HasSubstr("\nTotals\nCAMERA "));
    EXPECT_FALSE(simulator[0].used());
}

TEST_F(KeloStats, KeepsATableUpToDateOnATerminal) {
    simulator.Add(Camera(11, {100}));
    simulator.Add(Camera(12, {50}));
    simulator.Start();
    KeloProcess process(Arguments({"127.0.0.11", "127.0.0.12", "--interval", "50"}),
                        KeloProcess::Stdio::kTerminal);
    // A title and a line per camera, drawn over the ones before.
    ASSERT_TRUE(process.WaitForOutput("\x1b[3ACAMERA"));
    EXPECT_TRUE(process.WaitForOutput("\r\n127.0.0.12 "));
    // The time from image to image takes two of each.
    EXPECT_TRUE(WaitFor([&] {
        return std::regex_search(process.Output(), std::regex("0\\.11 +0 +([2-9]|[1-9][0-9]+) ")) &&
               std::regex_search(process.Output(), std::regex("0\\.12 +0 +([2-9]|[1-9][0-9]+) "));
    }));
    process.Type("\x03");
    EXPECT_TRUE(process.WaitForOutput("From image to image, 127.0.0.11 stream 0: mean "));
    EXPECT_TRUE(process.WaitForOutput("From image to image, 127.0.0.12 stream 0: mean "));
    EXPECT_TRUE(process.WaitForOutput("####"));
    EXPECT_EQ(process.Wait(), 0);
}

TEST_F(KeloStats, FiguresAreThoseOfTheCamera) {
    constexpr double kBytes = 320 * 200;
    simulator.Add(Camera(11, {20}));
    simulator.Start();
    RepeatUntilInTime([&] {
        const Result result = Kelo(Arguments({"127.0.0.11", "--seconds", "0.5", "--json"}));
        EXPECT_EQ(result.exit_code, 0) << result.err;
        ExpectJsonLines(result.out);
        const double images = JsonNumber(result.out, "images");
        // One image every 50 ms, unless one side or the other stood still.
        if (images < 8 || JsonNumber(result.out, "min") < 35 ||
            JsonNumber(result.out, "max") > 65) {
            return false;
        }
        EXPECT_LT(images, 14);
        EXPECT_EQ(JsonNumber(result.out, "bytes_received"), images * kBytes);
        EXPECT_NEAR(JsonNumber(result.out, "images_per_second"), 20, 2);
        EXPECT_NEAR(JsonNumber(result.out, "bytes_per_second"), 20 * kBytes, 2 * kBytes);
        EXPECT_NEAR(JsonNumber(result.out, "mean"), 50, 5);
        EXPECT_EQ(JsonNumber(result.out, "packets_lost"), 0);
        return true;
    });
}

TEST_F(KeloStats, CountsLossesAndSkippedImages) {
    kelosim::CameraConfig config = Camera(11, {100});
    config.streams[0].over_tcp = false;
    config.faults.packets.push_back({kelosim::PacketFault::Kind::kDrop, 2, 3, {}});
    config.faults.jumps.push_back({4, 7});
    simulator.Add(config);
    simulator.Start();
    RepeatUntilInTime([&] {
        const Result result = Kelo(Arguments({"127.0.0.11", "--seconds", "1", "--json"}));
        EXPECT_EQ(result.exit_code, 0) << result.err;
        // What came after the loss is held back for half a second. An image that the machine cut
        // in two counts for more losses.
        if (JsonNumber(result.out, "images") < 5) return false;
        if (JsonNumber(result.out, "images_incomplete") > 1) return false;
        EXPECT_EQ(JsonNumber(result.out, "packets_lost"), 1);
        EXPECT_EQ(JsonNumber(result.out, "images_incomplete"), 1);
        EXPECT_GT(JsonNumber(result.out, "bytes_lost"), 1000);
        EXPECT_EQ(JsonNumber(result.out, "images_skipped"), 7);
        return true;
    });
}

TEST_F(KeloStats, ACameraThatIsNotThereIsSaid) {
    simulator.Add(Camera(11, {10}));
    simulator.Start();
    const Result result = Kelo({"stats", "127.0.0.11", "127.0.0.99"});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_THAT(result.err, HasSubstr("127.0.0.99"));
}

}  // namespace
}  // namespace kelo::test
