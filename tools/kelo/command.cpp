#include "command.h"

#include <CLI/CLI.hpp>

#include <unistd.h>

#include "json_writer.h"

namespace kelotool {

bool Context::OutIsTerminal() const {
    return isatty(fileno(out)) != 0;
}

void Context::Say(const std::string& text) const {
    std::fprintf(err, "%s\n", text.c_str());
    std::fflush(err);
}

void Context::Warn(const std::string& text) const {
    Say("kelo: warning: " + text);
}

void Context::Print(const JsonWriter& text) const {
    std::fprintf(out, "%s\n", text.Text().c_str());
    std::fflush(out);
}

void AddGlobalOptions(CLI::App& app, Context& context) {
    const char* const group = "Options of every command";
    app.add_flag("--json", context.json, "Print JSON instead of text")->group(group);
    app.add_option("--timeout", context.timeout_ms,
                   "Milliseconds that a search for cameras listens; 500 unless given")
        ->group(group)
        ->type_name("MS")
        ->check(CLI::Range(1, 60000).description(""));
    app.add_flag("--log", context.library_log, "Show the library's log lines on standard error")
        ->group(group);
}

CLI::App& AddCommand(CLI::App& app, Context& context, const CommandText& text,
                     std::function<int()> action) {
    CLI::App* command = app.add_subcommand(text.name, text.description);
    command->footer(std::string("Examples:\n") + text.examples);
    AddGlobalOptions(*command, context);
    command->callback([&context, action = std::move(action)] { context.action = action; });
    return *command;
}

CLI::App& AddGroup(CLI::App& app, const CommandText& text) {
    CLI::App* group = app.add_subcommand(text.name, text.description);
    group->footer(std::string("Examples:\n") + text.examples);
    group->require_subcommand(1);
    return *group;
}

int Report(const Context& context, const CommandError& error) {
    if (!context.json) {
        context.Say(std::string("kelo: ") + error.what());
        if (!error.advice().empty()) context.Say(error.advice());
        return error.code();
    }
    JsonWriter json;
    json.BeginObject();
    json.Member("error", error.what());
    if (!error.advice().empty()) json.Member("advice", error.advice());
    json.Member("exit_code", static_cast<int>(error.code()));
    json.EndObject();
    context.Say(json.Text());
    return error.code();
}

}  // namespace kelotool
