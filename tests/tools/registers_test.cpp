// kelo registers, info, get, set and memory.

#include <algorithm>

#include "tool_fixture.h"

namespace kelo::test {
namespace {

class KeloRegisters : public ToolTest {
protected:
    Result Run(std::vector<std::string> arguments) {
        const int words = arguments[0] == "memory" ? 2 : 1;
        arguments.insert(arguments.begin() + words, Address(camera));
        return Kelo(Patiently(arguments));
    }
    // How often a register was written, by whatever kind of request.
    long CountWrites(uint32_t number) const {
        const auto requests = camera.Requests();
        return std::count_if(requests.begin(), requests.end(), [&](const auto& request) {
            return request.register_number == number && request.command % 2 == 1;
        });
    }

    kelosim::Camera& camera = StartOne();
};

TEST(KeloRegisterNames, AreAllListedWithoutACamera) {
    const Result result = Kelo({"registers"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.out, HasSubstr("     2      0x2  REG_WIDTH\n"));
    EXPECT_THAT(result.out, HasSubstr("524288  0x80000  REG_BUS_ACCESS\n"));
    EXPECT_EQ(Kelo({"registers", "kp1"}).out,
              "NUMBER   HEX  NAME\n    30  0x1e  REG_HDR_KP1_POS\n");
    EXPECT_EQ(Kelo({"registers", "kp1", "--json"}).out,
              "{\"registers\":[{\"name\":\"REG_HDR_KP1_POS\",\"number\":30}]}\n");
    EXPECT_EQ(Kelo({"registers", "bogus"}).exit_code, 1);
}

TEST_F(KeloRegisters, InfoShowsWhatTheCameraIs) {
    const Result result = Run({"info"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    for (const char* line :
         {"Description                  KELO simulated camera\n",
          "MAC                          02:4b", "Model                        Simulated 1\n",
          "Serial number                0000001\n", "REG_WIDTH                    640 (0x280)\n",
          "Stream 0                     used, 8-bit grey (0x08), 307200 bytes, header of 0, over "
          "UDP"}) {
        EXPECT_THAT(result.out, HasSubstr(line));
    }
}

TEST_F(KeloRegisters, InfoLeavesOutWhatTheCameraDoesNotHave) {
    camera.UnmapRegister(REG_WIDTH);
    camera.UnmapRegister(REG_MODEL_NAME);
    const Result result = Run({"info", "--json"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    ExpectJsonLines(result.out);
    EXPECT_THAT(result.out, Not(HasSubstr("REG_WIDTH")));
    EXPECT_THAT(result.out, Not(HasSubstr("\"model\"")));
    EXPECT_THAT(result.out, HasSubstr("\"REG_HEIGHT\":480"));
    EXPECT_THAT(result.out, HasSubstr("\"serial_number\":\"0000001\""));
}

TEST_F(KeloRegisters, GetPrintsATable) {
    camera.SetRegister(REG_GAIN, 0x3FC00000);
    const Result result = Run({"get", "width", "0x20"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out,
              "REGISTER   NUMBER     INTEGER  HEX         FLOAT\n"
              "REG_WIDTH       2         640  0x00000280  -\n"
              "REG_GAIN       32  1069547520  0x3fc00000  1.5\n");
}

TEST_F(KeloRegisters, GetPrintsBareValuesForScripts) {
    camera.SetRegister(REG_GAIN, 0x3FC00000);
    EXPECT_EQ(Run({"get", "2", "3", "--format", "int"}).out, "640\n480\n");
    EXPECT_EQ(Run({"get", "gain", "--format", "float"}).out, "1.5\n");
    EXPECT_EQ(Run({"get", "gain", "--format", "hex"}).out, "0x3fc00000\n");
}

TEST_F(KeloRegisters, GetPrintsJson) {
    EXPECT_EQ(Run({"get", "gain", "77777", "--json"}).out,
              R"({"registers":[{"name":"REG_GAIN","number":32,"integer":1,"hex":"0x00000001",)"
              R"("float":1e-45},{"name":"","number":77777,"error":"the camera does not have it"}]})"
              "\n");
}

TEST_F(KeloRegisters, GetDoesNotClaimTheCamera) {
    EXPECT_EQ(Run({"get", "REG_CAMERA_USED", "--format", "int"}).out, "0\n");
    EXPECT_EQ(CountWrites(REG_CAMERA_USED), 0);
}

TEST_F(KeloRegisters, WhatACameraDoesNotHaveIsRefusedAfterTheRest) {
    const Result result = Run({"get", "77777", "width", "--format", "int"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_EQ(result.out, "640\n");
    EXPECT_THAT(result.err,
                HasSubstr("reading register 77777 failed: the camera does not have it"));
}

TEST_F(KeloRegisters, ACameraThatDoesNotAnswerIsLost) {
    camera.UpdateFaults([](auto& faults) {
        faults.drop_replies = 1000;
        faults.drop_replies_register = REG_WIDTH;
    });
    const Result result = Run({"get", "width", "--json"});
    EXPECT_EQ(result.exit_code, 5);
    EXPECT_THAT(result.err, HasSubstr("\"exit_code\":5"));
    EXPECT_THAT(result.out, HasSubstr("\"error\":\"the camera does not answer\""));
}

TEST_F(KeloRegisters, UnknownNamesAreRefusedBeforeAnyCameraIsAsked) {
    const Result result = Run({"get", "REG_WIDHT"});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_THAT(result.err, HasSubstr("Like it: REG_WIDTH."));
    EXPECT_EQ(camera.counters().discoveries, 0u);
}

TEST_F(KeloRegisters, SetWritesEveryKindOfValue) {
    const Result result = Run({"set", "gain=7", "25=1.5", "0x5=0xff", "REG_OFFSETX=-1"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(camera.GetRegister(REG_GAIN), 7u);
    EXPECT_EQ(camera.GetRegister(REG_EXPOSURETIME), 0x3FC00000u);
    EXPECT_EQ(camera.GetRegister(REG_OFFSETY), 0xFFu);
    EXPECT_EQ(camera.GetRegister(REG_OFFSETX), 0xFFFFFFFFu);
    EXPECT_THAT(result.out, HasSubstr("REG_EXPOSURETIME      25  1069547520  0x3fc00000  1.5\n"));
    EXPECT_EQ(Run({"set", "gain=2", "--format", "float"}).exit_code, 0);
    EXPECT_EQ(camera.GetRegister(REG_GAIN), 0x40000000u);
}

TEST_F(KeloRegisters, SetTellsWhatTheCameraMadeOfTheValue) {
    const Result result = Run({"set", "width=3", "--json"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.err,
                HasSubstr("warning: REG_WIDTH was to be 3 (0x3); the camera holds 640"));
    EXPECT_THAT(result.out, HasSubstr(R"("requested":3,"integer":640)"));
}

TEST_F(KeloRegisters, SetStopsAtTheFirstRegisterThatIsRefused) {
    const Result result = Run({"set", "gain=7", "REG_SENSORWIDTH=3", "REG_EXPOSURETIME=4"});
    EXPECT_EQ(result.exit_code, 4);
    EXPECT_THAT(result.out, HasSubstr("REG_GAIN"));
    EXPECT_THAT(result.err, HasSubstr("writing REG_SENSORWIDTH failed: the camera refused"));
    EXPECT_EQ(camera.GetRegister(REG_GAIN), 7u);
    EXPECT_EQ(camera.GetRegister(REG_EXPOSURETIME), 10000u);
}

TEST_F(KeloRegisters, SetWritesNothingWhenAnyOfItIsNotUnderstood) {
    for (const char* wrong : {"exposuretime", "exposuretime=", "exposuretime=fast", "bogus=1", "=1",
                              "exposuretime=4294967296"}) {
        EXPECT_EQ(Run({"set", "gain=7", wrong}).exit_code, 2) << wrong;
    }
    EXPECT_EQ(camera.GetRegister(REG_GAIN), 1u);
}

TEST_F(KeloRegisters, MemoryReadsBlocksOfAnyLength) {
    for (uint32_t i = 0; i < 200; ++i)
        camera.SetRegister(REG_BAD_PIXEL_LOCATIONS + i, i);
    const Result result =
        Run({"memory", "read", "REG_BAD_PIXEL_LOCATIONS", "200", "--format", "int"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("   11000: 0 1 2 3 4 5 6 7\n"));
    EXPECT_THAT(result.out, HasSubstr("   11128: 128 129 130 131 132 133 134 135\n"));
    EXPECT_THAT(result.out, testing::EndsWith("   11192: 192 193 194 195 196 197 198 199\n"));
    EXPECT_EQ(Run({"memory", "read", "11001", "2"}).out, "   11001: 0x00000001 0x00000002\n");
    EXPECT_EQ(Run({"memory", "read", "11001", "2", "--json"}).out,
              "{\"start\":11001,\"values\":[1,2]}\n");
}

TEST_F(KeloRegisters, MemoryWritesBlocksOfAnyLength) {
    std::vector<std::string> arguments = {"memory", "write", "11000"};
    for (int i = 0; i < 200; ++i)
        arguments.push_back(std::to_string(i + 1));
    const Result result = Run(arguments);
    EXPECT_EQ(result.out, "wrote 200 registers from 11000 on\n") << result.err;
    EXPECT_EQ(camera.GetRegister(11000), 1u);
    EXPECT_EQ(camera.GetRegister(11127), 128u);
    EXPECT_EQ(camera.GetRegister(11199), 200u);
}

TEST_F(KeloRegisters, MemoryTellsHowFarItCame) {
    // The third block is not there.
    const Result read = Run({"memory", "read", "11000", "300"});
    EXPECT_EQ(read.exit_code, 4);
    EXPECT_THAT(read.out, HasSubstr("   11248: "));
    EXPECT_THAT(read.err, HasSubstr("reading 44 registers from 11256 on failed"));
    camera.UpdateFaults([](auto& faults) { faults.refused_registers[11130] = 2; });
    std::vector<std::string> arguments = {"memory", "write", "11000", "--json"};
    arguments.insert(arguments.end(), 150, "5");
    const Result written = Run(arguments);
    EXPECT_EQ(written.exit_code, 4);
    EXPECT_EQ(written.out, "{\"start\":11000,\"written\":128}\n");
}

TEST_F(KeloRegisters, MemoryEndsWhereRegisterNumbersEnd) {
    EXPECT_EQ(Run({"memory", "read", "0x3fffffff", "2"}).exit_code, 2);
    EXPECT_EQ(Run({"memory", "read", "0x40000000", "1"}).exit_code, 2);
    EXPECT_EQ(Run({"memory", "read", "0x3fffffff", "1"}).exit_code, 4);
}

}  // namespace
}  // namespace kelo::test
