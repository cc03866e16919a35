// kelo firmware: new firmware for a camera.

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>

#include "camera_identity.h"
#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "firmware_file.h"
#include "json_writer.h"
#include "library_session.h"
#include "progress_bar.h"
#include "text.h"

namespace kelotool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr CommandText TEXT = {
    "firmware", "Program a camera's firmware",
    "  kelo firmware 192.168.1.5 camera.bin\n"
    "  kelo firmware gate camera.bin --reboot-wait 180\n"
    "The file is checked first. Ctrl-C stops the run while the file is being sent; once the "
    "camera\n"
    "writes its flash it cannot be stopped, and must not be switched off. At the end the camera\n"
    "reboots and is looked for by its MAC."};

constexpr int POLL_MS = 50;
// Within this time a stop is heeded where it is.
constexpr auto STOP_LIMIT = std::chrono::milliseconds(1500);
constexpr uint32_t SEARCH_MS = 100;
// Closing a camera that answers takes no time; this is how long a first unanswered request waits.
constexpr auto UNANSWERED = std::chrono::milliseconds(250);
// A camera that answers for so long without a gap was faster than the searches, or has not
// rebooted.
constexpr auto REBOOT_BEGINS_WITHIN = std::chrono::seconds(10);
constexpr auto VERSION_READ_LIMIT = std::chrono::seconds(10);

struct Options {
    std::string camera;
    std::string file;
    uint32_t reboot_wait_s = 120;
};

std::optional<uint32_t> ReadVersion(CAM_HANDLE camera) {
    uint32_t version = 0;
    const bool known =
        keloGetRegisterInt(camera, REG_DEVICEFIRMWAREVERSION, &version) == KELO_STATUS_SUCCESS;
    return known ? std::optional<uint32_t>(version) : std::nullopt;
}

std::string VersionText(std::optional<uint32_t> version) {
    if (!version) return "unknown";
    return Format("0x%08x (%u.%u)", *version, *version >> 16, *version & 0xFFFF);
}

// Follows the run of an opened camera to its end, and Ctrl-C with it.
class Run {
public:
    Run(const Context& context, const OpenCamera& camera)
        : context_(context), camera_(camera), bar_(context.err) {}

    void WaitForEnd() {
        int percent = 0;
        while (percent < 100) {
            // Its own count: whoever presses again is told again.
            if (context_.interrupt.WaitFor(POLL_MS, interruptions_)) Interrupted();
            const KELO_API_STATUS status = keloFirmwareGetProgress(camera_.Handle(), &percent);
            if (status != KELO_STATUS_SUCCESS) Failed(status);
            if (!context_.json) bar_.Show(percent);
            if (stop_asked_ && !told_ && Clock::now() > *stop_asked_ + STOP_LIMIT) TellNoStop();
        }
    }

private:
    void Interrupted() {
        interruptions_ = context_.interrupt.Count();
        if (told_) return TellNoStop();
        if (stop_asked_) return;
        stop_asked_ = Clock::now();
        // Heeded until the camera has begun to write its flash; it does not say whether.
        (void)keloFirmwareProgramAbort(camera_.Handle());
        bar_.Say("Stopping, if the camera still can ...");
    }

    void TellNoStop() {
        told_ = true;
        bar_.Say(
            "The camera writes its flash: this cannot be stopped any more. Do NOT switch it "
            "off. It goes on.");
    }

    [[noreturn]] void Failed(KELO_API_STATUS status) const {
        if (status == KELO_STATUS_NO_RESPONSE) {
            throw CommandError(EXIT_LOST, "the camera stopped answering while it was programmed",
                               "Give it a few minutes, then switch it off and on: as a rule the "
                               "firmware is in place. `kelo info` shows the version.");
        }
        if (stop_asked_ && !told_) {
            throw CommandError(EXIT_INTERRUPTED, "stopped before the camera wrote its flash",
                               "It runs its old firmware.");
        }
        throw CommandError(EXIT_REFUSED,
                           "programming failed: what the camera holds is not the file",
                           "Do not switch it off; run the same command again. --log shows where it "
                           "failed.");
    }

    const Context& context_;
    const OpenCamera& camera_;
    ProgressBar bar_;
    int interruptions_ = 0;
    std::optional<Clock::time_point> stop_asked_;
    bool told_ = false;
};

void Program(const Context& context, const EXT_CAM_INFO& camera, const std::string& file,
             Clock::time_point& ended) {
    const OpenCamera open(camera);
    if (keloFirmwareProgram(open.Handle(), file.c_str()) != KELO_STATUS_SUCCESS) {
        throw CommandError(EXIT_FAILED, "the library does not begin to program " + file,
                           "Did the file change meanwhile? --log shows why.");
    }
    Run(context, open).WaitForEnd();
    ended = Clock::now();
}

std::optional<EXT_CAM_INFO> FindByMac(const EXT_CAM_INFO& camera) {
    for (const EXT_CAM_INFO& found : Discover(SEARCH_MS)) {
        if (SameMac(found, camera)) return found;
    }
    return std::nullopt;
}

// The camera after its reboot: gone once, and there again. (A Ctrl-C during the run was answered.)
// It may have gone already while it was closed.
EXT_CAM_INFO FindAgain(const Context& context, const EXT_CAM_INFO& camera, bool gone,
                       uint32_t wait_s) {
    const auto start = Clock::now();
    const int pressed = context.interrupt.Count();
    while (Clock::now() < start + std::chrono::seconds(wait_s)) {
        if (context.interrupt.Count() > pressed) {
            throw CommandError(EXIT_INTERRUPTED,
                               "interrupted while the camera reboots; it is programmed",
                               "`kelo watch` tells when it is back.");
        }
        const auto found = FindByMac(camera);
        gone = gone || !found;
        if (found && (gone || Clock::now() > start + REBOOT_BEGINS_WITHIN)) {
            if (!gone) context.Warn("the camera was not seen to reboot");
            return *found;
        }
    }
    throw CommandError(
        EXIT_LOST, Format("the camera is programmed, but did not come back within %u s", wait_s),
        "`kelo watch` tells when it does; a new firmware may have a new address. If "
        "it stays away, switch it off and on.");
}

// A camera that is just up may not answer yet.
std::optional<uint32_t> ReadNewVersion(const EXT_CAM_INFO& camera) {
    const auto end = Clock::now() + VERSION_READ_LIMIT;
    auto version = ReadVersion(camera.camera_handle);
    while (!version && Clock::now() < end) {
        if (const auto found = FindByMac(camera)) version = ReadVersion(found->camera_handle);
    }
    return version;
}

int Firmware(const Context& context, const Options& options) {
    const uint64_t size = CheckFirmwareFile(options.file);
    const Library library(context);
    const EXT_CAM_INFO before = SelectCamera(context, options.camera);
    const auto old_version = ReadVersion(before.camera_handle);
    const auto start = Clock::now();
    if (!context.json) {
        context.Say(Format("Programming %s (version %s) with %s, %llu bytes.",
                           Title(before).c_str(), VersionText(old_version).c_str(),
                           Printable(options.file).c_str(), static_cast<unsigned long long>(size)));
    }
    Clock::time_point ended;
    Program(context, before, options.file, ended);
    const bool gone = Clock::now() - ended >= UNANSWERED;
    if (!context.json) context.Say("Programmed. The camera reboots ...");
    const EXT_CAM_INFO after = FindAgain(context, before, gone, options.reboot_wait_s);
    const auto new_version = ReadNewVersion(after);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!context.json) {
        std::fprintf(context.out, "%s is back after %.1f s. Version: %s, before: %s.\n",
                     Title(after).c_str(), seconds, VersionText(new_version).c_str(),
                     VersionText(old_version).c_str());
        return EXIT_OK;
    }
    JsonWriter json;
    json.BeginObject();
    WriteIdentity(json, after, Interfaces());
    json.Member("file", options.file);
    json.Member("bytes", size);
    json.Member("seconds", seconds);
    for (const auto& [key, version] :
         {std::pair("version_before", old_version), std::pair("version_after", new_version)}) {
        version ? json.Member(key, *version) : json.NullMember(key);
    }
    json.EndObject();
    context.Print(json);
    return EXIT_OK;
}

}  // namespace

void AddFirmwareCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return Firmware(context, *options); });
    AddCameraArgument(command, options->camera);
    command.add_option("FILE", options->file, "The firmware file")->required()->type_name("");
    command
        .add_option("--reboot-wait", options->reboot_wait_s,
                    "How long to wait for the camera's return; 120 unless given")
        ->type_name("SECONDS")
        ->check(CLI::Range(1u, 3600u).description(""));
}

}  // namespace kelotool
