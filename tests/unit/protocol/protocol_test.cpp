// Control records, statuses, register numbers and camera identities, against bytes as they are on
// the wire.

#include <cstring>
#include <iterator>

#include "cam_info.h"
#include "img_common.h"
#include "kelo_protocol.h"
#include "kelo_registers.h"
#include "utils.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <typename Record>
Bytes OnTheWire(const Record& record) {
    const auto* begin = reinterpret_cast<const uint8_t*>(&record);
    return {begin, begin + sizeof(record)};
}

template <typename Record>
Record FromTheWire(const Bytes& bytes) {
    EXPECT_EQ(bytes.size(), sizeof(Record));
    return kelo::CopyRecord<Record>(bytes.data(), bytes.size());
}

Bytes operator+(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

constexpr uint8_t kMac[6] = {0x00, 0x1B, 0x21, 0x3C, 0x4D, 0x5E};

void CopyMac(uint8_t (&mac)[6]) {
    std::copy(std::begin(kMac), std::end(kMac), mac);
}

TEST(WireTest, DiscoveryCommandIsTheBareHeader) {
    const Bytes expected = {0xAB, 0x00, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(expected, OnTheWire(MakeCommandHeader(VC_DISCOVER_COMMAND, 0)));
}

TEST(WireTest, HeaderCarriesCommandAndNumberBigEndian) {
    const Bytes expected = {0xAB, 0x00, 0, 0, 0, 10, 0x89, 0xAB, 0xCD, 0xEF, 0, 0, 0, 1};
    EXPECT_EQ(expected, OnTheWire(MakeCommandHeader(VC_WRITEMEMORY_COMMAND, 0x89ABCDEF)));
}

TEST(WireTest, ReplyHeaderIsReadBack) {
    const auto header = FromTheWire<TKeloCommandHeader>(
        {0xAB, 0x7F, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0, 0, 0, 3});
    EXPECT_EQ(0xAB, header.magic_number);
    EXPECT_EQ(0x7F, header.flags);
    EXPECT_EQ(0x01020304u, kelo_ntohl(header.NL_command_id));
    EXPECT_EQ(0x05060708u, kelo_ntohl(header.NL_message_number));
    EXPECT_EQ(3u, kelo_ntohl(header.VCNL_status));
}

const Bytes kDiscoveryReply =
    Bytes{0xAB, 0x00, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1} +     // header
    Bytes{0x11, 0x12, 0x13, 0x14} +                             // 14: self test
    Bytes{0x21, 0x22, 0x31, 0x32} +                             // 18: firmware version
    Bytes{'K', 'E', 'L', 'O', ' ', 'C', '2', '5', '0', '0', 0,  // 22: description
          0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, '!'} +
    Bytes{192, 168, 1, 5} +                                  // 54: address
    Bytes{255, 255, 255, 0} +                                // 58: mask
    Bytes{0x00, 0x1B, 0x21, 0x3C, 0x4D, 0x5E, 0xEE, 0xEE} +  // 62: MAC, padding
    Bytes{0x00, 0x00, 0x03, 0xE8} +                          // 70: link speed
    Bytes{0x41, 0x42, 0x43, 0x44};                           // 74: connection

TEST(WireTest, DiscoveryReplyIsReadByItsOffsets) {
    ASSERT_EQ(78u, kDiscoveryReply.size());
    const auto reply = FromTheWire<TDiscoveryReply>(kDiscoveryReply);
    EXPECT_EQ(2u, kelo_ntohl(reply.header.NL_command_id));
    EXPECT_EQ(0x11121314u, kelo_ntohl(reply.NL_self_test_result));
    EXPECT_EQ(0x2122, kelo_ntohs(reply.NS_firmware_version_major));
    EXPECT_EQ(0x3132, kelo_ntohs(reply.NS_firmware_version_minor));
    EXPECT_STREQ("KELO C2500", reply.hardware_description);
    EXPECT_EQ('!', reply.hardware_description[31]);
    EXPECT_EQ(0xC0A80105u, kelo_ntohl(reply.NL_camera_ip));
    EXPECT_EQ(0xFFFFFF00u, kelo_ntohl(reply.NL_camera_subnet));
    EXPECT_THAT(reply.camera_mac, testing::ElementsAreArray(kMac));
    EXPECT_EQ(1000u, kelo_ntohl(reply.NL_link_speed_mbit));
    EXPECT_EQ(0x41424344u, kelo_ntohl(reply.NL_connection_status));
}

TEST(WireTest, SetIpCommand) {
    TSetIPCommand command{};
    command.header = MakeCommandHeader(VC_SETIP_COMMAND, 0);
    CopyMac(command.camera_mac);
    command.NL_camera_current_ip = kelo_htonl(0xC0A80105);
    command.NL_camera_new_ip = kelo_htonl(0x0A000102);
    command.NL_camera_new_subnet = kelo_htonl(0xFFFF0000);
    const Bytes expected = {0xAB, 0x00, 0,    0,    0,    3,    0,    0,
                            0,    0,    0,    0,    0,    1,                 // header
                            0x00, 0x1B, 0x21, 0x3C, 0x4D, 0x5E, 0x00, 0x00,  // MAC, padding
                            192,  168,  1,    5,                             // present address
                            10,   0,    1,    2,                             // new address
                            255,  255,  0,    0};                            // new mask
    EXPECT_EQ(expected, OnTheWire(command));
    EXPECT_EQ(34u, expected.size());
}

TEST(WireTest, RegisterWriteOfTheMtuRegister) {
    TRegWritePacket packet{};
    packet.header = MakeCommandHeader(VC_WRITEREGISTER_COMMAND, 0x0102);
    packet.NL_address = kelo_htonl(REG_MTU * REGISTER_ADDRESS_FACTOR);
    packet.NL_value = kelo_htonl(8500);
    const Bytes expected = {0xAB, 0x00, 0,    0,    0, 6, 0, 0, 0x01, 0x02, 0, 0, 0, 1,  // header
                            0x00, 0x00, 0x05, 0x04,                                      // 1284
                            0x00, 0x00, 0x21, 0x34};                                     // 8500
    EXPECT_EQ(expected, OnTheWire(packet));
    EXPECT_EQ(22u, expected.size());
}

TEST(WireTest, RegisterReadCommandAndReplyShareOneLayout) {
    TRegReadPacket command{};
    command.header = MakeCommandHeader(VC_READREGISTER_COMMAND, 7);
    command.NL_address = kelo_htonl(REG_WIDTH * REGISTER_ADDRESS_FACTOR);
    const Bytes expected = {0xAB, 0x00, 0, 0, 0, 4, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 8, 0, 0, 0, 0};
    EXPECT_EQ(expected, OnTheWire(command));

    const auto reply = FromTheWire<TRegReadPacket>(
        {0xAB, 0x00, 0, 0, 0, 5, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 8, 0xFE, 0xDC, 0xBA, 0x98});
    EXPECT_EQ(5u, kelo_ntohl(reply.header.NL_command_id));
    EXPECT_EQ(0xFEDCBA98u, kelo_ntohl(reply.NL_value));
}

TEST(WireTest, MemoryReadCommand) {
    TMemReadCommand command{};
    command.header = MakeCommandHeader(VC_READMEMORY_COMMAND, 1);
    command.NL_address_0 = kelo_htonl(KELO_CMD_FIRMWARE * REGISTER_ADDRESS_FACTOR);
    command.NL_number_of_registers = kelo_htonl(128);
    const Bytes expected = {0xAB, 0x00, 0, 0,    0,    8,    0,    0, 0, 1, 0,
                            0,    0,    1, 0x00, 0x00, 0x9C, 0x40, 0, 0, 0, 128};
    EXPECT_EQ(expected, OnTheWire(command));
}

// A transfer's head at offset 14, then its words, each 4 bytes with the last one counting.
Bytes LargestTransfer(uint8_t command) {
    Bytes bytes = {0xAB, 0x00, 0, 0, 0, command, 0, 0, 0, 9, 0, 0, 0, 1, 0, 0, 0, 64, 0, 0, 0, 128};
    for (uint8_t word = 0; word < 128; ++word)
        bytes = bytes + Bytes{0xC0, 0xC1, 0xC2, word};
    return bytes;
}

TEST(WireTest, MemoryReadReplyOfTheLargestSize) {
    const auto reply = FromTheWire<TMemReadReplyMax>(LargestTransfer(9));
    EXPECT_EQ(64u, kelo_ntohl(reply.NL_address_0));
    EXPECT_EQ(128u, kelo_ntohl(reply.NL_number_of_registers));
    for (uint32_t word = 0; word < 128; ++word) {
        EXPECT_EQ(0xC0C1C200u + word, kelo_ntohl(reply.NL_register_values[word]));
    }
}

TEST(WireTest, MemoryWriteCommandOf128RegistersHas534Bytes) {
    TMemWriteCommandMax command{};
    command.header = MakeCommandHeader(VC_WRITEMEMORY_COMMAND, 9);
    command.NL_address_0 = kelo_htonl(REG_ACQUISITIONMODE * REGISTER_ADDRESS_FACTOR);
    command.NL_number_of_registers = kelo_htonl(128);
    for (uint32_t word = 0; word < 128; ++word) {
        command.NL_register_values[word] = kelo_htonl(0xC0C1C200u + word);
    }
    EXPECT_EQ(LargestTransfer(10), OnTheWire(command));
    EXPECT_EQ(534u, OnTheWire(command).size());
    EXPECT_EQ(534, MAX_CONTROL_PACKET_SIZE);
    EXPECT_EQ(128u, MAX_MEMORY_REGISTERS);
}

TEST(WireTest, MemoryWriteCommandOfNoRegistersHas22Bytes) {
    EXPECT_EQ(22u, offsetof(TMemWriteCommandMax, NL_register_values));
}

TEST(WireTest, MemoryWriteReply) {
    const auto reply = FromTheWire<TMemWriteReply>(
        {0xAB, 0x00, 0, 0, 0, 11, 0, 0, 0, 9, 0, 0, 0, 1, 0x00, 0x01, 0x02, 0x04, 0, 0, 0, 127});
    EXPECT_EQ(11u, kelo_ntohl(reply.header.NL_command_id));
    EXPECT_EQ(0x00010204u, kelo_ntohl(reply.NL_address_0));
    EXPECT_EQ(127u, kelo_ntohl(reply.NL_number_of_registers));
}

TEST(WireTest, TcpMessageHeader) {
    const auto header =
        FromTheWire<TTcpStreamPacketHeader>({0xAC, 3, 0, 0, 0, 1, 0x00, 0x01, 0x02, 0x03});
    EXPECT_EQ(0xAC, header.magicNumber);
    EXPECT_EQ(3, header.streamNumber);
    EXPECT_EQ(TCP_IMAGE_MESSAGE, kelo_ntohl(header.type));
    EXPECT_EQ(0x00010203u, kelo_ntohl(header.size));
}

TEST(WireTest, ImagePacketHeader) {
    const auto header = FromTheWire<THeaderImage>(
        {0xAC, 1, 0xA0, 0xA1, 0xA2, 0xA3, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08});
    EXPECT_EQ(KELO_IMAGE_MAGIC, header.magic);
    EXPECT_EQ(1, header.stream_number);
    EXPECT_EQ(0xA0A1A2A3u, kelo_ntohl(header.NL_image_number));
    EXPECT_EQ(0x0102, kelo_ntohs(header.NS_current_packet));
    EXPECT_EQ(0x0304, kelo_ntohs(header.NS_all_packets));
    EXPECT_EQ(0x0506, kelo_ntohs(header.NS_image_width));
    EXPECT_EQ(0x0708, kelo_ntohs(header.NS_image_height));
}

TEST(CommandTest, NumbersAreThoseOfTheProtocol) {
    EXPECT_EQ(1u, VC_DISCOVER_COMMAND);
    EXPECT_EQ(2u, VC_DISCOVER_REPLY);
    EXPECT_EQ(3u, VC_SETIP_COMMAND);
    EXPECT_EQ(4u, VC_READREGISTER_COMMAND);
    EXPECT_EQ(5u, VC_READREGISTER_REPLY);
    EXPECT_EQ(6u, VC_WRITEREGISTER_COMMAND);
    EXPECT_EQ(7u, VC_WRITEREGISTER_REPLY);
    EXPECT_EQ(8u, VC_READMEMORY_COMMAND);
    EXPECT_EQ(9u, VC_READMEMORY_REPLY);
    EXPECT_EQ(10u, VC_WRITEMEMORY_COMMAND);
    EXPECT_EQ(11u, VC_WRITEMEMORY_REPLY);
    EXPECT_EQ(12u, VC_EVENT_REPLY);
    EXPECT_EQ(0u, TCP_SYNC_MESSAGE);
    EXPECT_EQ(1u, TCP_IMAGE_MESSAGE);
    EXPECT_EQ(6061, CAMERA_CONTROL_PORT);
    EXPECT_EQ(0xAB, CONTROL_MAGIC);
    EXPECT_EQ(4u, REGISTER_ADDRESS_FACTOR);
}

struct StatusCase {
    uint32_t wire;
    KELO_API_STATUS result;
    int value;
};

struct StatusTest : testing::TestWithParam<StatusCase> {};

TEST_P(StatusTest, IsMapped) {
    EXPECT_EQ(GetParam().result, StatusFromWire(GetParam().wire));
    EXPECT_EQ(GetParam().value, static_cast<int>(StatusFromWire(GetParam().wire)));
}

INSTANTIATE_TEST_SUITE_P(
    Wire, StatusTest,
    testing::Values(StatusCase{1, KELO_STATUS_SUCCESS, 0}, StatusCase{2, KELO_STATUS_ERROR, -1},
                    StatusCase{3, KELO_STATUS_OUT_OF_RANGE, -3},
                    StatusCase{0, KELO_STATUS_ERROR, -1}, StatusCase{4, KELO_STATUS_ERROR, -1},
                    StatusCase{0xFFFFFFFF, KELO_STATUS_ERROR, -1},
                    StatusCase{0xFFFFFFFC, KELO_STATUS_ERROR, -1},
                    StatusCase{0x01000000, KELO_STATUS_ERROR, -1}),
    [](const auto& test) { return "Status" + std::to_string(test.param.wire); });

TEST(StatusValuesTest, TimeOutIsMinusFourAndThereIsNoMinusTwo) {
    EXPECT_EQ(-4, KELO_STATUS_NO_RESPONSE);
}

TEST(RegisterTest, NumbersAreThoseOfTheCameras) {
    const std::pair<int, int> kNumbers[] = {{REG_SENSORWIDTH, 0},
                                            {REG_WIDTH, 2},
                                            {REG_PIXELFORMAT, 8},
                                            {REG_ACQUISITIONMODE, 16},
                                            {REG_ACQUISITIONSTART, 17},
                                            {REG_ACQUISITIONSTOP, 18},
                                            {REG_EXPOSURETIME, 25},
                                            {REG_GAIN_TUNING, 34},
                                            {REG_BLACKLEVEL, 36},
                                            {REG_DEVICEFIRMWAREVERSION, 40},
                                            {REG_LINEFIXENABLE, 51},
                                            {REG_MINTIME, 53},
                                            {REG_IMAGEPIPELINERESET, 60},
                                            {REG_DEVICETEMPERATURE, 64},
                                            {REG_SENSOR_TYPE, 71},
                                            {REG_TRIGGERSELECTOR, 80},
                                            {REG_LINE0CONFIG, 88},
                                            {REG_USEROUTPUTVALUE, 92},
                                            {REG_TIMERTRIGGERACTIVATION, 102},
                                            {REG_MAC_0_HIGH, 130},
                                            {REG_CURR_IP_CONFIG_0, 133},
                                            {REG_CURR_IP_ADDR_0, 137},
                                            {REG_CURR_GATEWAY_0, 145},
                                            {REG_MODEL_NAME, 154},
                                            {REG_SERIAL_NUMBER, 182},
                                            {REG_USER_DEFINED_NAME, 186},
                                            {REG_HEARTBEAT_TIMEOUT, 206},
                                            {REG_TIMESTAMP_VALUE_HIGH, 210},
                                            {REG_PERSIST_SUBNET_MASK_0, 215},
                                            {REG_LINK_SPEED_0, 220},
                                            {REG_CONTROL, 256},
                                            {REG_STREAMPORT, 257},
                                            {REG_MAX_STREAMS_MASK, 258},
                                            {REG_USED_STREAMS_MASK, 259},
                                            {REG_TCP_STREAMPORT, 260},
                                            {REG_INTER_FRAME_GAP, 320},
                                            {REG_MTU, 321},
                                            {REG_REBOOT, 322},
                                            {REG_CAMERA_USED, 323},
                                            {REG_NUM_SENSOR_CHANNELS, 325},
                                            {REG_TRIGGER_FRAMES_SET, 352},
                                            {REG_TRIGGER_FRAMES_GET, 353},
                                            {KELO_CMD_FIRMWARE, 10000},
                                            {KELO_CMD_SAVE_CALIBRATION_TO_FLASH, 10002},
                                            {REG_SENSOR_IMAGES_COUNT_DROPED, 10010},
                                            {REG_INPUTS_STATUS, 10020},
                                            {REG_IMAGING_PROBLEM_EVENT_COUNTER, 10023},
                                            {REG_IO_TEST_DIRIN, 10101},
                                            {REG_HDR_SENSOR_ENABLE_EXT_EXP_TRIGGER, 10106},
                                            {REG_BAD_PIXEL_LOCATIONS, 11000},
                                            {REG_BINNING_XY, 20000},
                                            {REG_BINNING_Y, 20003},
                                            {REG_BUS_ACCESS, 0x80000}};
    for (const auto& [number, expected] : kNumbers)
        EXPECT_EQ(expected, number);
}

TEST(RegisterTest, ThreeNumbersCarryTwoNames) {
    EXPECT_EQ(211, static_cast<int>(REG_TIMESTAMP_VALUE_LOW));
    EXPECT_EQ(211, static_cast<int>(REG_PERSIST_IP_ADDR_0));
    EXPECT_EQ(10100, static_cast<int>(REG_IO_TEST_OUTPUT));
    EXPECT_EQ(10100, static_cast<int>(REG_HDR_SENSOR_EXP_DUAL));
    EXPECT_EQ(10102, static_cast<int>(REG_IO_TEST_INPUT));
    EXPECT_EQ(10102, static_cast<int>(REG_HDR_SENSOR_EXP_TIME2));
}

TEST(RegisterTest, EachStreamHasABlockOfEightNumbers) {
    const int blocks[2][5] = {
        {REG_STREAM0_FORMAT, REG_STREAM0_FRAME_SIZE, REG_STREAM0_HEADER_FORMAT,
         REG_STREAM0_HEADER_SIZE, REG_STREAM0_OPTIONS},
        {REG_STREAM1_FORMAT, REG_STREAM1_FRAME_SIZE, REG_STREAM1_HEADER_FORMAT,
         REG_STREAM1_HEADER_SIZE, REG_STREAM1_OPTIONS}};
    for (int stream = 0; stream < 2; ++stream) {
        for (int field = 0; field < 5; ++field) {
            EXPECT_EQ(264 + 8 * stream + field, blocks[stream][field]);
        }
    }
    EXPECT_EQ(1, STREAM_OPTIONS_USE_TCP);
    EXPECT_EQ(0x10000, STREAM_OPTIONS_FRAMESIZE_MANUAL);
}

// The identity of a camera with this description; everything else is the same for all.
CAM_INFO Camera(const std::string& description) {
    CAM_INFO info{};
    description.copy(info.hardware_description, sizeof(info.hardware_description));
    info.camera_ip = 0xC0A80105;
    info.camera_subnet = 0xFFFFFF00;
    CopyMac(info.camera_mac);
    return info;
}

const std::string kLongDescription = "0123456789ABCDEFGHIJKLMNOPQRSTUV";

TEST(CamInfoTest, IsTakenFromTheReply) {
    const CAM_INFO info = CamInfoFromReply(FromTheWire<TDiscoveryReply>(kDiscoveryReply));
    EXPECT_STREQ("KELO C2500", info.hardware_description);
    EXPECT_EQ('!', info.hardware_description[31]) << "all 32 bytes are copied";
    EXPECT_EQ(0xC0A80105u, info.camera_ip);
    EXPECT_EQ(0xFFFFFF00u, info.camera_subnet);
    EXPECT_THAT(info.camera_mac, testing::ElementsAreArray(kMac));
    EXPECT_EQ(0, info.video_port);
}

TEST(SameIdentityTest, EqualCamerasAreTheSame) {
    EXPECT_TRUE(SameIdentity(Camera("A"), Camera("A")));
    EXPECT_TRUE(SameIdentity(Camera(kLongDescription), Camera(kLongDescription)));
}

TEST(SameIdentityTest, TheVideoPortDoesNotCount) {
    CAM_INFO other = Camera("A");
    other.video_port = 5000;
    EXPECT_TRUE(SameIdentity(Camera("A"), other));
}

TEST(SameIdentityTest, BytesBehindTheEndOfTheDescriptionDoNotCount) {
    CAM_INFO other = Camera("A");
    other.hardware_description[2] = 'x';
    EXPECT_TRUE(SameIdentity(Camera("A"), other));
}

TEST(SameIdentityTest, EveryOtherDifferenceCounts) {
    const CAM_INFO camera = Camera(kLongDescription);
    for (size_t i = 0; i < 32; ++i) {
        CAM_INFO other = camera;
        other.hardware_description[i] = '?';
        EXPECT_FALSE(SameIdentity(camera, other)) << "description byte " << i;
    }
    for (size_t i = 0; i < 6; ++i) {
        CAM_INFO other = camera;
        other.camera_mac[i] ^= 0x80;
        EXPECT_FALSE(SameIdentity(camera, other)) << "MAC byte " << i;
    }
    CAM_INFO moved = camera;
    ++moved.camera_ip;
    EXPECT_FALSE(SameIdentity(camera, moved));
    CAM_INFO masked = camera;
    masked.camera_subnet <<= 1;
    EXPECT_FALSE(SameIdentity(camera, masked));
}

// The handle by plain arithmetic on the definition's numbers.
uint32_t HandleByHand(const std::string& description, uint32_t ip, uint32_t subnet,
                      const uint8_t (&mac)[6]) {
    uint64_t hash = 0;
    for (const char c : description) {
        const int byte = static_cast<unsigned char>(c);
        hash = hash * 31 + static_cast<uint64_t>(byte < 128 ? byte : byte - 256);
    }
    uint64_t low_mac = 0;
    uint64_t high_mac = 0;
    for (int i = 1; i >= 0; --i)
        low_mac = low_mac * 256 + mac[i];
    for (int i = 5; i >= 2; --i)
        high_mac = high_mac * 256 + mac[i];
    const uint64_t mixed =
        (hash * 16) ^ ((uint64_t{subnet} * 2) ^ ip ^ (high_mac * 4) ^ (low_mac * 8));
    return static_cast<uint32_t>((mixed ^ (mixed >> 32)) & 0xFFFFFFFF);
}

struct HandleCase {
    const char* name;
    std::string description;
    CAM_HANDLE handle;
};

struct HandleTest : testing::TestWithParam<HandleCase> {};

TEST_P(HandleTest, IsTheFixedHashOfTheIdentity) {
    const CAM_INFO info = Camera(GetParam().description);
    EXPECT_EQ(GetParam().handle, camhandleFromCamInfo(info));
    EXPECT_EQ(GetParam().handle,
              HandleByHand(GetParam().description, info.camera_ip, info.camera_subnet, kMac));
}

INSTANTIATE_TEST_SUITE_P(
    Descriptions, HandleTest,
    testing::Values(HandleCase{"None", "", 0x4663D781},
                    HandleCase{"Short", "KELO C2500", 0x85F1346F},
                    HandleCase{"Of32BytesUnterminated", kLongDescription, 0xD85631A5},
                    HandleCase{"Of31Bytes", kLongDescription.substr(0, 31), 0xBC8E69CB},
                    HandleCase{"OneNegativeByte", "\x80", 0x4663D07E},
                    HandleCase{"NegativeBytes", "\xFF\xFE\x80\x7F", 0x466B799E}),
    [](const auto& test) { return test.param.name; });

TEST(HandleOfNumbersTest, TakesTheMacBytesInTheirOrder) {
    CAM_INFO info{};
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    std::copy(std::begin(mac), std::end(mac), info.camera_mac);
    EXPECT_EQ(0x18140004u, camhandleFromCamInfo(info));
    EXPECT_EQ(HandleByHand("", 0, 0, mac), camhandleFromCamInfo(info));
}

TEST(HandleOfNumbersTest, WidensEachTermBeforeMultiplying) {
    CAM_INFO mask{};
    mask.camera_subnet = 0xFFFFFFFF;
    EXPECT_EQ(0xFFFFFFFFu, camhandleFromCamInfo(mask));
    CAM_INFO mac{};
    mac.camera_mac[5] = 0xFF;
    EXPECT_EQ(0xFC000003u, camhandleFromCamInfo(mac));
    std::fill(std::begin(mac.camera_mac), std::end(mac.camera_mac), uint8_t{0xFF});
    EXPECT_EQ(0xFFF80007u, camhandleFromCamInfo(mac));
}

TEST(HandleOfNumbersTest, ReadsNoByteBehindTheDescriptionsEnd) {
    CAM_INFO other = Camera("KELO C2500");
    other.hardware_description[12] = 'x';
    EXPECT_EQ(0x85F1346Fu, camhandleFromCamInfo(other));
}

TEST(HandleOfNumbersTest, DependsOnEveryPartOfTheIdentityButNotOnTheVideoPort) {
    const CAM_INFO camera = Camera("KELO C2500");
    CAM_INFO port = camera;
    port.video_port = 50000;
    EXPECT_EQ(camhandleFromCamInfo(camera), camhandleFromCamInfo(port));
    CAM_INFO moved = camera;
    ++moved.camera_ip;
    EXPECT_NE(camhandleFromCamInfo(camera), camhandleFromCamInfo(moved));
    CAM_INFO masked = camera;
    masked.camera_subnet = 0xFFFF0000;
    EXPECT_NE(camhandleFromCamInfo(camera), camhandleFromCamInfo(masked));
    for (size_t i = 0; i < 6; ++i) {
        CAM_INFO other = camera;
        ++other.camera_mac[i];
        EXPECT_NE(camhandleFromCamInfo(camera), camhandleFromCamInfo(other)) << i;
    }
}

TEST(HandleOfNumbersTest, OfNothingIsZero) {
    EXPECT_EQ(0u, camhandleFromCamInfo(CAM_INFO{}));
}

}  // namespace
