// kelo info: what a camera is and how it is set up.

#include <CLI/CLI.hpp>

#include "camera_identity.h"
#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "register_names.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {"info", "Show what a camera is and how it is set up",
                              "  kelo info 192.168.1.5\n"
                              "  kelo info gate --json | jq .registers.REG_WIDTH\n"
                              "What the camera does not have is left out. The camera is not "
                              "claimed: another program that\nuses it is not disturbed."};

constexpr uint32_t STREAMS_MAX = 8;
// From one stream's block of registers to the next one's.
constexpr uint32_t STREAM_STEP = REG_STREAM1_FORMAT - REG_STREAM0_FORMAT;

struct TextRegister {
    const char* key;
    const char* label;
    uint32_t start;
    uint32_t count;
};
constexpr TextRegister TEXTS[] = {
    {"manufacturer", "Manufacturer", REG_MANUFACTURER_NAME, 8},
    {"model", "Model", REG_MODEL_NAME, 8},
    {"device_version", "Device version", REG_DEVICE_VERSION, 20},
    {"serial_number", "Serial number", REG_SERIAL_NUMBER, 4},
    {"user_name", "User-defined name", REG_USER_DEFINED_NAME, 20},
};

constexpr uint32_t NUMBERS[] = {REG_DEVICEFIRMWAREVERSION,
                                REG_SENSORWIDTH,
                                REG_SENSORHEIGHT,
                                REG_WIDTH,
                                REG_HEIGHT,
                                REG_OFFSETX,
                                REG_OFFSETY,
                                REG_PIXELFORMAT,
                                REG_FRAMERATE,
                                REG_TRIGGERMODE,
                                REG_EXPOSURETIME,
                                REG_GAIN,
                                REG_DEVICETEMPERATURE,
                                REG_MTU,
                                REG_HEARTBEAT_TIMEOUT,
                                REG_CAMERA_USED,
                                REG_MAX_STREAMS_MASK,
                                REG_USED_STREAMS_MASK};

struct StreamInfo {
    uint32_t number = 0;
    bool used = false;
    uint32_t format = 0;
    uint32_t frame_size = 0;
    uint32_t header_size = 0;
    bool over_tcp = false;
};

struct Info {
    std::vector<std::pair<const TextRegister*, std::string>> texts;
    std::vector<std::pair<uint32_t, uint32_t>> numbers;  // register, value
    std::vector<StreamInfo> streams;

    std::optional<uint32_t> Number(uint32_t wanted) const {
        for (const auto& [number, value] : numbers) {
            if (number == wanted) return value;
        }
        return std::nullopt;
    }
};

// Nothing for what the camera does not have; throws when it does not answer.
std::optional<uint32_t> Read(CAM_HANDLE camera, uint32_t number) {
    uint32_t value = 0;
    const KELO_API_STATUS status = keloGetRegisterInt(camera, number, &value);
    if (status == KELO_STATUS_NO_RESPONSE) Require(status, "reading " + RegisterText(number));
    if (status != KELO_STATUS_SUCCESS) return std::nullopt;
    return value;
}

// A text in registers: four characters each, the first one in the highest byte, up to a zero.
std::optional<std::string> ReadText(CAM_HANDLE camera, const TextRegister& what) {
    uint32_t values[128];
    uint32_t count = what.count;
    const KELO_API_STATUS status = keloReadMemory(camera, what.start, &count, values);
    if (status == KELO_STATUS_NO_RESPONSE) Require(status, std::string("reading ") + what.label);
    if (status != KELO_STATUS_SUCCESS) return std::nullopt;
    std::string text;
    for (uint32_t i = 0; i < std::min(count, what.count) * 4; ++i) {
        const auto character = static_cast<char>(values[i / 4] >> (24 - 8 * (i % 4)) & 0xFF);
        if (character == '\0') break;
        text += character;
    }
    return text;
}

StreamInfo ReadStream(CAM_HANDLE camera, uint32_t stream, uint32_t used_mask) {
    const uint32_t block = stream * STREAM_STEP;
    StreamInfo info{.number = stream, .used = (used_mask >> stream & 1) != 0};
    info.format = Read(camera, REG_STREAM0_FORMAT + block).value_or(0);
    info.frame_size = Read(camera, REG_STREAM0_FRAME_SIZE + block).value_or(0);
    info.header_size = Read(camera, REG_STREAM0_HEADER_SIZE + block).value_or(0);
    const uint32_t options = Read(camera, REG_STREAM0_OPTIONS + block).value_or(0);
    info.over_tcp = (options & STREAM_OPTIONS_USE_TCP) != 0;
    return info;
}

Info ReadInfo(CAM_HANDLE camera) {
    Info info;
    for (const TextRegister& what : TEXTS) {
        if (auto text = ReadText(camera, what)) info.texts.emplace_back(&what, std::move(*text));
    }
    for (const uint32_t number : NUMBERS) {
        if (const auto value = Read(camera, number)) info.numbers.emplace_back(number, *value);
    }
    const uint32_t streams = info.Number(REG_MAX_STREAMS_MASK).value_or(0);
    const uint32_t used = info.Number(REG_USED_STREAMS_MASK).value_or(0);
    for (uint32_t stream = 0; stream < STREAMS_MAX; ++stream) {
        if ((streams >> stream & 1) != 0) info.streams.push_back(ReadStream(camera, stream, used));
    }
    return info;
}

const char* FormatName(uint32_t format) {
    switch (format & 0xFF) {
        case 0x08:
            return "8-bit grey";
        case 0x10:
            return "16-bit grey";
        case 0x24:
            return "run-length coded";
        default:
            return "unknown format";
    }
}

void Line(const Context& context, const std::string& label, const std::string& value) {
    std::fprintf(context.out, "%-28s %s\n", label.c_str(), value.c_str());
}

void PrintText(const Context& context, const EXT_CAM_INFO& camera, const Info& info) {
    Line(context, "Description", Printable(Description(camera)));
    Line(context, "Handle", HandleText(camera.camera_handle));
    Line(context, "Address", AddressText(camera.camera_ip));
    Line(context, "Mask", AddressText(camera.camera_subnetmask));
    Line(context, "MAC", MacText(camera.camera_mac));
    Line(context, "Network", NetworkText(Interfaces(), camera));
    for (const auto& [what, text] : info.texts)
        Line(context, what->label, Printable(text));
    for (const auto& [number, value] : info.numbers)
        Line(context, RegisterText(number), Format("%u (0x%x)", value, value));
    for (const StreamInfo& stream : info.streams) {
        Line(context, Format("Stream %u", stream.number),
             Format("%s, %s (0x%02x), %u bytes, header of %u, over %s",
                    stream.used ? "used" : "not used", FormatName(stream.format), stream.format,
                    stream.frame_size, stream.header_size, stream.over_tcp ? "TCP" : "UDP"));
    }
}

void PrintJson(const Context& context, const EXT_CAM_INFO& camera, const Info& info) {
    JsonWriter json;
    json.BeginObject();
    WriteIdentity(json, camera, Interfaces());
    for (const auto& [what, text] : info.texts)
        json.Member(what->key, text);
    json.BeginObject("registers");
    for (const auto& [number, value] : info.numbers)
        json.Member(NamesOf(number), value);
    json.EndObject();
    json.BeginArray("streams");
    for (const StreamInfo& stream : info.streams) {
        json.BeginObject();
        json.Member("number", stream.number);
        json.Member("used", stream.used);
        json.Member("format", stream.format);
        json.Member("frame_size", stream.frame_size);
        json.Member("header_size", stream.header_size);
        json.Member("transport", stream.over_tcp ? "tcp" : "udp");
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    context.Print(json);
}

int ShowInfo(const Context& context, const std::string& name) {
    const Library library(context);
    const EXT_CAM_INFO camera = SelectCamera(context, name);
    const Info info = ReadInfo(camera.camera_handle);
    if (context.json) {
        PrintJson(context, camera, info);
    } else {
        PrintText(context, camera, info);
    }
    return EXIT_OK;
}

}  // namespace

void AddInfoCommand(CLI::App& app, Context& context) {
    const auto camera = std::make_shared<std::string>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, camera] { return ShowInfo(context, *camera); });
    AddCameraArgument(command, *camera);
}

}  // namespace kelotool
