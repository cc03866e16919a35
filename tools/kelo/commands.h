#pragma once

namespace CLI {
class App;
}

namespace kelotool {

struct Context;

// One function per subcommand, each in a file of its own. main() calls them in the order of the
// help.
void AddListCommand(CLI::App& app, Context& context);
void AddWatchCommand(CLI::App& app, Context& context);
void AddInfoCommand(CLI::App& app, Context& context);
void AddRegistersCommand(CLI::App& app, Context& context);
void AddGetCommand(CLI::App& app, Context& context);
void AddSetCommand(CLI::App& app, Context& context);
void AddMemoryCommand(CLI::App& app, Context& context);
void AddSetIpCommand(CLI::App& app, Context& context);
void AddGrabCommand(CLI::App& app, Context& context);
void AddStatsCommand(CLI::App& app, Context& context);
void AddFirmwareCommand(CLI::App& app, Context& context);
void AddDoctorCommand(CLI::App& app, Context& context);

}  // namespace kelotool
