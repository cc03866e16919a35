// kelo set: new values for registers.

#include <CLI/CLI.hpp>

#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "register_names.h"
#include "register_value.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {
    "set", "Write registers",
    "  kelo set 192.168.1.5 REG_EXPOSURETIME=2000 REG_GAIN=0x2\n"
    "  kelo set gate 25=1.5                     (with a point: the bits of a 32-bit float)\n"
    "  kelo set gate gain=2 --format float      (a float without a point)\n"
    "Registers are written in this order, up to the first that fails; what the camera then holds\n"
    "is shown. The camera is not claimed."};

struct Options {
    std::string camera;
    std::vector<std::string> assignments;
    std::optional<ValueFormat> format;
};

struct Assignment {
    uint32_t number = 0;
    uint32_t wanted = 0;
    uint32_t held = 0;  // by the camera, afterwards
};

Assignment ParseAssignment(const std::string& text, std::optional<ValueFormat> format) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw CommandError(EXIT_USAGE, "\"" + Printable(text) + "\" is no REGISTER=VALUE");
    }
    Assignment assignment;
    assignment.number = ParseRegister(text.substr(0, equals));
    assignment.wanted = ParseValue(text.substr(equals + 1), format);
    assignment.held = assignment.wanted;
    return assignment;
}

void PrintTable(const Context& context, const std::vector<Assignment>& done) {
    Table table = RegisterTable();
    for (const Assignment& one : done)
        AddRegister(table, one.number, one.held);
    table.Print(context.out);
}

void PrintJson(const Context& context, const std::vector<Assignment>& done) {
    JsonWriter json;
    json.BeginObject();
    json.BeginArray("registers");
    for (const Assignment& one : done) {
        json.BeginObject();
        json.Member("name", NamesOf(one.number));
        json.Member("number", one.number);
        json.Member("requested", one.wanted);
        WriteValue(json, one.held);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    context.Print(json);
}

void WarnOfOtherValues(const Context& context, const std::vector<Assignment>& done) {
    for (const Assignment& one : done) {
        if (one.held == one.wanted) continue;
        context.Warn(Format("%s was to be %u (0x%x); the camera holds %u (0x%x)",
                            RegisterText(one.number).c_str(), one.wanted, one.wanted, one.held,
                            one.held));
    }
}

int Set(const Context& context, const Options& options) {
    // All of it is understood before anything is written.
    std::vector<Assignment> assignments;
    for (const std::string& text : options.assignments)
        assignments.push_back(ParseAssignment(text, options.format));
    const Library library(context);
    const EXT_CAM_INFO camera = SelectCamera(context, options.camera);
    std::vector<Assignment> done;
    KELO_API_STATUS status = KELO_STATUS_SUCCESS;
    for (Assignment& one : assignments) {
        status = keloSetRegisterInt(camera.camera_handle, one.number, &one.held);
        if (status != KELO_STATUS_SUCCESS) break;
        done.push_back(one);
    }
    if (context.json) {
        PrintJson(context, done);
    } else if (!done.empty()) {
        PrintTable(context, done);
    }
    WarnOfOtherValues(context, done);
    if (done.size() < assignments.size()) {
        Require(status, "writing " + RegisterText(assignments[done.size()].number));
    }
    return EXIT_OK;
}

}  // namespace

void AddSetCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return Set(context, *options); });
    AddCameraArgument(command, options->camera);
    command
        .add_option("REGISTER=VALUE", options->assignments,
                    "Name, number or 0x...; integer, 0x... or float; as many as you like")
        ->required()
        ->type_name("");
    AddFormatOption(command, options->format, "How the values are meant");
}

}  // namespace kelotool
