// kelo set-ip.

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
    // The prompt, and what somebody answers.
    struct Answered {
        int exit_code;
        std::string screen;
    };
    static Answered Answer(const std::string& typed) {
        KeloProcess process(Arguments("127.0.0.21", {"--wait", "60"}),
                            KeloProcess::Stdio::kTerminal);
        EXPECT_TRUE(process.WaitForOutput("Go on? [y/N] ")) << process.Output();
        process.Type(typed);
        const int exit_code = process.Wait();
        return {exit_code, process.Output()};
    }

    kelosim::Camera& camera = StartOne();
};

TEST_F(KeloSetIp, MovesTheCameraAndFindsItAgain) {
    const Result result = Kelo(Arguments("127.0.0.21", {"--yes", "--wait", "60"}));
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("Found again by its MAC 02:4b:7f:00:00:0b: KELO simulated "
                                      "camera at 127.0.0.21, mask 255.0.0.0, handle 0x"));
    EXPECT_EQ(Address(camera), "127.0.0.21");
}

TEST_F(KeloSetIp, PrintsJson) {
    const Result result = Kelo(Arguments("127.0.0.21", {"--yes", "--wait", "60", "--json"}));
    EXPECT_EQ(result.exit_code, 0) << result.err;
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
    for (const char* answer : {"n\n", "\n", "yo\n", "\x04"}) {
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
    const Result result = Kelo(Arguments("127.0.0.21"), "y\n");
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_THAT(result.err, HasSubstr("--yes"));
    EXPECT_EQ(Address(camera), "127.0.0.11");
}

TEST_F(KeloSetIp, AnAddressThatTheCameraHasIsNoChange) {
    const Result result = Kelo(Arguments("127.0.0.11"));
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.out, HasSubstr("has this address already"));
}

TEST_F(KeloSetIp, RefusesWhatIsNoAddressOrNoMask) {
    for (const auto& [address, mask, text] : {std::tuple("127.0.0.256", "/8", "is no address"),
                                              {"127.0.0.21", "255.0.255.0", "no mask"},
                                              {"127.0.0.0", "/24", "network's own"},
                                              {"127.0.0.1", "/8", "this machine has"},
                                              {"224.0.0.1", "/8", "multicast"}}) {
        const Result result = Kelo({"set-ip", "127.0.0.11", address, mask, "--yes"});
        EXPECT_EQ(result.exit_code, 2) << address;
        EXPECT_THAT(result.err, HasSubstr(text));
    }
    EXPECT_EQ(Address(camera), "127.0.0.11");
}

TEST_F(KeloSetIp, TellsWhenTheCameraKeepsItsAddress) {
    // The simulated camera cannot take an address that its machine does not have.
    const Result result = Kelo(Arguments("10.77.0.5", {"--yes", "--wait", "1"}));
    EXPECT_THAT(result.err, HasSubstr("warning: no interface of this machine is in that subnet"));
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_THAT(result.err, HasSubstr("did not take the address: it is still at 127.0.0.11"));
}

TEST_F(KeloSetIp, WarnsThatAProgramWillLoseTheCamera) {
    camera.SetRegister(REG_CAMERA_USED, 1);
    const Result result = Kelo(Arguments("127.0.0.21", {"--yes", "--wait", "60"}));
    EXPECT_EQ(result.exit_code, 0);
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
    const Result result = Kelo(arguments);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.err, HasSubstr("10.9.0.77 is in use: 02:00:00:00:00:77 answers there"));
    // Told to go on, it gets as far as the camera.
    arguments.insert(arguments.end(), {"--force", "--wait", "1"});
    EXPECT_THAT(Kelo(arguments).err, HasSubstr("did not take the address"));
}

TEST(KeloSetIpOfTwo, RefusesTheAddressOfAnotherCamera) {
    kelosim::Simulator simulator;
    simulator.AddMany(2);
    simulator.Start();
    // The other one must be heard.
    const Result result = Kelo({"set-ip", "127.0.0.11", "127.0.0.12", "/8", "--yes"});
    EXPECT_EQ(result.exit_code, 2) << result.out;
    EXPECT_THAT(result.err, HasSubstr("another camera has this address: KELO simulated camera 2"));
}

}  // namespace
}  // namespace kelo::test
