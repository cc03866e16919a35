// The parts of the kelo command that need no camera and no process.

#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "address_checks.h"
#include "camera_selector.h"
#include "json_writer.h"
#include "kelo_registers.h"
#include "register_names.h"
#include "register_value.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uint32_t Ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}

EXT_CAM_INFO MakeCamera(uint32_t handle, uint32_t address, const std::string& description) {
    EXT_CAM_INFO camera{};
    camera.camera_handle = handle;
    camera.camera_ip = address;
    camera.camera_subnetmask = Ip(255, 255, 255, 0);
    for (size_t i = 0; i < 6; ++i)
        camera.camera_mac[i] = static_cast<uint8_t>(handle >> (i % 4) * 8);
    description.copy(camera.description, sizeof camera.description - 1);
    return camera;
}

TEST(ToolText, ParsesAddressesOfFourNumbersOnly) {
    EXPECT_EQ(ParseAddress("192.168.1.20"), Ip(192, 168, 1, 20));
    EXPECT_EQ(ParseAddress("255.255.255.255"), 0xFFFFFFFFu);
    for (const char* wrong : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.", ".1.2.3", "1.2.3.4 ",
                              "a.b.c.d", "1.-2.3.4", "0x1.2.3.4", "1..2.3", "1.2.3.0004"}) {
        EXPECT_EQ(ParseAddress(wrong), std::nullopt) << wrong;
    }
}

TEST(ToolText, ParsesMacs) {
    const auto mac = ParseMac("02:4b:7F:00:00:0b");
    ASSERT_TRUE(mac);
    EXPECT_EQ(MacText(mac->data()), "02:4b:7f:00:00:0b");
    EXPECT_EQ(ParseMac("02-4b-7f-00-00-0b"), mac);
    for (const char* wrong : {"", "02:4b:7f:00:00", "02:4b:7f:00:00:0g",
                              "02:4b:7f:00:00:0b:", "024b7f00000b", "02.4b.7f.00.00.0b"}) {
        EXPECT_EQ(ParseMac(wrong), std::nullopt) << wrong;
    }
}

TEST(ToolText, ParsesMasksOfOnesFollowedByZeros) {
    EXPECT_EQ(ParseMask("255.255.255.0"), 0xFFFFFF00u);
    EXPECT_EQ(ParseMask("/24"), 0xFFFFFF00u);
    EXPECT_EQ(ParseMask("8"), 0xFF000000u);
    EXPECT_EQ(ParseMask("0"), 0u);
    EXPECT_EQ(ParseMask("32"), 0xFFFFFFFFu);
    for (const char* wrong : {"", "/", "33", "255.0.255.0", "0.0.0.255", "255.255.255.1", "//8"}) {
        EXPECT_EQ(ParseMask(wrong), std::nullopt) << wrong;
    }
}

TEST(ToolText, KeepsATerminalFromWhatCamerasSay) {
    EXPECT_EQ(Printable("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ(Printable("a\x1B[2Jb\n"), "a?[2Jb?");
    EXPECT_EQ(Printable("a\xC2\x9B\x7F"), "a??");
    EXPECT_EQ(Printable("\xFF"), "\xEF\xBF\xBD");
    EXPECT_EQ(Printable("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // overlong
    EXPECT_EQ(Printable("\xED\xA0\x80").size(), 9u);               // surrogate
    EXPECT_EQ(Printable("\xF4\x90\x80\x80").size(), 12u);          // too large
    EXPECT_EQ(Printable("\xE2\x82"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // cut off
    EXPECT_EQ(Printable("\xF0\x9F\x93\xB7"), "\xF0\x9F\x93\xB7");
}

TEST(ToolJson, NestsAndPutsCommasIn) {
    JsonWriter json;
    json.BeginObject();
    json.Member("a", 1);
    json.BeginArray("b");
    json.Element(uint64_t{2});
    json.Element("x");
    json.BeginObject();
    json.EndObject();
    json.EndArray();
    json.Member("c", true);
    json.NullMember("d");
    json.EndObject();
    EXPECT_EQ(json.Text(), R"({"a":1,"b":[2,"x",{}],"c":true,"d":null})");
}

TEST(ToolJson, EscapesText) {
    JsonWriter json;
    json.Element("a\"b\\c\n\x01\x7F\xFF\xC3\xA9");
    EXPECT_EQ(json.Text(), "\"a\\\"b\\\\c\\u000a\\u0001\\u007f\xEF\xBF\xBD\xC3\xA9\"");
}

TEST(ToolJson, HasNoWordForInfinity) {
    JsonWriter json;
    json.BeginObject();
    json.Member("a", std::numeric_limits<double>::infinity());
    json.Member("b", std::nanf(""));
    json.Member("c", 0.1F);
    json.Member("d", 0.1);
    json.Member("e", std::numeric_limits<int64_t>::min());
    json.Member("f", std::numeric_limits<uint64_t>::max());
    json.EndObject();
    EXPECT_EQ(json.Text(), R"({"a":null,"b":null,"c":0.1,"d":0.1,"e":-9223372036854775808,)"
                           R"("f":18446744073709551615})");
}

TEST(ToolTable, MakesColumnsAsWideAsTheirCharacters) {
    Table table({{"A"}, {"NUMBER", Table::Align::kRight}, {"LAST"}});
    table.AddRow({"caf\xC3\xA9", "7", "x"});
    table.AddRow({"b", "1234567", "y"});
    EXPECT_EQ(table.Text(),
              "A      NUMBER  LAST\n"
              "caf\xC3\xA9        7  x\n"
              "b     1234567  y\n");
}

TEST(ToolRegisters, AreNamedWithAndWithoutPrefixInAnyCase) {
    for (const char* name : {"REG_WIDTH", "reg_width", "Width", "2", "0x2", "0X02"})
        EXPECT_EQ(ParseRegister(name), REG_WIDTH) << name;
    EXPECT_EQ(ParseRegister("kelo_cmd_firmware"), KELO_CMD_FIRMWARE);
    EXPECT_EQ(ParseRegister("0xFFFFFFFF"), 0xFFFFFFFF);
}

TEST(ToolRegisters, AllOfTheHeaderAreKnown) {
    EXPECT_EQ(RegisterNames().front().name, std::string("REG_SENSORWIDTH"));
    EXPECT_EQ(RegisterNames().back().number, REG_BUS_ACCESS);
    EXPECT_EQ(NamesOf(211), "REG_TIMESTAMP_VALUE_LOW/REG_PERSIST_IP_ADDR_0");
    EXPECT_EQ(RegisterText(9), "register 9");
}

std::string AdviceFor(const std::string& name) {
    try {
        (void)ParseRegister(name);
    } catch (const CommandError& error) {
        EXPECT_EQ(error.code(), EXIT_USAGE);
        return error.advice();
    }
    ADD_FAILURE() << name << " was taken";
    return {};
}

TEST(ToolRegisters, UnknownNamesBringThoseThatAreLikeThem) {
    EXPECT_THAT(AdviceFor("REG_WIDHT"), HasSubstr("REG_WIDTH"));
    EXPECT_THAT(AdviceFor("debounce_time"), HasSubstr("kelo registers"));
    EXPECT_THAT(AdviceFor("exposure"), HasSubstr("REG_EXPOSURETIME"));
    EXPECT_THAT(AdviceFor("trigger"), HasSubstr(", ..."));
    EXPECT_THAT(AdviceFor("4294967296"), HasSubstr("kelo registers"));
    EXPECT_THAT(AdviceFor(""), HasSubstr("kelo registers"));
}

struct ValueCase {
    const char* name;
    const char* text;
    std::optional<ValueFormat> format;
    std::optional<uint32_t> value;
};

class ToolValue : public testing::TestWithParam<ValueCase> {};

TEST_P(ToolValue, IsReadAsWritten) {
    const ValueCase& expected = GetParam();
    if (expected.value) {
        EXPECT_EQ(ParseValue(expected.text, expected.format), *expected.value);
    } else {
        EXPECT_THROW((void)ParseValue(expected.text, expected.format), CommandError);
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, ToolValue,
    testing::Values(
        ValueCase{"Integer", "640", {}, 640}, ValueCase{"Largest", "4294967295", {}, 0xFFFFFFFF},
        ValueCase{"TooLarge", "4294967296", {}, {}}, ValueCase{"Minus", "-1", {}, 0xFFFFFFFF},
        ValueCase{"Smallest", "-2147483648", {}, 0x80000000},
        ValueCase{"TooSmall", "-2147483649", {}, {}}, ValueCase{"Hex", "0xff", {}, 0xFF},
        ValueCase{"TooMuchHex", "0x100000000", {}, {}}, ValueCase{"Float", "1.5", {}, 0x3FC00000},
        ValueCase{"Exponent", "1e3", {}, 0x447A0000},
        ValueCase{"NegativeFloat", "-0.5", {}, 0xBF000000},
        ValueCase{"FloatTooLarge", "1e40", {}, {}}, ValueCase{"Empty", "", {}, {}},
        ValueCase{"Word", "seven", {}, {}}, ValueCase{"Rest", "7x", {}, {}},
        ValueCase{"FloatByFormat", "2", ValueFormat::kFloat, 0x40000000},
        ValueCase{"HexByFormat", "10", ValueFormat::kHex, 0x10},
        ValueCase{"IntByFormat", "1.5", ValueFormat::kInt, {}}),
    [](const auto& test) { return test.param.name; });

TEST(ToolValue, PrintsTheShortestFloatThatReadsBackTheSame) {
    EXPECT_EQ(ValueText(0x3DCCCCCD, ValueFormat::kFloat), "0.1");
    EXPECT_EQ(ValueText(0x7F800000, ValueFormat::kFloat), "inf");
    EXPECT_EQ(ValueText(255, ValueFormat::kHex), "0x000000ff");
}

class ToolSelector : public testing::Test {
protected:
    const std::vector<EXT_CAM_INFO> cameras = {
        MakeCamera(0x10, Ip(10, 0, 0, 1), "Gate"), MakeCamera(0x20, Ip(10, 0, 0, 2), "Left gate"),
        MakeCamera(0x30, Ip(10, 0, 0, 3), "Roof 10.0.0.1"),
        MakeCamera(0x40, Ip(10, 0, 0, 4), std::string(32, 'x'))};

    std::vector<uint32_t> Handles(const std::string& text) const {
        std::vector<uint32_t> handles;
        for (const EXT_CAM_INFO& camera : Matching(cameras, text))
            handles.push_back(uint32_t{camera.camera_handle});
        return handles;
    }
};

TEST_F(ToolSelector, TakesHandlesAddressesMacsAndDescriptions) {
    EXPECT_THAT(Handles("0x20"), ElementsAre(0x20));
    EXPECT_THAT(Handles("10.0.0.3"), ElementsAre(0x30));
    EXPECT_THAT(Handles("30:00:00:00:30:00"), ElementsAre(0x30));
    EXPECT_THAT(Handles("LEFT"), ElementsAre(0x20));
    EXPECT_THAT(Handles("xxx"), ElementsAre(0x40));
}

TEST_F(ToolSelector, AWholeDescriptionGoesBeforeParts) {
    EXPECT_THAT(Handles("Gate"), ElementsAre(0x10));
    EXPECT_THAT(Handles("gate"), ElementsAre(0x10, 0x20));
}

TEST_F(ToolSelector, AnAddressIsNoPartOfADescription) {
    EXPECT_THAT(Handles("10.0.0.1"), ElementsAre(0x10));
    EXPECT_THAT(Handles("10.0.0.9"), IsEmpty());
}

TEST_F(ToolSelector, NothingNamesNobody) {
    EXPECT_THAT(Handles(""), IsEmpty());
    EXPECT_THAT(Handles("0xabc"), IsEmpty());
    EXPECT_THAT(Handles("roof 2"), IsEmpty());
}

struct JudgementCase {
    const char* name;
    uint32_t address;
    const char* mask;
    const char* error;    // a part of it; null: none
    const char* warning;  // a part of it; null: none
};

// A machine at 10.0.0.1/24, a camera at 10.0.0.20 and another one at 10.0.0.21.
class ToolAddress : public testing::TestWithParam<JudgementCase> {};

TEST_P(ToolAddress, IsJudgedBeforeACameraGetsIt) {
    const std::vector<Interface> interfaces = {{"lo", Ip(127, 0, 0, 1), Ip(255, 0, 0, 0)},
                                               {"eth0", Ip(10, 0, 0, 1), Ip(255, 255, 255, 0)}};
    const EXT_CAM_INFO camera = MakeCamera(1, Ip(10, 0, 0, 20), "Mine");
    const EXT_CAM_INFO other = MakeCamera(2, Ip(10, 0, 0, 21), "Theirs");
    const JudgementCase& expected = GetParam();
    const auto judgement = JudgeAddress(camera, expected.address, *ParseMask(expected.mask),
                                        interfaces, {camera, other});
    if (expected.error != nullptr) {
        ASSERT_THAT(judgement.errors, testing::Not(IsEmpty()));
        EXPECT_THAT(judgement.errors.front(), HasSubstr(expected.error));
    } else {
        EXPECT_THAT(judgement.errors, IsEmpty());
    }
    if (expected.warning != nullptr) {
        ASSERT_THAT(judgement.warnings, SizeIs(1));
        EXPECT_THAT(judgement.warnings.front(), HasSubstr(expected.warning));
    } else {
        EXPECT_THAT(judgement.warnings, IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, ToolAddress,
    testing::Values(
        JudgementCase{"Good", Ip(10, 0, 0, 30), "24", nullptr, nullptr},
        JudgementCase{"OtherMask", Ip(10, 0, 0, 30), "16", nullptr, "another one"},
        JudgementCase{"ForeignSubnet", Ip(192, 168, 1, 5), "24", nullptr, "no interface"},
        JudgementCase{"Network", Ip(10, 0, 0, 0), "24", "network's own", nullptr},
        JudgementCase{"Broadcast", Ip(10, 0, 0, 255), "24", "broadcast", nullptr},
        JudgementCase{"BroadcastOfASmallNetwork", Ip(10, 0, 0, 7), "29", "broadcast", nullptr},
        JudgementCase{"BroadcastForTheInterface", Ip(10, 0, 0, 255), "16", "for eth0", nullptr},
        JudgementCase{"BroadcastOfAll", 0xFFFFFFFF, "24", "broadcast", nullptr},
        JudgementCase{"Multicast", Ip(224, 0, 0, 1), "24", "multicast", nullptr},
        JudgementCase{"Reserved", Ip(240, 0, 0, 1), "24", "reserved", nullptr},
        JudgementCase{"Zero", Ip(0, 0, 0, 5), "24", "no host", nullptr},
        JudgementCase{"Loopback", Ip(127, 0, 0, 5), "8", "loopback", nullptr},
        JudgementCase{"OwnAddress", Ip(10, 0, 0, 1), "24", "on eth0", nullptr},
        JudgementCase{"OtherCamera", Ip(10, 0, 0, 21), "24", "Theirs", nullptr},
        JudgementCase{"NoMask", Ip(10, 0, 0, 30), "0", "no room", nullptr},
        JudgementCase{"MaskOfOneHost", Ip(10, 0, 0, 30), "32", "no room", nullptr}),
    [](const auto& test) { return test.param.name; });

TEST(ToolAddress, OnLoopbackThereMayBeCameras) {
    const EXT_CAM_INFO camera = MakeCamera(1, Ip(127, 0, 0, 11), "Simulated");
    const std::vector<Interface> interfaces = {{"lo", Ip(127, 0, 0, 1), Ip(255, 0, 0, 0)}};
    EXPECT_THAT(JudgeAddress(camera, Ip(127, 0, 0, 12), 0xFF000000, interfaces, {camera}).errors,
                IsEmpty());
}

}  // namespace
}  // namespace kelotool
