#include "camera_selector.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>

#include "interfaces.h"
#include "library_session.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

// Enough for a camera on a quiet network; what names one camera only need not wait for others.
constexpr uint32_t SHORT_SEARCH_MS = 100;

bool NamesExactly(const std::string& text) {
    return ParseAddress(text) || ParseMac(text) || (text.starts_with("0x") && ParseNumber(text));
}

bool IsExactly(const EXT_CAM_INFO& camera, const std::string& text) {
    if (const auto address = ParseAddress(text)) return camera.camera_ip == *address;
    if (const auto mac = ParseMac(text)) {
        return std::equal(mac->begin(), mac->end(), camera.camera_mac);
    }
    const auto handle = ParseNumber(text);
    return handle && camera.camera_handle == *handle;
}

template <typename Condition>
std::vector<EXT_CAM_INFO> Filtered(const std::vector<EXT_CAM_INFO>& cameras, Condition condition) {
    std::vector<EXT_CAM_INFO> found;
    std::copy_if(cameras.begin(), cameras.end(), std::back_inserter(found), condition);
    return found;
}

std::string Candidates(const std::vector<EXT_CAM_INFO>& cameras) {
    Table table({{"HANDLE"}, {"ADDRESS"}, {"MAC"}, {"DESCRIPTION"}});
    for (const EXT_CAM_INFO& camera : cameras) {
        table.AddRow({HandleText(camera.camera_handle), AddressText(camera.camera_ip),
                      MacText(camera.camera_mac), Printable(Description(camera))});
    }
    std::string text = table.Text();
    text.pop_back();
    return text;
}

EXT_CAM_INFO TheOne(const std::vector<EXT_CAM_INFO>& cameras, const std::string& text) {
    if (cameras.empty()) throw NoCameraFound();
    const auto found = Matching(cameras, text);
    if (found.size() == 1) return found.front();
    if (found.empty()) {
        throw CommandError(EXIT_NO_CAMERA, "no camera is \"" + Printable(text) + "\"",
                           "These answered:\n" + Candidates(cameras) +
                               "\nIf it needs longer, try a longer --timeout.");
    }
    throw CommandError(EXIT_NO_CAMERA,
                       Format("%zu cameras are \"%s\"", found.size(), Printable(text).c_str()),
                       "Name one by its handle, address or MAC:\n" + Candidates(found));
}

}  // namespace

void AddCameraArgument(CLI::App& command, std::string& camera) {
    command.add_option("CAMERA", camera, CAMERA_HELP)->required()->type_name("");
}

CommandError NoCameraFound() {
    return CommandError(EXIT_NO_CAMERA, "no camera found",
                        "Asked on: " + InterfacesText(Interfaces()) +
                            ".\nIs it powered and connected? `kelo doctor` looks for what keeps "
                            "its answers away; a slow network needs a longer --timeout.");
}

std::vector<EXT_CAM_INFO> Matching(const std::vector<EXT_CAM_INFO>& cameras,
                                   const std::string& text) {
    if (text.empty()) return {};
    if (NamesExactly(text)) {
        return Filtered(cameras,
                        [&](const EXT_CAM_INFO& camera) { return IsExactly(camera, text); });
    }
    const auto whole =
        Filtered(cameras, [&](const EXT_CAM_INFO& camera) { return Description(camera) == text; });
    if (!whole.empty()) return whole;
    return Filtered(cameras, [&](const EXT_CAM_INFO& camera) {
        return LowerCase(Description(camera)).find(LowerCase(text)) != std::string::npos;
    });
}

std::vector<EXT_CAM_INFO> SelectCameras(const Context& context,
                                        const std::vector<std::string>& texts) {
    std::vector<EXT_CAM_INFO> cameras;
    if (std::all_of(texts.begin(), texts.end(), NamesExactly)) {
        cameras = Discover(std::min(SHORT_SEARCH_MS, context.timeout_ms));
    }
    const bool all_there =
        !cameras.empty() && std::all_of(texts.begin(), texts.end(), [&](const std::string& text) {
            return Matching(cameras, text).size() == 1;
        });
    if (!all_there) cameras = Discover(context.timeout_ms);

    std::vector<EXT_CAM_INFO> selected;
    for (const std::string& text : texts) {
        const EXT_CAM_INFO camera = TheOne(cameras, text);
        const bool twice = std::any_of(
            selected.begin(), selected.end(),
            [&](const EXT_CAM_INFO& other) { return other.camera_handle == camera.camera_handle; });
        if (twice) throw CommandError(EXIT_USAGE, Title(camera) + " is named twice");
        selected.push_back(camera);
    }
    return selected;
}

EXT_CAM_INFO SelectCamera(const Context& context, const std::string& text) {
    return SelectCameras(context, {text}).front();
}

}  // namespace kelotool
