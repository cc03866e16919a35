// kelo doctor on networks that are wrong in one way each.

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include "in_time.h"
#include "json_number.h"
#include "tool_fixture.h"

namespace kelo::test {
namespace {

using testing::ContainsRegex;

class KeloDoctor : public ToolTest {
protected:
    static kelosim::CameraConfig Fast(kelosim::ImageSourcePtr source, double rate) {
        kelosim::CameraConfig config;
        config.streams[0].source = std::move(source);
        config.streams[0].frame_rate = rate;
        return config;
    }
    static std::string Found(const std::string& check, const std::string& subject,
                             const std::string& measured, const std::string& verdict) {
        return "{\"check\":\"" + check + "\",\"subject\":\"" + subject + "\",\"measured\":\"" +
               measured + "\",\"verdict\":\"" + verdict + "\"";
    }
    // Whether anything is bad decides; some of it is the machine's that runs the test.
    static void ExpectExitCodeByVerdict(const Result& result) {
        ExpectJsonLines(result.out);
        const bool bad = result.out.find("{\"verdict\":\"bad\",\"findings\"") == 0;
        EXPECT_EQ(result.exit_code, bad ? 1 : 0);
    }
};

// A cable to nowhere that only root of a network of its own can lay.
class KeloDoctorOnACable : public KeloDoctor {
protected:
    void SetUp() override {
        if (!InPrivateNetwork()) GTEST_SKIP() << "needs a network of its own";
        Ip("link add doc0 mtu 1400 type veth peer name doc1");
        Ip("address add 10.7.0.1/24 broadcast + dev doc0");
        Ip("link set doc0 up");
        Ip("link set doc1 up");
    }
    void TearDown() override {
        if (InPrivateNetwork()) Ip("link del doc0");
    }
};

TEST_F(KeloDoctor, FindsACameraThatAnswers) {
    StartOne();
    RepeatUntilInTime([&] {
        const Result result = Kelo({"doctor", "--json"});
        ExpectExitCodeByVerdict(result);
        if (result.out.find("1 camera answered") == std::string::npos) return false;
        EXPECT_THAT(result.out,
                    HasSubstr(Found("discovery", "", "1 camera answered within 500 ms", "ok")));
        EXPECT_THAT(result.out, HasSubstr(Found("mtu", "lo", "65536 bytes", "ok")));
        EXPECT_THAT(result.out, HasSubstr(Found("firewall", "", "nothing that drops", "ok")));
        EXPECT_THAT(result.out, HasSubstr("\"check\":\"receive-buffer\""));
        EXPECT_THAT(result.out, HasSubstr("\"check\":\"real-time\""));
        return true;
    });
}

TEST_F(KeloDoctor, PrintsEachFindingWithItsCure) {
    const Result result = Kelo({"doctor", "127.0.0.11", "--timeout", "100"});
    EXPECT_EQ(result.exit_code, 1) << "there is no camera";
    EXPECT_THAT(result.out, ContainsRegex("\nbad      discovery: 0 cameras answered within 100 ms\n"
                                          "         [^\n]+\n         > "));
    EXPECT_THAT(result.out, HasSubstr("\nbad      camera 127.0.0.11: does not answer\n"));
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(KeloDoctorOnACable, ReadsMtuAndReversePathFilter) {
    std::ofstream("/proc/sys/net/ipv4/conf/doc0/rp_filter") << "1";
    const Result result = Kelo({"doctor", "--json", "--timeout", "50"});
    EXPECT_THAT(result.out, HasSubstr(Found("mtu", "doc0", "1400 bytes", "bad")));
    EXPECT_THAT(result.out, HasSubstr("\"cure\":\"ip link set dev doc0 mtu 9000\""));
    EXPECT_THAT(result.out, HasSubstr(Found("reverse-path-filter", "doc0", "strict", "warn")));
    EXPECT_THAT(result.out, HasSubstr("\"cure\":\"sysctl -w net.ipv4.conf.doc0.rp_filter=2\""));
    std::ofstream("/proc/sys/net/ipv4/conf/doc0/rp_filter") << "2";
    EXPECT_THAT(Kelo({"doctor", "--json", "--timeout", "50"}).out,
                HasSubstr(Found("reverse-path-filter", "doc0", "loose", "ok")));
}

TEST_F(KeloDoctorOnACable, NamesInterfacesOnOneSubnet) {
    Ip("address add 10.7.0.2/24 broadcast + dev doc1");
    // Which of them is named first is the system's choice.
    EXPECT_THAT(
        Kelo({"doctor", "--json", "--timeout", "50"}).out,
        testing::AnyOf(
            HasSubstr(Found("addresses", "doc1", "10.7.0.2, on the subnet of doc0", "warn")),
            HasSubstr(Found("addresses", "doc0", "10.7.0.1, on the subnet of doc1", "warn"))));
}

TEST_F(KeloDoctor, TellsAnswersThatAFirewallDropsFromSilence) {
    if (!InPrivateNetwork()) GTEST_SKIP() << "needs a network of its own";
    StartOne();
    ASSERT_EQ(
        std::system("nft 'add table inet guard; add chain inet guard input { type filter hook "
                    "input priority 0; policy accept; }; add rule inet guard input udp sport "
                    "6061 drop'"),
        0);
    const Result result = Kelo({"doctor", "--json"});
    EXPECT_EQ(std::system("nft delete table inet guard"), 0);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.out, HasSubstr(Found("firewall", "inet guard input",
                                            "accepts by default, 1 rule that drops", "warn")));
    EXPECT_THAT(result.out,
                HasSubstr(Found("discovery", "",
                                "0 cameras answered within 500 ms; answers that reached the card "
                                "only: 127.0.0.11",
                                "bad")));
    EXPECT_THAT(result.out, HasSubstr("most likely its firewall"));
}

TEST_F(KeloDoctor, SaysWhatItMayNotSeeWithoutPrivileges) {
    rlimit limit{};
    getrlimit(RLIMIT_RTPRIO, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_RTPRIO, &none);
    Result result;
    // What a thread gives up, its children never get.
    std::thread([&] {
        for (const int capability : {CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_NICE})
            prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
        result = Kelo({"doctor", "--json", "--timeout", "50"});
    }).join();
    setrlimit(RLIMIT_RTPRIO, &limit);
    EXPECT_THAT(result.out,
                HasSubstr(Found("real-time", "", "RLIMIT_RTPRIO 0, priority refused", "warn")));
    EXPECT_THAT(result.out, HasSubstr(Found("firewall", "", "may not be read", "unknown")));
    EXPECT_THAT(result.out, HasSubstr("run as root to find out whether answers reach the card"));
}

// ---- Streams
// -------------------------------------------------------------------------------------

TEST_F(KeloDoctor, FindsNothingWrongWithAGoodStream) {
    StartOne(Fast(kelosim::MakeTestChart8(320, 200), 100));
    RepeatUntilInTime([&] {
        const Result result = Kelo({"doctor", "127.0.0.11", "--seconds", "0.3", "--json"});
        ExpectExitCodeByVerdict(result);
        // The machine may stand still within an image, which is a loss.
        if (JsonNumber(result.out, "images") < 5 || JsonNumber(result.out, "packets_lost") > 0) {
            return false;
        }
        EXPECT_THAT(result.out,
                    ContainsRegex("\"check\":\"stream\",\"subject\":\"127.0.0.11 stream "
                                  "0\",\"measured\":\"[^\"]+\",\"verdict\":\"ok\""));
        EXPECT_THAT(result.out, HasSubstr("\"likely_causes\":[]"));
        EXPECT_THAT(result.out, HasSubstr("\"interface\":\"lo\""));
        return true;
    });
    EXPECT_FALSE(simulator[0].used());
}

TEST_F(KeloDoctor, LossesThatNoCounterExplainsHappenedBeforeThisMachine) {
    kelosim::CameraConfig config = Fast(kelosim::MakeTestChart8(320, 200), 100);
    config.faults.drop_rate = 0.02;
    StartOne(config);
    RepeatUntilInTime([&] {
        const Result result = Kelo({"doctor", "127.0.0.11", "--seconds", "1", "--json"});
        if (JsonNumber(result.out, "packets_lost") < 5) return false;
        EXPECT_EQ(result.exit_code, 1);
        EXPECT_THAT(result.out, HasSubstr("\"likely_causes\":[{\"place\":\"network\","));
        EXPECT_EQ(JsonNumber(result.out, "socket_drops"), 0);
        return true;
    });
}

TEST_F(KeloDoctor, LossesInTheSocketAreTracedToTheReceiveBuffer) {
    constexpr uint64_t kMoreThanAnyBuffer = 150'000'000;
    kelosim::Camera& camera = StartOne(Fast(kelosim::MakeBytes(1'000'000), 0));
    const auto sent = [&] { return camera.counters().streams[0].bytes; };
    const auto wait_for_more = [&](uint64_t more) {
        const uint64_t before = sent();
        return WaitFor([&] { return sent() > before + more; });
    };
    RepeatUntilInTime([&] {
        camera.SetFrameRate(0, 0);
        KeloProcess process({"doctor", "127.0.0.11", "--seconds", "600", "--json"});
        const uint64_t images = camera.counters().streams[0].images;
        WaitFor(
            [&] { return camera.counters().streams[0].images > images + 20 || process.Ended(); });
        if (process.Ended()) return false;  // the camera was not found in time
        // A process that gets no processor for a while.
        process.Signal(SIGSTOP);
        EXPECT_TRUE(wait_for_more(kMoreThanAnyBuffer));
        process.Signal(SIGCONT);
        EXPECT_TRUE(wait_for_more(kMoreThanAnyBuffer));
        // The rest comes at a pace that leaves no image under way.
        camera.SetFrameRate(0, 50);
        EXPECT_TRUE(wait_for_more(15'000'000));
        process.Signal(SIGINT);
        EXPECT_EQ(process.Wait(), 130);
        EXPECT_GT(JsonNumber(process.Output(), "socket_drops"), 0);
        if (JsonNumber(process.Output(), "images_skipped") == 0) return false;
        EXPECT_THAT(process.Output(), HasSubstr("{\"place\":\"socket\","));
        EXPECT_THAT(process.Output(), HasSubstr("sysctl -w net.core.rmem_max="));
        return true;
    });
}

TEST_F(KeloDoctor, ACameraThatSendsNoImagesIsBad) {
    kelosim::Camera& camera = StartOne();
    camera.SetRegister(REG_TRIGGERMODE, 1);
    RepeatUntilInTime([&] {
        const Result result = Kelo({"doctor", "127.0.0.11", "--seconds", "0.1"});
        EXPECT_EQ(result.exit_code, 1);
        if (result.out.find("does not answer") != std::string::npos) return false;
        EXPECT_THAT(result.out, HasSubstr("no image within 0.1 s"));
        EXPECT_THAT(result.out, HasSubstr("> kelo get 127.0.0.11 REG_TRIGGERMODE"));
        return true;
    });
}

}  // namespace
}  // namespace kelo::test
