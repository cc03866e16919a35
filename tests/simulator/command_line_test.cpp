// kelo-sim as a user runs it.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kelo_registers.h"
#include "wait_for.h"
#include "wire_client.h"

namespace kelosim::test {
namespace {

using kelo::test::WaitFor;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

constexpr uint32_t kAddress = Ipv4(127, 0, 0, 11);

// A run of kelo-sim; its output and errors go into one text.
class KeloSim {
public:
    explicit KeloSim(std::vector<std::string> arguments) {
        int in[2];
        int out[2];
        EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        arguments.insert(arguments.begin(), KELO_SIM);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        child_ = fork();
        if (child_ < 0) throw std::runtime_error("no process");
        if (child_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            execv(KELO_SIM, argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        input_ = in[1];
        output_ = out[0];
        fcntl(output_, F_SETFL, O_NONBLOCK);
    }
    ~KeloSim() {
        if (child_ > 0) kill(child_, SIGKILL);
        Wait();
        close(input_);
        close(output_);
    }
    KeloSim(const KeloSim&) = delete;
    KeloSim& operator=(const KeloSim&) = delete;

    const std::string& Output() {
        char bytes[4096];
        for (ssize_t got; (got = read(output_, bytes, sizeof(bytes))) > 0;) {
            text_.append(bytes, static_cast<size_t>(got));
        }
        return text_;
    }
    bool WaitForOutput(const std::string& text) {
        return WaitFor([&] { return Output().find(text) != std::string::npos; });
    }
    void Type(const std::string& line) {
        const std::string text = line + "\n";
        EXPECT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // To nobody once its end has been taken: 0 would be this process's whole group.
    void Signal(int signal) {
        if (child_ > 0) kill(child_, signal);
    }
    // The exit code; -1 when it was no orderly exit.
    int Wait() {
        if (child_ > 0) waitpid(child_, &status_, 0);
        child_ = 0;
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }

private:
    pid_t child_ = 0;
    int status_ = 0;
    int input_ = -1;
    int output_ = -1;
    std::string text_;
};

TEST(KeloSimTest, HelpIsAManual) {
    KeloSim sim({"--help"});
    // Longer than a pipe holds would block the program: read while it writes.
    ASSERT_TRUE(sim.WaitForOutput("--spoil crc"));
    EXPECT_EQ(sim.Wait(), 0);
    for (const char* text : {"--count", "--source", "--drop", "--lie-reply", "--tcp-close",
                             "--write-firmware", "Exit codes:", "Examples:", "Ctrl-C"}) {
        EXPECT_THAT(sim.Output(), HasSubstr(text));
    }
}

struct WrongCase {
    std::vector<std::string> arguments;
    const char* message;
};

void PrintTo(const WrongCase& wrong, std::ostream* out) {
    *out << wrong.arguments.back();
}

class WrongCommandLineTest : public testing::TestWithParam<WrongCase> {};

TEST_P(WrongCommandLineTest, IsSaidClearly) {
    KeloSim sim(GetParam().arguments);
    EXPECT_EQ(sim.Wait(), 2);
    EXPECT_THAT(sim.Output(), HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WrongCommandLineTest,
    testing::Values(
        WrongCase{{"--bogus"}, "--bogus"},
        WrongCase{{"--address", "camera"}, "\"camera\" is no IPv4 address"},
        WrongCase{{"--picture", "3"}, "\"3\" is not of the form WIDTHxHEIGHT"},
        WrongCase{{"--source", "cat"}, "\"cat\" is not of the form chart8|chart16|profile|"},
        WrongCase{{"--source", "png:/nowhere"}, "/nowhere: No such file or directory"},
        WrongCase{{"--tcp", "1"}, "there is no stream 1"}, WrongCase{{"--drop", "2"}, "--drop"},
        WrongCase{{"--packet", "lose:1"}, "drop|duplicate|delay|reorder:IMAGE[:PACKET]"},
        WrongCase{{"--packet", "drop:1:2:3"}, "drop|duplicate|delay|reorder:IMAGE[:PACKET]"},
        WrongCase{{"--jump", "1"}, "\"1\" is not of the form IMAGE:BY"},
        WrongCase{{"--lie", "colour=1"}, "\"colour=1\" is not of the form magic|stream|"},
        WrongCase{{"--lie-reply", "status=x"}, "\"status=x\" is not of the form magic|command|"},
        WrongCase{{"--refuse", "-1"}, "\"-1\" is not of the form REGISTER[:STATUS]"},
        WrongCase{{"--tcp-close", "1:2:3"}, "is not of the form IMAGE:BYTES"},
        WrongCase{{"--size", "5000000"}, "--write-firmware"},
        WrongCase{{"--write-firmware", "/tmp/x", "--size", "100"}, "Value 100 not in range"},
        WrongCase{{"--write-firmware", "/tmp/x", "--spoil", "all"}, "--spoil"}));

TEST(KeloSimTest, AddressInUseIsAnError) {
    Simulator simulator;
    simulator.Add({});
    simulator.Start();
    KeloSim sim({});
    EXPECT_EQ(sim.Wait(), 1);
    EXPECT_THAT(sim.Output(), HasSubstr("kelo-sim: cannot take 127.0.0.11:6061: the address is in "
                                        "use (is another simulator running?)"));
}

TEST(KeloSimTest, InterruptEndsItCleanlyWithASummary) {
    for (const int signal : {SIGINT, SIGTERM}) {
        KeloSim sim({"--count", "2"});
        ASSERT_TRUE(sim.WaitForOutput("camera 2: 127.0.0.12"));
        UdpClient client;
        client.Set(kAddress, REG_CAMERA_USED, 1);
        EXPECT_TRUE(sim.WaitForOutput("127.0.0.11: claimed by 127.0.0.1:"));
        sim.Signal(signal);
        EXPECT_EQ(sim.Wait(), 0);
        EXPECT_THAT(sim.Output(),
                    HasSubstr("summary of camera 1 (127.0.0.11): 1 requests, 1 replies, 0 lost"));
        EXPECT_THAT(sim.Output(), HasSubstr("summary of camera 2 (127.0.0.12): 0 requests"));
    }
}

TEST(KeloSimTest, EndsByItselfAfterItsDuration) {
    KeloSim sim({"--duration", "0.05", "--quiet"});
    EXPECT_EQ(sim.Wait(), 0);
    EXPECT_THAT(sim.Output(), StartsWith("camera 1: 127.0.0.11, 1 stream, TCP port "));
    EXPECT_THAT(sim.Output(), testing::Not(HasSubstr("power on")));
}

TEST(KeloSimTest, OptionsReachTheCameras) {
    KeloSim sim({"--address",      "127.0.0.21", "--address", "127.0.0.22", "--source",  "chart16",
                 "--source",       "profile",    "--tcp",     "1",          "--picture", "32x16",
                 "--images",       "1",          "--packet",  "drop:7:1",   "--jump",    "9:100",
                 "--heartbeat-ms", "0"});
    ASSERT_TRUE(sim.WaitForOutput("camera 2: 127.0.0.22, 2 streams"));
    EXPECT_THAT(sim.Output(), HasSubstr("faults: drop image 7 packet 1, jump at image 9 by 100"));
    UdpClient client;
    const uint32_t address = Ipv4(127, 0, 0, 21);
    EXPECT_EQ(client.Get(address, REG_STREAM0_FRAME_SIZE), 2u * 32 * 16);
    EXPECT_EQ(client.Get(address, REG_STREAM1_OPTIONS), 1u);
    EXPECT_EQ(client.Get(address, REG_HEARTBEAT_TIMEOUT), 0u);
    UdpClient images;
    client.Set(address, REG_STREAMPORT, images.port());
    client.Set(address, REG_ACQUISITIONSTART, 1);
    auto received = ReceiveImages(images, 1);
    Bytes expected;
    MakeTestChart16(32, 16)->Render(1, expected);
    EXPECT_EQ(received[1].Data(), expected);
    EXPECT_TRUE(sim.WaitForOutput("127.0.0.21: stream 0: all 1 images sent"));
}

TEST(KeloSimTest, StandardInputChangesFaultsAndPower) {
    KeloSim sim({"--count", "2"});
    ASSERT_TRUE(sim.WaitForOutput("camera 2"));
    sim.Type("2 --refuse 2:3 --seed 5");
    EXPECT_TRUE(sim.WaitForOutput("faults of 127.0.0.12: refuse register 2 with status 3"));
    UdpClient client;
    EXPECT_EQ(Be32At(client.Ask(ReadRegister(1, 2), Ipv4(127, 0, 0, 12)), 10), 3u);
    EXPECT_EQ(Be32At(client.Ask(ReadRegister(1, 2), kAddress), 10), 1u);
    sim.Type("all");
    EXPECT_TRUE(sim.WaitForOutput("faults of 127.0.0.12: none"));
    sim.Type("1 reboot");
    EXPECT_TRUE(sim.WaitForOutput("127.0.0.11: power off"));
    sim.Type("3 reboot");
    EXPECT_TRUE(sim.WaitForOutput("kelo-sim: \"3 reboot\": no camera 3"));
    sim.Type("1 --bogus");
    EXPECT_TRUE(sim.WaitForOutput("kelo-sim: \"1 --bogus\": "));
    sim.Signal(SIGINT);
    EXPECT_EQ(sim.Wait(), 0);
}

class FirmwareFileTest : public testing::TestWithParam<std::pair<std::string, FirmwareSpoil>> {};

TEST_P(FirmwareFileTest, IsWritten) {
    const auto& [name, spoil] = GetParam();
    const std::string path = testing::TempDir() + "kelo-fw-" + std::to_string(getpid()) + ".bin";
    std::vector<std::string> arguments{"--write-firmware", path, "--size", "4300000",
                                       "--firmware-seed",  "9"};
    if (spoil != FirmwareSpoil::kNone) arguments.insert(arguments.end(), {"--spoil", name});
    KeloSim sim(arguments);
    EXPECT_EQ(sim.Wait(), 0);
    std::ifstream file(path, std::ios::binary);
    const Bytes contents{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(contents, MakeFirmwareImage(4300000, 9, spoil));
    std::filesystem::remove(path);
}

INSTANTIATE_TEST_SUITE_P(Spoils, FirmwareFileTest,
                         testing::Values(std::pair(std::string("none"), FirmwareSpoil::kNone),
                                         std::pair(std::string("magic"), FirmwareSpoil::kMagic),
                                         std::pair(std::string("length"), FirmwareSpoil::kLength),
                                         std::pair(std::string("crc"), FirmwareSpoil::kCrc),
                                         std::pair(std::string("too-short"),
                                                   FirmwareSpoil::kTooShort)),
                         [](const auto& test) {
                             const std::string& name = test.param.first;
                             return name == "too-short" ? std::string("tooShort") : name;
                         });

TEST(KeloSimTest, UnwritableFirmwareFileIsAnError) {
    KeloSim sim({"--write-firmware", "/nowhere/fw.bin"});
    EXPECT_EQ(sim.Wait(), 1);
    EXPECT_THAT(sim.Output(), HasSubstr("kelo-sim: cannot write /nowhere/fw.bin: "));
}

}  // namespace
}  // namespace kelosim::test
