// kelo memory: consecutive registers, read and written in blocks.

#include <CLI/CLI.hpp>
#include <algorithm>

#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "register_names.h"
#include "register_value.h"
#include "text.h"

namespace kelotool {
namespace {

// What one request carries.
constexpr uint32_t BLOCK_MAX = 128;
// A register's byte address, four times its number, has 32 bits.
constexpr uint32_t NUMBERS_END = 0x40000000;
constexpr size_t VALUES_PER_LINE = 8;

constexpr CommandText GROUP_TEXT = {"memory", "Read or write consecutive registers in blocks",
                                    "  kelo memory read 192.168.1.5 REG_MODEL_NAME 8\n"
                                    "  kelo memory write 192.168.1.5 11000 1 2 0x30"};
constexpr CommandText READ_TEXT = {
    "read", "Read consecutive registers",
    "  kelo memory read 192.168.1.5 REG_MODEL_NAME 8\n"
    "  kelo memory read gate 11000 256 --format int\n"
    "Requests of at most 128 registers are made, as many as it takes."};
constexpr CommandText WRITE_TEXT = {
    "write", "Write consecutive registers",
    "  kelo memory write 192.168.1.5 11000 1 2 0x30\n"
    "Requests of at most 128 registers are made, up to the first that fails. A value may be\n"
    "negative behind --: kelo memory write gate 11000 -- -1"};

struct Options {
    std::string camera;
    std::string start;
    uint32_t count = 0;
    std::vector<std::string> values;
    std::optional<ValueFormat> format;
};

void CheckRange(uint32_t start, size_t count) {
    if (start < NUMBERS_END && count <= NUMBERS_END - start) return;
    throw CommandError(EXIT_USAGE, "there are no registers from number 1073741824 on");
}

std::string RangeText(uint32_t start, size_t count) {
    return Format("%zu register%s from %u on", count, count == 1 ? "" : "s", start);
}

// Up to the first request that fails.
KELO_API_STATUS ReadBlocks(CAM_HANDLE camera, uint32_t start, uint32_t wanted,
                           std::vector<uint32_t>& values) {
    while (values.size() < wanted) {
        const auto done = static_cast<uint32_t>(values.size());
        const uint32_t asked = std::min(wanted - done, BLOCK_MAX);
        // The camera's answer decides how many come.
        uint32_t block[BLOCK_MAX];
        uint32_t count = asked;
        const KELO_API_STATUS status = keloReadMemory(camera, start + done, &count, block);
        if (status != KELO_STATUS_SUCCESS) return status;
        values.insert(values.end(), block, block + std::min(count, asked));
        if (count < asked) return KELO_STATUS_ERROR;
    }
    return KELO_STATUS_SUCCESS;
}

KELO_API_STATUS WriteBlocks(CAM_HANDLE camera, uint32_t start, std::vector<uint32_t>& values,
                            size_t& written) {
    while (written < values.size()) {
        const size_t asked = std::min<size_t>(values.size() - written, BLOCK_MAX);
        auto count = static_cast<uint32_t>(asked);
        const KELO_API_STATUS status = keloWriteMemory(
            camera, start + static_cast<uint32_t>(written), &count, &values[written]);
        if (status != KELO_STATUS_SUCCESS) return status;
        written += std::min<size_t>(count, asked);
        if (count < asked) return KELO_STATUS_ERROR;
    }
    return KELO_STATUS_SUCCESS;
}

void PrintLines(const Context& context, uint32_t start, const std::vector<uint32_t>& values,
                ValueFormat format) {
    for (size_t i = 0; i < values.size(); ++i) {
        if (i % VALUES_PER_LINE == 0) {
            std::fprintf(context.out, "%s%8zu:", i == 0 ? "" : "\n", start + i);
        }
        std::fprintf(context.out, " %s", ValueText(values[i], format).c_str());
    }
    if (!values.empty()) std::fprintf(context.out, "\n");
}

void PrintValues(const Context& context, uint32_t start, const std::vector<uint32_t>& values) {
    JsonWriter json;
    json.BeginObject();
    json.Member("start", start);
    json.BeginArray("values");
    for (const uint32_t value : values)
        json.Element(uint64_t{value});
    json.EndArray();
    json.EndObject();
    context.Print(json);
}

int ReadMemory(const Context& context, const Options& options) {
    const uint32_t start = ParseRegister(options.start);
    CheckRange(start, options.count);
    const Library library(context);
    const EXT_CAM_INFO camera = SelectCamera(context, options.camera);
    std::vector<uint32_t> values;
    const KELO_API_STATUS status = ReadBlocks(camera.camera_handle, start, options.count, values);
    if (context.json) {
        PrintValues(context, start, values);
    } else {
        PrintLines(context, start, values, options.format.value_or(ValueFormat::kHex));
    }
    const auto done = static_cast<uint32_t>(values.size());
    Require(status, "reading " + RangeText(start + done, options.count - done));
    return EXIT_OK;
}

int WriteMemory(const Context& context, const Options& options) {
    const uint32_t start = ParseRegister(options.start);
    std::vector<uint32_t> values;
    for (const std::string& text : options.values)
        values.push_back(ParseValue(text, options.format));
    CheckRange(start, values.size());
    const Library library(context);
    const EXT_CAM_INFO camera = SelectCamera(context, options.camera);
    size_t written = 0;
    const KELO_API_STATUS status = WriteBlocks(camera.camera_handle, start, values, written);
    if (context.json) {
        JsonWriter json;
        json.BeginObject();
        json.Member("start", start);
        json.Member("written", uint64_t{written});
        json.EndObject();
        context.Print(json);
    } else if (written > 0) {
        std::fprintf(context.out, "wrote %s\n", RangeText(start, written).c_str());
    }
    Require(status, "writing " +
                        RangeText(start + static_cast<uint32_t>(written), values.size() - written));
    return EXIT_OK;
}

void AddStart(CLI::App& command, Options& options) {
    AddCameraArgument(command, options.camera);
    command.add_option("START", options.start, "First register: name, number or 0x...")
        ->required()
        ->type_name("");
}

}  // namespace

void AddMemoryCommand(CLI::App& app, Context& context) {
    CLI::App& group = AddGroup(app, GROUP_TEXT);
    const auto options = std::make_shared<Options>();
    CLI::App& read = AddCommand(group, context, READ_TEXT,
                                [&context, options] { return ReadMemory(context, *options); });
    AddStart(read, *options);
    read.add_option("COUNT", options->count, "How many registers")
        ->required()
        ->type_name("")
        ->check(CLI::Range(1u, 1u << 20).description(""));
    AddFormatOption(read, options->format, "How to print the values; hex unless given");

    CLI::App& write = AddCommand(group, context, WRITE_TEXT,
                                 [&context, options] { return WriteMemory(context, *options); });
    AddStart(write, *options);
    write.add_option("VALUE", options->values, "Integer, 0x... or float; as many as you like")
        ->required()
        ->type_name("");
    AddFormatOption(write, options->format, "How the values are meant");
}

}  // namespace kelotool
