// kelo list and kelo watch, how cameras are named, and what holds for every command.

#include <csignal>

#include "tool_fixture.h"

namespace kelo::test {
namespace {

kelosim::CameraConfig Described(uint32_t host, const std::string& description) {
    kelosim::CameraConfig config;
    config.address = kelosim::Ipv4(127, 0, 0, host);
    config.description = description;
    return config;
}

class KeloList : public ToolTest {
protected:
    void StartGates() {
        simulator.Add(Described(11, "Left gate"));
        simulator.Add(Described(12, "Right gate"));
        simulator.Start();
    }
};

TEST_F(KeloList, PrintsATableOfTheCamerasThatAnswer) {
    StartGates();
    const Result result = Search({"list"}, [](const Result& run) {
        return run.out.find("Left") != std::string::npos &&
               run.out.find("Right") != std::string::npos;
    });
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.out, HasSubstr("HANDLE      ADDRESS     MASK       MAC"));
    EXPECT_THAT(result.out,
                HasSubstr("127.0.0.11  255.0.0.0  02:4b:7f:00:00:0b  lo       Left gate\n"));
    EXPECT_THAT(result.out,
                HasSubstr("127.0.0.12  255.0.0.0  02:4b:7f:00:00:0c  lo       Right gate\n"));
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(KeloList, PrintsJson) {
    StartOne(Described(11, "A \"gate\"\x1B[2J\xFF"));
    const Result result = Search({"list", "--json"});
    EXPECT_EQ(result.exit_code, 0);
    ExpectJsonLines(result.out);
    EXPECT_THAT(
        result.out,
        HasSubstr(
            R"("address":"127.0.0.11","mask":"255.0.0.0","mac":"02:4b:7f:00:00:0b","description":"A \"gate\"\u001b[2J)"
            "\xEF\xBF\xBD"
            R"(","reachable":true,"interface":"lo"})"));
}

TEST_F(KeloList, ADescriptionDoesNotReachTheTerminalAsItIs) {
    StartOne(Described(11, "A gate\x1B[2J\n\xFF"));
    EXPECT_THAT(Search({"list"}).out, HasSubstr("A gate?[2J?\xEF\xBF\xBD\n"));
}

TEST_F(KeloList, TellsACameraOnAForeignSubnet) {
    if (!InPrivateNetwork()) GTEST_SKIP() << "takes a network of its own";
    // Nothing but 127.0.0.1 is in this machine's subnet any more, and all of 127 still arrives.
    Ip("address del 127.0.0.1/8 dev lo");
    Ip("address add 127.0.0.1/32 dev lo");
    Ip("route add local 127.0.0.0/8 dev lo");
    StartOne();
    EXPECT_THAT(Search({"list"}).out, HasSubstr("foreign subnet"));
    EXPECT_THAT(Search({"list", "--json"}).out, HasSubstr(R"("reachable":false,"interface":null)"));
}

TEST_F(KeloList, NoCameraIsAnErrorThatSaysWhereItAskedAndWhatNext) {
    const Result result = Kelo({"list", "--timeout", "1"});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("kelo: no camera found\nAsked on: lo (127.0.0.1)"));
    EXPECT_THAT(result.err, HasSubstr("`kelo doctor`"));
}

TEST_F(KeloList, NoCameraIsAnEmptyListInJson) {
    const Result result = Kelo({"list", "--timeout", "1", "--json"});
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(result.out, "{\"cameras\":[]}\n");
    EXPECT_THAT(result.err, HasSubstr(R"({"error":"no camera found","advice":")"));
    EXPECT_THAT(result.err, HasSubstr(R"("exit_code":3})"));
    ExpectJsonLines(result.err);
}

TEST_F(KeloList, ShowsTheLibrarysLogApartFromTheOutput) {
    StartOne();
    const Result result = Search({"list", "--log"});
    EXPECT_THAT(result.err, HasSubstr("Discover: Detected 1 camera."));
    EXPECT_THAT(result.out, Not(HasSubstr("Discover")));
    EXPECT_THAT(Search({"list"}).err, IsEmpty());
}

TEST_F(KeloList, AmbiguityListsTheCandidates) {
    StartGates();
    const Result result = Search({"get", "gate", "REG_WIDTH"}, [](const Result& run) {
        return run.err.find("2 cameras") != std::string::npos;
    });
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_THAT(result.err, HasSubstr("kelo: 2 cameras are \"gate\"\nName one by"));
    EXPECT_THAT(result.err, HasSubstr("127.0.0.11  02:4b:7f:00:00:0b  Left gate\n"));
    EXPECT_THAT(result.err, HasSubstr("127.0.0.12  02:4b:7f:00:00:0c  Right gate\n"));
}

TEST_F(KeloList, ANameOfNobodyListsWhoIsThere) {
    StartOne(Described(11, "Left gate"));
    const Result result = Search({"get", "roof", "REG_WIDTH"}, [](const Result& run) {
        return run.err.find("Left") != std::string::npos;
    });
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_THAT(result.err, HasSubstr("no camera is \"roof\"\nThese answered:\n"));
}

TEST_F(KeloList, EveryKindOfNameFindsItsCamera) {
    StartGates();
    std::string handle;
    Search({"list"}, [&](const Result& run) {
        const size_t line = run.out.find("\n0x", run.out.find("HANDLE"));
        if (run.out.find("127.0.0.11") == std::string::npos) return false;
        handle = run.out.substr(run.out.rfind("\n0x", run.out.find("127.0.0.11")) + 1, 10);
        return line != std::string::npos;
    });
    for (const std::string& name : {handle, std::string("127.0.0.11"),
                                    std::string("02-4B-7F-00-00-0b"), std::string("LEFT")}) {
        const Result result = Search({"get", name, "137", "--format", "hex"});
        EXPECT_EQ(result.out, "0x7f00000b\n") << name << ": " << result.err;
    }
}

class KeloWatch : public ToolTest {};

TEST_F(KeloWatch, TellsOfCamerasThatComeGoAndChangeUntilCtrlC) {
    kelosim::Camera& camera = StartOne(Described(11, "Gate"));
    KeloProcess watch({"watch", "--timeout", "100"}, KeloProcess::Stdio::kTerminal);
    EXPECT_TRUE(watch.WaitForOutput("Gate at 127.0.0.11, 02:4b:7f:00:00:0b"));
    EXPECT_TRUE(watch.WaitForOutput("1 camera; Ctrl-C ends"));
    camera.SetAddress(kelosim::Ipv4(127, 0, 0, 21), kelosim::Ipv4(255, 0, 0, 0));
    EXPECT_TRUE(watch.WaitForOutput("changed Gate at 127.0.0.21"));
    EXPECT_TRUE(watch.WaitForOutput("was Gate at 127.0.0.11"));
    camera.PowerOff();
    EXPECT_TRUE(watch.WaitForOutput("gone    Gate at 127.0.0.21"));
    EXPECT_TRUE(watch.WaitForOutput("0 cameras; Ctrl-C ends"));
    camera.PowerOn();
    EXPECT_TRUE(watch.WaitForOutput("came    Gate at 127.0.0.21"));
    watch.Type("\x03");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(KeloWatch, PrintsOneJsonObjectALine) {
    kelosim::Camera& camera = StartOne();
    KeloProcess watch({"watch", "--timeout", "100", "--json"});
    EXPECT_TRUE(watch.WaitForOutput(R"("address":"127.0.0.11")"));
    camera.PowerOff();
    EXPECT_TRUE(watch.WaitForOutput(R"("event":"gone")"));
    watch.Signal(SIGTERM);
    EXPECT_EQ(watch.Wait(), 0);
    ExpectJsonLines(watch.Output());
    EXPECT_THAT(watch.Errors(), IsEmpty());
}

TEST_F(KeloWatch, EndsByItselfWhenTold) {
    const Result result = Kelo({"watch", "--timeout", "20", "--seconds", "0.1"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.err, HasSubstr("No camera yet. Asked on: lo"));
}

class KeloCommandLine : public ToolTest {};

TEST_F(KeloCommandLine, AnOutputThatCannotBeWrittenIsAnError) {
    EXPECT_EQ(std::system((std::string(KELO_COMMAND) + " registers 2> /dev/null > /dev/full; "
                                                       "test $? = 6")
                              .c_str()),
              0);
}

TEST_F(KeloCommandLine, MistakesEndWithTwoAndSayWhoHelps) {
    struct Case {
        std::vector<std::string> arguments;
        const char* help;
    };
    const Case cases[] = {
        {{}, "`kelo --help`"},
        {{"juggle"}, "`kelo --help`"},
        {{"list", "--loud"}, "`kelo list --help`"},
        {{"list", "--timeout", "0"}, "`kelo list --help`"},
        {{"list", "--timeout", "soon"}, "`kelo list --help`"},
        {{"get", "gate"}, "`kelo get --help`"},
        {{"memory"}, "`kelo memory --help`"},
        {{"memory", "read", "gate", "1", "0"}, "`kelo memory read --help`"},
        {{"get", "gate", "1", "--format", "octal"}, "`kelo get --help`"},
    };
    for (const Case& mistake : cases) {
        const Result result = Kelo(mistake.arguments);
        EXPECT_EQ(result.exit_code, 2) << mistake.help;
        EXPECT_THAT(result.err, HasSubstr(mistake.help));
        EXPECT_THAT(result.out, IsEmpty());
    }
}

TEST_F(KeloCommandLine, GlobalOptionsStandBeforeAndBehindTheCommand) {
    EXPECT_EQ(Kelo({"--json", "registers", "REG_WIDTH"}).out,
              Kelo({"registers", "REG_WIDTH", "--json"}).out);
}

TEST_F(KeloCommandLine, TellsItsVersion) {
    EXPECT_EQ(Kelo({"--version"}).out, "kelo " KELO_VERSION "\n");
}

}  // namespace
}  // namespace kelo::test
