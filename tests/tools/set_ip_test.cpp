// kelo set-ip.

#include "in_time.h"
#include "tool_fixture.h"

namespace kelo::test {
namespace {

class KeloSetIp : public ToolTest {
protected:
    static std::vector<std::string> Arguments(const std::string& address,
                                              std::vector<std::string> more = {}) {
        std::vector<std::string> arguments = {"set-ip", "02:4b:7f:00:00:0b", address, "/8"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
    // What it says when the search for other cameras, in front of the change, has missed this one
    // because the machine stood still: then nothing has happened.
    static constexpr const char* MISSED = " does not answer any more";

    // A run that ends as expected, unless the machine stood still and the camera was not heard:
    // then nothing has happened, and it is run again.
    static Result Run(const std::vector<std::string>& arguments, int exit_code) {
        const Result result = Search(arguments, [exit_code](const Result& run) {
            return run.exit_code == exit_code && run.err.find(MISSED) == std::string::npos;
        });
        EXPECT_EQ(result.exit_code, exit_code) << result.out << result.err;
        return result;
    }
    // The prompt, and what somebody answers.
    struct Answered {
        int exit_code;
        std::string screen;
    };
    static Answered Answer(const std::string& typed) {
        Answered answered{};
        RepeatUntilInTime([&] {
            KeloProcess process(Arguments("127.0.0.21", {"--wait", "60"}),
                                KeloProcess::Stdio::kTerminal);
            // A camera that was not heard in time is asked for again.
            if (!process.WaitForOutput("Go on? [y/N] ")) return false;
            process.Type(typed);
            answered.exit_code = process.Wait();
            answered.screen = process.Output();
            return answered.screen.find(MISSED) == std::string::npos;
        });
        return answered;
    }

    kelosim::Camera& camera = StartOne();
};

TEST_F(KeloSetIp, MovesTheCameraAndFindsItAgain) {
    const Result result = Run(Arguments("127.0.0.21", {"--yes", "--wait", "60"}), 0);
    EXPECT_THAT(result.out, HasSubstr("Found again by its MAC 02:4b:7f:00:00:0b: KELO simulated "
                                      "camera at 127.0.0.21, mask 255.0.0.0, handle 0x"));
    EXPECT_EQ(Address(camera), "127.0.0.21");
}

TEST_F(KeloSetIp, PrintsJson) {
    const Result result = Run(Arguments("127.0.0.21", {"--yes", "--wait", "60", "--json"}), 0);
    ExpectJsonLines(result.out);
    EXPECT_THAT(result.out, HasSubstr("{\"changed\":true,\"handle\":\"0x"));
    EXPECT_THAT(result.out, HasSubstr("\"address\":\"127.0.0.21\""));
}

TEST_F(KeloSetIp, AsksFirst) {
    const Answered answered = Answer("y\n");
    EXPECT_EQ(answered.exit_code, 0);
    EXPECT_THAT(answered.screen,
                HasSubstr("KELO simulated camera at 127.0.0.11 (02:4b:7f:00:00:0b) "
                          "gets the address 127.0.0.21, mask 255.0.0.0."));
    EXPECT_EQ(Address(camera), "127.0.0.21");
}

TEST_F(KeloSetIp, DoesNothingUnlessTheAnswerIsYes) {
    for (const char* answer : {"yo\n", "\x04"}) {
        const Answered answered = Answer(answer);
        EXPECT_EQ(answered.exit_code, 1) << answer;
        EXPECT_THAT(answered.screen, HasSubstr("nothing was changed"));
    }
    EXPECT_EQ(Address(camera), "127.0.0.11");
}

TEST_F(KeloSetIp, DoesNothingAfterCtrlC) {
    const Answered answered = Answer("\x03");
    EXPECT_EQ(answered.exit_code, 130);
    EXPECT_THAT(answered.screen, HasSubstr("nothing was changed"));
    EXPECT_EQ(Address(camera), "127.0.0.11");
}

TEST_F(KeloSetIp, WithoutATerminalItWantsToBeTold) {
    const Result result = Run(Arguments("127.0.0.21"), 2);
    EXPECT_THAT(result.err, HasSubstr("--yes"));
    EXPECT_EQ(Address(camera), "127.0.0.11");
}

TEST_F(KeloSetIp, AnAddressThatTheCameraHasIsNoChange) {
    const Result result = Run(Arguments("127.0.0.11"), 0);
    EXPECT_THAT(result.out, HasSubstr("has this address already"));
}

TEST_F(KeloSetIp, RefusesWhatIsNoAddressOrNoMask) {
    for (const auto& [address, mask, text] : {std::tuple("127.0.0.256", "/8", "is no address"),
                                              {"127.0.0.21", "255.0.255.0", "no mask"},
                                              {"127.0.0.0", "/24", "network's own"},
                                              {"127.0.0.1", "/8", "this machine has"},
                                              {"224.0.0.1", "/8", "multicast"}}) {
        const Result result = Run({"set-ip", "127.0.0.11", address, mask, "--yes"}, 2);
        EXPECT_THAT(result.err, HasSubstr(text));
    }
    EXPECT_EQ(Address(camera), "127.0.0.11");
}

TEST_F(KeloSetIp, TellsWhenTheCameraKeepsItsAddress) {
    // The simulated camera cannot take an address that its machine does not have.
    const Result result = Run(Arguments("10.77.0.5", {"--yes", "--wait", "1"}), 4);
    EXPECT_THAT(result.err, HasSubstr("warning: no interface of this machine is in that subnet"));
    EXPECT_THAT(result.err, HasSubstr("did not take the address: it is still at 127.0.0.11"));
}

// Each search may miss the camera: then it is searched for again, or told that nothing was changed.
TEST_F(KeloSetIp, StandsACameraThatIsOftenNotHeard) {
    camera.SetFaults({.drop_reply_rate = 0.5});
    for (int run = 0; run < 3; ++run) {
        const std::string wanted = Address(camera) == "127.0.0.11" ? "127.0.0.21" : "127.0.0.11";
        const Result result =
            Kelo(Arguments(wanted, {"--yes", "--timeout", "100", "--wait", "60"}));
        EXPECT_THAT(result.exit_code, testing::AnyOf(0, 3, 5)) << result.err;
        if (result.exit_code == 5) {
            EXPECT_THAT(result.err, HasSubstr("Nothing was changed"));
        }
    }
}

TEST_F(KeloSetIp, WarnsThatAProgramWillLoseTheCamera) {
    camera.SetRegister(REG_CAMERA_USED, 1);
    const Result result = Run(Arguments("127.0.0.21", {"--yes", "--wait", "60"}), 0);
    EXPECT_THAT(result.err, HasSubstr("a program uses this camera now"));
}

TEST_F(KeloSetIp, RefusesAnAddressWhereSomebodyAnswers) {
    if (!InPrivateNetwork()) GTEST_SKIP() << "takes a network of its own";
    Ip("link add kelo-near type veth peer name kelo-far");
    Ip("address add 10.9.0.1/24 dev kelo-near");
    Ip("link set kelo-near up");
    Ip("link set kelo-far up");
    Ip("neigh add 10.9.0.77 lladdr 02:00:00:00:00:77 dev kelo-near nud permanent");
    std::vector<std::string> arguments = {"set-ip", "127.0.0.11", "10.9.0.77", "/24", "--yes"};
    const Result result = Run(arguments, 1);
    EXPECT_THAT(result.err, HasSubstr("10.9.0.77 is in use: 02:00:00:00:00:77 answers there"));
    // Told to go on, it gets as far as the camera.
    arguments.insert(arguments.end(), {"--force", "--wait", "1"});
    EXPECT_THAT(Run(arguments, 4).err, HasSubstr("did not take the address"));
}

class KeloSetIpOfTwo : public ToolTest {};

TEST_F(KeloSetIpOfTwo, RefusesTheAddressOfAnotherCamera) {
    simulator.AddMany(2);
    simulator.Start();
    // The other one must be heard; if it is not, the simulated camera cannot take the address.
    const Result result =
        Search({"set-ip", "127.0.0.11", "127.0.0.12", "/8", "--yes", "--wait", "1"},
               [](const Result& run) { return run.exit_code == 2; });
    EXPECT_THAT(result.err, HasSubstr("another camera has this address: KELO simulated camera 2"));
}

}  // namespace
}  // namespace kelo::test
