// kelo set-ip: a new address for a camera.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>

#include <unistd.h>

#include "address_checks.h"
#include "camera_identity.h"
#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {
    "set-ip", "Give a camera a new address",
    "  kelo set-ip gate 192.168.1.20 255.255.255.0\n"
    "  kelo set-ip 02:4b:0a:00:00:15 10.0.0.21 /24 --yes     (does not ask)\n"
    "Cameras on a foreign subnet hear this command, too. The address is checked first; afterwards\n"
    "the camera is looked for by its MAC."};

constexpr uint32_t SEARCH_MS = 200;
constexpr int PROBE_MS = 700;

struct Options {
    std::string camera;
    std::string address;
    std::string mask;
    bool yes = false;
    bool force = false;
    uint32_t wait_s = 10;
};

struct Wanted {
    uint32_t address = 0;
    uint32_t mask = 0;
};

Wanted Parse(const Options& options) {
    const auto address = ParseAddress(options.address);
    if (!address) {
        throw CommandError(EXIT_USAGE, "\"" + Printable(options.address) + "\" is no address",
                           "An address is four numbers up to 255: 192.168.1.20.");
    }
    const auto mask = ParseMask(options.mask);
    if (!mask) {
        throw CommandError(EXIT_USAGE, "\"" + Printable(options.mask) + "\" is no mask",
                           "A mask is ones followed by zeros: 255.255.255.0, or its length: /24.");
    }
    return {*address, *mask};
}

void CheckNobodyAnswers(const EXT_CAM_INFO& camera, uint32_t address) {
    const auto mac = WhoAnswersAt(address, PROBE_MS);
    if (!mac || *mac == MacText(camera.camera_mac)) return;
    throw CommandError(EXIT_FAILED, AddressText(address) + " is in use: " + *mac + " answers there",
                       "Choose another address. If that host has gone since, --force goes on.");
}

AddressJudgement Judge(const EXT_CAM_INFO& camera, const Wanted& wanted,
                       const std::vector<EXT_CAM_INFO>& others) {
    auto judgement = JudgeAddress(camera, wanted.address, wanted.mask, Interfaces(), others);
    if (judgement.errors.empty()) return judgement;
    throw CommandError(EXIT_USAGE, judgement.errors.front(), "Nothing was changed.");
}

// All that are there. A camera whose answer was lost cannot be told its address, so it gets another
// chance.
std::vector<EXT_CAM_INFO> DiscoverWith(const Context& context, const EXT_CAM_INFO& camera) {
    constexpr int SEARCHES = 3;
    for (int i = 0; i < SEARCHES; ++i) {
        auto found = Discover(context.timeout_ms);
        const auto is_it = [&](const EXT_CAM_INFO& other) { return SameMac(other, camera); };
        if (std::any_of(found.begin(), found.end(), is_it)) return found;
    }
    throw CommandError(EXIT_LOST, Title(camera) + " does not answer any more",
                       "Nothing was changed. `kelo list` shows whether it comes back.");
}

void Check(const Context& context, const EXT_CAM_INFO& camera, const Wanted& wanted, bool force) {
    // Most mistakes need no search to be seen.
    (void)Judge(camera, wanted, {});
    const auto judgement = Judge(camera, wanted, DiscoverWith(context, camera));
    for (const std::string& warning : judgement.warnings)
        context.Warn(warning);
    if (!force && wanted.address != camera.camera_ip) CheckNobodyAnswers(camera, wanted.address);
    uint32_t used = 0;
    // A camera on a foreign subnet cannot be asked.
    if (FindReaching(Interfaces(), camera.camera_ip) != nullptr &&
        keloGetRegisterInt(camera.camera_handle, REG_CAMERA_USED, &used) == KELO_STATUS_SUCCESS &&
        used != 0) {
        context.Warn("a program uses this camera now and will lose it");
    }
}

// The answer without its line end; null at the end of the input.
std::optional<std::string> ReadAnswer(const Context& context) {
    std::string answer;
    char character = 0;
    while (context.interrupt.WaitReadable(STDIN_FILENO)) {
        if (read(STDIN_FILENO, &character, 1) != 1) return std::nullopt;
        if (character == '\n') return answer;
        if (answer.size() < 16) answer += character;
    }
    throw CommandError(EXIT_INTERRUPTED, "interrupted; nothing was changed");
}

void Ask(const Context& context, const EXT_CAM_INFO& camera, const Wanted& wanted) {
    if (isatty(STDIN_FILENO) == 0) {
        throw CommandError(EXIT_USAGE, "there is no terminal to ask on",
                           "Nothing was changed. --yes does it without asking.");
    }
    std::fprintf(context.err, "%s (%s) gets the address %s, mask %s. Go on? [y/N] ",
                 Title(camera).c_str(), MacText(camera.camera_mac).c_str(),
                 AddressText(wanted.address).c_str(), AddressText(wanted.mask).c_str());
    std::fflush(context.err);
    const auto answer = ReadAnswer(context);
    if (answer && (LowerCase(*answer) == "y" || LowerCase(*answer) == "yes")) return;
    throw CommandError(EXIT_FAILED, "nothing was changed");
}

bool IsThere(const EXT_CAM_INFO& camera, const Wanted& wanted) {
    return camera.camera_ip == wanted.address && camera.camera_subnetmask == wanted.mask;
}

// The camera under its new address, found by its MAC.
EXT_CAM_INFO FindAgain(const Context& context, const EXT_CAM_INFO& camera, const Wanted& wanted,
                       uint32_t wait_s) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(wait_s);
    std::string elsewhere;
    while (std::chrono::steady_clock::now() < end) {
        if (context.interrupt.Requested()) {
            throw CommandError(EXIT_INTERRUPTED,
                               "interrupted: the camera was told, but not found "
                               "again yet",
                               "`kelo list` shows where it is.");
        }
        elsewhere.clear();
        for (const EXT_CAM_INFO& found : Discover(SEARCH_MS)) {
            if (!SameMac(found, camera)) continue;
            if (IsThere(found, wanted)) return found;
            elsewhere =
                AddressText(found.camera_ip) + ", mask " + AddressText(found.camera_subnetmask);
        }
    }
    if (!elsewhere.empty()) {
        throw CommandError(EXIT_REFUSED,
                           "the camera did not take the address: it is still at " + elsewhere);
    }
    throw CommandError(EXIT_LOST, "the camera was told, but does not answer since",
                       "Look with `kelo watch`; switching it off and on may help.");
}

void Print(const Context& context, const EXT_CAM_INFO& camera, const EXT_CAM_INFO* before) {
    if (context.json) {
        JsonWriter json;
        json.BeginObject();
        json.Member("changed", before != nullptr);
        WriteIdentity(json, camera, Interfaces());
        json.EndObject();
        context.Print(json);
    } else if (before == nullptr) {
        std::fprintf(context.out, "%s has this address already.\n", Title(camera).c_str());
    } else {
        std::fprintf(context.out, "Found again by its MAC %s: %s, mask %s, handle %s (was %s).\n",
                     MacText(camera.camera_mac).c_str(), Title(camera).c_str(),
                     AddressText(camera.camera_subnetmask).c_str(),
                     HandleText(camera.camera_handle).c_str(),
                     AddressText(before->camera_ip).c_str());
    }
}

int SetIp(const Context& context, const Options& options) {
    const Wanted wanted = Parse(options);
    const Library library(context);
    const EXT_CAM_INFO camera = SelectCamera(context, options.camera);
    if (IsThere(camera, wanted)) {
        Print(context, camera, nullptr);
        return EXIT_OK;
    }
    Check(context, camera, wanted, options.force);
    if (!options.yes) Ask(context, camera, wanted);
    Require(keloSetCameraIP(camera.camera_handle, wanted.address, wanted.mask),
            "setting the address of " + Title(camera));
    Print(context, FindAgain(context, camera, wanted, options.wait_s), &camera);
    return EXIT_OK;
}

}  // namespace

void AddSetIpCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return SetIp(context, *options); });
    AddCameraArgument(command, options->camera);
    command.add_option("ADDRESS", options->address, "The new address")->required()->type_name("");
    command.add_option("MASK", options->mask, "Its mask: 255.255.255.0 or /24")
        ->required()
        ->type_name("");
    command.add_flag("--yes,-y", options->yes, "Do not ask");
    command.add_flag("--force", options->force, "Even if somebody answers at the address");
    command
        .add_option("--wait", options->wait_s,
                    "How long to look for it afterwards; 10 unless given")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 600u).description(""));
}

}  // namespace kelotool
