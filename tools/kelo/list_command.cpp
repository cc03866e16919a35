// kelo list: the cameras that answer now.

#include <CLI/CLI.hpp>

#include "camera_identity.h"
#include "camera_selector.h"
#include "commands.h"
#include "interfaces.h"
#include "json_writer.h"
#include "library_session.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {"list", "List the cameras that answer",
                              "  kelo list\n"
                              "  kelo list --timeout 2000     (a slow network)\n"
                              "  kelo list --json | jq -r '.cameras[].address'"};

void PrintTable(const Context& context, const std::vector<EXT_CAM_INFO>& cameras) {
    const auto interfaces = Interfaces();
    Table table({{"HANDLE"}, {"ADDRESS"}, {"MASK"}, {"MAC"}, {"NETWORK"}, {"DESCRIPTION"}});
    for (const EXT_CAM_INFO& camera : cameras) {
        table.AddRow({HandleText(camera.camera_handle), AddressText(camera.camera_ip),
                      AddressText(camera.camera_subnetmask), MacText(camera.camera_mac),
                      NetworkText(interfaces, camera), Printable(Description(camera))});
    }
    table.Print(context.out);
}

void PrintJson(const Context& context, const std::vector<EXT_CAM_INFO>& cameras) {
    const auto interfaces = Interfaces();
    JsonWriter json;
    json.BeginObject();
    json.BeginArray("cameras");
    for (const EXT_CAM_INFO& camera : cameras) {
        json.BeginObject();
        WriteIdentity(json, camera, interfaces);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    context.Print(json);
}

int List(const Context& context) {
    const Library library(context);
    const auto cameras = Discover(context.timeout_ms);
    if (context.json) PrintJson(context, cameras);
    if (cameras.empty()) throw NoCameraFound();
    if (!context.json) PrintTable(context, cameras);
    return EXIT_OK;
}

}  // namespace

void AddListCommand(CLI::App& app, Context& context) {
    AddCommand(app, context, TEXT, [&context] { return List(context); });
}

}  // namespace kelotool
