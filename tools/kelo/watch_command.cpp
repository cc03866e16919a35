// kelo watch: cameras come and go.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <ctime>

#include "camera_identity.h"
#include "camera_selector.h"
#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {"watch", "Tell when cameras come, go and change",
                              "  kelo watch                   (until Ctrl-C)\n"
                              "  kelo watch --seconds 60\n"
                              "  kelo watch --json            (one JSON object a line)\n"
                              "A camera has gone when two searches in a row did not find it."};

// One answer may get lost.
constexpr int MISSES_MAX = 2;

using Clock = std::chrono::steady_clock;

struct Options {
    double seconds = 0;
};

struct Known {
    EXT_CAM_INFO camera{};
    int misses = 0;
};

// What differs between two searches. Passive: it is told what each search found.
class Watch {
public:
    explicit Watch(const Context& context) : context_(context) {}

    void OnSearch(const std::vector<EXT_CAM_INFO>& found) {
        CountMisses(found);
        for (const EXT_CAM_INFO& camera : found)
            Take(camera);
        std::erase_if(known_, [&](const Known& known) {
            if (known.misses < MISSES_MAX) return false;
            Tell("gone", known.camera, nullptr);
            return true;
        });
        first_ = false;
    }

    size_t Count() const { return known_.size(); }

private:
    void CountMisses(const std::vector<EXT_CAM_INFO>& found) {
        for (Known& known : known_) {
            const bool there =
                std::any_of(found.begin(), found.end(), [&](const EXT_CAM_INFO& camera) {
                    return camera.camera_handle == known.camera.camera_handle;
                });
            known.misses = there ? 0 : known.misses + 1;
        }
    }

    void Take(const EXT_CAM_INFO& camera) {
        const auto same = [&](const Known& known) {
            return known.camera.camera_handle == camera.camera_handle;
        };
        if (std::any_of(known_.begin(), known_.end(), same)) return;
        // The same camera under another address or name, unless that one still answers: then two
        // cameras share a MAC.
        const auto before = std::find_if(known_.begin(), known_.end(), [&](const Known& known) {
            return known.misses > 0 && SameMac(known.camera, camera);
        });
        if (before == known_.end()) {
            Tell(first_ ? "here" : "came", camera, nullptr);
            known_.push_back({camera});
        } else {
            Tell("changed", camera, &before->camera);
            *before = {camera};
        }
    }

    void Tell(const char* event, const EXT_CAM_INFO& camera, const EXT_CAM_INFO* before) const {
        if (context_.json) {
            TellJson(event, camera, before);
        } else {
            TellText(event, camera, before);
        }
    }

    void TellText(const char* event, const EXT_CAM_INFO& camera, const EXT_CAM_INFO* before) const {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char time[16];
        std::strftime(time, sizeof time, "%H:%M:%S", &local);
        std::string text =
            Format("%s  %-8s%s, %s, %s", time, event, Title(camera).c_str(),
                   MacText(camera.camera_mac).c_str(), HandleText(camera.camera_handle).c_str());
        if (before != nullptr) text += ", was " + Title(*before);
        const char* const over = context_.OutIsTerminal() ? "\r\033[K" : "";
        std::fprintf(context_.out, "%s%s\n", over, text.c_str());
        std::fflush(context_.out);
    }

    void TellJson(const char* event, const EXT_CAM_INFO& camera, const EXT_CAM_INFO* before) const {
        using namespace std::chrono;
        const auto now = system_clock::now().time_since_epoch();
        JsonWriter json;
        json.BeginObject();
        json.Member("time_ms", int64_t{duration_cast<milliseconds>(now).count()});
        json.Member("event", event);
        WriteIdentity(json, camera, Interfaces());
        if (before != nullptr) {
            json.BeginObject("before");
            WriteIdentity(json, *before, Interfaces());
            json.EndObject();
        }
        json.EndObject();
        context_.Print(json);
    }

    const Context& context_;
    std::vector<Known> known_;
    bool first_ = true;
};

// The line below the events.
void ShowCount(const Context& context, size_t count) {
    if (context.json || !context.OutIsTerminal()) return;
    std::fprintf(context.out, "\r\033[K%zu camera%s; Ctrl-C ends", count, count == 1 ? "" : "s");
    std::fflush(context.out);
}

int WatchCameras(const Context& context, const Options& options) {
    const Library library(context);
    const auto end = Clock::now() + std::chrono::duration<double>(options.seconds);
    Watch watch(context);
    bool first = true;
    while (!context.interrupt.Requested() && (options.seconds == 0 || Clock::now() < end)) {
        const auto found = Discover(context.timeout_ms);
        watch.OnSearch(found);
        if (first && found.empty()) {
            context.Say("No camera yet. Asked on: " + InterfacesText(Interfaces()) + ".");
        }
        first = false;
        ShowCount(context, watch.Count());
        // Nobody reads any more.
        if (std::ferror(context.out) != 0) break;
    }
    if (!context.json && context.OutIsTerminal()) std::fprintf(context.out, "\r\033[K");
    return EXIT_OK;
}

}  // namespace

void AddWatchCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = AddCommand(app, context, TEXT,
                                   [&context, options] { return WatchCameras(context, *options); });
    command.add_option("--seconds", options->seconds, "End after so long; 0: at Ctrl-C")
        ->capture_default_str()
        ->type_name("S")
        ->check(CLI::NonNegativeNumber.description(""));
}

}  // namespace kelotool
