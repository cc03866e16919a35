#include "RegisterFile.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "kelo_registers.h"

namespace kelosim {
namespace {

struct Range {
    uint32_t first;
    uint32_t count;
};

// Every register that a camera of this kind has, with the room that texts, addresses of up to four
// interfaces and tables take.
constexpr Range kMap[] = {
    {REG_SENSORWIDTH, 9},
    {REG_ACQUISITIONMODE, 3},
    {REG_ACQUISITIONFRAMES, 4},
    {REG_EXPOSURETIME, 10},
    {REG_BLACKLEVEL, 1},
    {REG_DEVICEFIRMWAREVERSION, 1},
    {REG_CAMERASETTINGSSLOT, 4},
    {REG_MINTIME, 3},
    {REG_IMAGEPIPELINERESET, 1},
    {REG_DEVICETEMPERATURE, 1},
    {REG_SENSOR_TYPE, 1},
    {REG_TRIGGERSELECTOR, 7},
    {REG_LINE0CONFIG, 3},
    {REG_USEROUTPUTVALUE, 1},
    {REG_TIMERDURATION, 7},
    {REG_MAC_0_HIGH, 2},
    {REG_CURR_IP_CONFIG_0, 13},
    {REG_MANUFACTURER_NAME, 8},
    {REG_MODEL_NAME, 8},
    {REG_DEVICE_VERSION, 20},
    {REG_SERIAL_NUMBER, 4},
    {REG_USER_DEFINED_NAME, 20},
    {REG_HEARTBEAT_TIMEOUT, 15},
    {REG_CONTROL, 5},
    {REG_INTER_FRAME_GAP, 6},
    {REG_TRIGGER_FRAMES_SET, 2},
    {KELO_CMD_FIRMWARE, 3},
    {REG_SENSOR_IMAGES_COUNT_DROPED, 2},
    {REG_INPUTS_STATUS, 4},
    {REG_IO_TEST_OUTPUT, 7},
    {REG_BAD_PIXEL_LOCATIONS, 256},
    {REG_BINNING_XY, 4},
    {REG_BUS_ACCESS, 256},
};

constexpr uint32_t kReadOnly[] = {
    REG_SENSORWIDTH,
    REG_SENSORHEIGHT,
    REG_PIXELFORMAT,
    REG_DEVICEFIRMWAREVERSION,
    REG_MINTIME,
    REG_DEVICETEMPERATURE,
    REG_SENSOR_TYPE,
    REG_TIMERVALUE,
    REG_TIMERSTATUS,
    REG_MAC_0_HIGH,
    REG_MAC_0_LOW,
    REG_TIMESTAMP_TICK_FREQ_HIGH,
    REG_TIMESTAMP_TICK_FREQ_LOW,
    REG_LINK_SPEED_0,
    REG_MAX_STREAMS_MASK,
    REG_TCP_STREAMPORT,
    REG_DEVICETEMPERATURE2,
    REG_NUM_SENSOR_CHANNELS,
    REG_TRIGGER_FRAMES_GET,
    REG_INPUTS_STATUS,
    REG_SYS_STATUS,
    REG_SENSOR_IMAGES_COUNT_DROPED,
    REG_SENSOR_IMAGES_COUNT_PENDING,
    REG_IMAGING_PROBLEM_EVENT_COUNTER,
};

// The texts that name the device are the factory's.
constexpr Range kReadOnlyTexts = {REG_MANUFACTURER_NAME,
                                  REG_USER_DEFINED_NAME - REG_MANUFACTURER_NAME};

bool Contains(const Range& range, uint32_t number) {
    return number >= range.first && number - range.first < range.count;
}

}  // namespace

RegisterFile::RegisterFile(const CameraConfig& config, uint16_t tcp_port) {
    MapEverything();
    SetIdentity(config);
    SetPicture(config);
    SetStreams(config);
    Set(REG_HEARTBEAT_TIMEOUT, config.heartbeat_timeout_ms);
    Set(REG_TCP_STREAMPORT, tcp_port);
    Set(REG_MTU, 1500);
    Set(REG_DEVICETEMPERATURE, 41);
    Set(REG_DEVICETEMPERATURE2, 38);
    Set(REG_TIMESTAMP_TICK_FREQ_LOW, 1000000);
    Set(REG_LINK_SPEED_0, 1000);
}

uint32_t RegisterFile::Get(uint32_t number) const {
    const auto found = values_.find(number);
    return found == values_.end() ? 0 : found->second;
}

bool RegisterFile::ReadOnly(uint32_t number) const {
    const bool in_streams = number >= StreamBlock(0) && number < StreamBlock(kMaxStreams);
    if (in_streams) {
        const uint32_t offset = (number - StreamBlock(0)) % 8;
        const uint32_t options = Get(number - offset + kOptions);
        if (offset == kFrameSize) return (options & STREAM_OPTIONS_FRAMESIZE_MANUAL) == 0;
        return offset != kOptions;
    }
    return Contains(kReadOnlyTexts, number) ||
           std::find(std::begin(kReadOnly), std::end(kReadOnly), number) != std::end(kReadOnly);
}

bool RegisterFile::Fixed(uint32_t number) {
    return number == REG_WIDTH || number == REG_HEIGHT;
}

void RegisterFile::MapEverything() {
    for (const Range& range : kMap) {
        for (uint32_t i = 0; i < range.count; ++i)
            values_[range.first + i] = 0;
    }
}

void RegisterFile::SetText(uint32_t first, uint32_t registers, std::string_view text) {
    for (uint32_t i = 0; i < registers; ++i) {
        uint32_t value = 0;
        for (uint32_t byte = 0; byte < 4; ++byte) {
            const size_t at = size_t{i} * 4 + byte;
            value = value << 8 | (at < text.size() ? static_cast<uint8_t>(text[at]) : 0u);
        }
        Set(first + i, value);
    }
}

void RegisterFile::SetIdentity(const CameraConfig& config) {
    const auto& mac = config.mac;
    Set(REG_MAC_0_HIGH, uint32_t{mac[0]} << 8 | mac[1]);
    Set(REG_MAC_0_LOW,
        uint32_t{mac[2]} << 24 | uint32_t{mac[3]} << 16 | uint32_t{mac[4]} << 8 | mac[5]);
    Set(REG_CURR_IP_ADDR_0, config.address);
    Set(REG_CURR_SUBNET_MASK_0, config.subnet_mask);
    Set(REG_PERSIST_IP_ADDR_0, config.address);
    Set(REG_PERSIST_SUBNET_MASK_0, config.subnet_mask);
    Set(REG_DEVICEFIRMWAREVERSION, uint32_t{config.firmware_major} << 16 | config.firmware_minor);
    SetText(REG_MANUFACTURER_NAME, 8, "Simulated cameras");
    SetText(REG_MODEL_NAME, 8, config.model);
    SetText(REG_DEVICE_VERSION, 20,
            std::to_string(config.firmware_major) + "." + std::to_string(config.firmware_minor));
    SetText(REG_SERIAL_NUMBER, 4, config.serial_number);
    SetText(REG_USER_DEFINED_NAME, 20, config.description);
}

void RegisterFile::SetPicture(const CameraConfig& config) {
    const StreamConfig& stream = config.streams.front();
    for (const uint32_t number : {uint32_t{REG_SENSORWIDTH}, uint32_t{REG_WIDTH}}) {
        Set(number, stream.source->Width());
    }
    for (const uint32_t number : {uint32_t{REG_SENSORHEIGHT}, uint32_t{REG_HEIGHT}}) {
        Set(number, stream.source->Height());
    }
    Set(REG_PIXELFORMAT, stream.source->Format());
    Set(REG_FRAMERATE, static_cast<uint32_t>(std::lround(stream.frame_rate * 1000)));
    Set(REG_EXPOSURETIME, 10000);
    Set(REG_GAIN, 1);
    Set(REG_NUM_SENSOR_CHANNELS, 1);
}

void RegisterFile::SetStreams(const CameraConfig& config) {
    uint32_t used = 0;
    for (uint32_t i = 0; i < kMaxStreams; ++i) {
        const bool present = i < config.streams.size();
        // The first two blocks exist in every camera.
        if (!present && i >= 2) break;
        const StreamConfig stream = present ? config.streams[i] : StreamConfig{};
        if (present && stream.used) used |= 1u << i;
        const uint32_t block = StreamBlock(i);
        Set(block + kFormat, present ? stream.source->Format() : 0);
        Set(block + kFrameSize, present ? stream.MaxFrameSize() : 0);
        Set(block + kHeaderFormat, stream.header_format);
        Set(block + kHeaderSize, stream.header_size);
        Set(block + kOptions, stream.over_tcp ? STREAM_OPTIONS_USE_TCP : 0);
    }
    Set(REG_MAX_STREAMS_MASK, (1u << config.streams.size()) - 1);
    Set(REG_USED_STREAMS_MASK, used);
}

}  // namespace kelosim
