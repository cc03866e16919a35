// kelo get: the values of registers.

#include <CLI/CLI.hpp>

#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "register_names.h"
#include "register_value.h"
#include "table.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {
    "get", "Read registers",
    "  kelo get 192.168.1.5 REG_WIDTH REG_HEIGHT\n"
    "  kelo get gate exposuretime 0x140         (REG_ and case do not matter; numbers will do)\n"
    "  kelo get gate gain --format float        (the bare value, for scripts)\n"
    "The camera is not claimed: another program that uses it is not disturbed."};

struct Options {
    std::string camera;
    std::vector<std::string> registers;
    std::optional<ValueFormat> format;
};

// What came of one register.
struct Reading {
    uint32_t number = 0;
    KELO_API_STATUS status = KELO_STATUS_SUCCESS;
    uint32_t value = 0;
};

std::vector<Reading> Read(CAM_HANDLE camera, const std::vector<uint32_t>& numbers) {
    std::vector<Reading> readings;
    for (const uint32_t number : numbers) {
        Reading reading{.number = number};
        reading.status = keloGetRegisterInt(camera, number, &reading.value);
        readings.push_back(reading);
        // The others would wait for nothing as long.
        if (reading.status == KELO_STATUS_NO_RESPONSE) break;
    }
    return readings;
}

void PrintTable(const Context& context, const std::vector<Reading>& readings) {
    Table table = RegisterTable();
    for (const Reading& reading : readings) {
        if (reading.status != KELO_STATUS_SUCCESS) continue;
        AddRegister(table, reading.number, reading.value);
    }
    table.Print(context.out);
}

void PrintValues(const Context& context, const std::vector<Reading>& readings, ValueFormat format) {
    for (const Reading& reading : readings) {
        if (reading.status != KELO_STATUS_SUCCESS) continue;
        std::fprintf(context.out, "%s\n", ValueText(reading.value, format).c_str());
    }
}

void PrintJson(const Context& context, const std::vector<Reading>& readings) {
    JsonWriter json;
    json.BeginObject();
    json.BeginArray("registers");
    for (const Reading& reading : readings) {
        json.BeginObject();
        json.Member("name", NamesOf(reading.number));
        json.Member("number", reading.number);
        if (reading.status == KELO_STATUS_SUCCESS) {
            WriteValue(json, reading.value);
        } else {
            json.Member("error", StatusText(reading.status));
        }
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    context.Print(json);
}

int Get(const Context& context, const Options& options) {
    std::vector<uint32_t> numbers;
    for (const std::string& text : options.registers)
        numbers.push_back(ParseRegister(text));
    const Library library(context);
    const EXT_CAM_INFO camera = SelectCamera(context, options.camera);
    const auto readings = Read(camera.camera_handle, numbers);
    if (context.json) {
        PrintJson(context, readings);
    } else if (options.format) {
        PrintValues(context, readings, *options.format);
    } else if (readings.size() > 1 || readings.front().status == KELO_STATUS_SUCCESS) {
        PrintTable(context, readings);
    }
    for (const Reading& reading : readings)
        Require(reading.status, "reading " + RegisterText(reading.number));
    return EXIT_OK;
}

}  // namespace

void AddGetCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return Get(context, *options); });
    AddCameraArgument(command, options->camera);
    command
        .add_option("REGISTER", options->registers, "Name, number or 0x...; as many as you like")
        ->required()
        ->type_name("");
    AddFormatOption(command, options->format, "Print the bare values, one a line");
}

}  // namespace kelotool
