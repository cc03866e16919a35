// kelo: cameras on the network from the command line.

#include <CLI/CLI.hpp>
#include <cstring>
#include <iostream>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include "command.h"
#include "commands.h"
#include "kelo_api.h"

namespace kelotool {
namespace {

constexpr const char* FOOTER =
    "CAMERA is a handle, an address, a MAC or a part of the description that only one camera has.\n"
    "`kelo COMMAND --help` tells more of each command.";

std::string Version() {
    char text[64] = "";
    int length = sizeof text;
    (void)keloGetInfo("VersionString", text, &length);
    return std::string("kelo ") + text;
}

void AddCommands(CLI::App& app, Context& context) {
    AddListCommand(app, context);
    AddWatchCommand(app, context);
    AddInfoCommand(app, context);
    AddRegistersCommand(app, context);
    AddGetCommand(app, context);
    AddSetCommand(app, context);
    AddMemoryCommand(app, context);
    AddSetIpCommand(app, context);
    AddGrabCommand(app, context);
    AddStatsCommand(app, context);
    AddFirmwareCommand(app, context);
    AddDoctorCommand(app, context);
}

// The library writes to standard output, which is ours: it gets standard error with --log, else
// nothing. What it was is kept as the context's output.
std::FILE* TakeStandardOutput() {
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    return kept < 0 ? nullptr : fdopen(kept, "w");
}

void PointStandardOutput(bool to_error) {
    const int target = to_error ? STDERR_FILENO : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (target < 0) return;
    dup2(target, STDOUT_FILENO);
    if (!to_error) close(target);
}

// "kelo memory read", as far as the command line was understood.
std::string ParsedCommand(const CLI::App& app) {
    std::string text = app.get_name();
    for (const CLI::App* command : app.get_subcommands())
        text += " " + ParsedCommand(*command);
    return text;
}

int RunAction(Context& context) {
    try {
        return context.action();
    } catch (const CommandError& error) {
        return Report(context, error);
    } catch (const std::exception& error) {
        return Report(context, CommandError(EXIT_FAILED, error.what()));
    }
}

// Output that did not arrive (a full disk, a closed pipe) is no success.
int FinishOutput(const Context& context, int exit_code) {
    errno = 0;
    const bool failed = std::fflush(context.out) != 0 || std::ferror(context.out) != 0;
    if (!failed || exit_code != EXIT_OK) return exit_code;
    // Who closes a pipe early has seen enough.
    if (errno == EPIPE) return EXIT_LOCAL;
    const std::string reason = errno != 0 ? std::string(": ") + std::strerror(errno) : "";
    return Report(context, CommandError(EXIT_LOCAL, "the output cannot be written" + reason));
}

int Main(int argc, char** argv) {
    Interrupt interrupt;
    Context context{.err = stderr, .interrupt = interrupt};
    CLI::App app("Finds, reads, sets and watches network industrial cameras.", "kelo");
    app.footer(FOOTER);
    app.set_version_flag("--version", Version(), "Print the version");
    app.require_subcommand(1);
    AddGlobalOptions(app, context);
    AddCommands(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::Error& error) {
        return Report(context, CommandError(EXIT_USAGE, error.what(),
                                            "`" + ParsedCommand(app) + " --help` tells how."));
    }
    context.out = TakeStandardOutput();
    if (context.out == nullptr) {
        return Report(context, CommandError(EXIT_LOCAL, "there is no standard output"));
    }
    PointStandardOutput(context.library_log);
    return FinishOutput(context, RunAction(context));
}

}  // namespace
}  // namespace kelotool

int main(int argc, char** argv) {
    try {
        return kelotool::Main(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "kelo: " << error.what() << '\n';
        return kelotool::EXIT_FAILED;
    }
}
