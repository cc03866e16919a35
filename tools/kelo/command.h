#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

#include "exit_codes.h"
#include "interrupt.h"

namespace CLI {
class App;
}

namespace kelotool {

class JsonWriter;

// What all subcommands share: the global options and where output goes. Made by main(), lives
// longer than every subcommand.
//
// Output goes through `out` and `err`, never through stdout: the library writes marks of its own
// there, which would spoil what a script reads.
struct Context {
    bool json = false;
    uint32_t timeout_ms = 500;  // how long a discovery listens
    bool library_log = false;   // the library's log lines on standard error
    std::FILE* out = nullptr;
    std::FILE* err = nullptr;
    Interrupt& interrupt;

    // Set by the subcommand that the command line names; run after the whole line was read.
    std::function<int()> action;

    bool OutIsTerminal() const;
    // One line to err.
    void Say(const std::string& text) const;
    // The same, as a warning.
    void Warn(const std::string& text) const;
    // One line to out, at once.
    void Print(const JsonWriter& text) const;
};

// Ends a subcommand: what went wrong, what to do next (may be empty) and how the process exits.
class CommandError : public std::runtime_error {
public:
    CommandError(ExitCode code, const std::string& what, std::string advice = {})
        : std::runtime_error(what), code_(code), advice_(std::move(advice)) {}

    ExitCode code() const { return code_; }
    const std::string& advice() const { return advice_; }

private:
    ExitCode code_;
    std::string advice_;
};

// A subcommand's face: its name, one line on what it does, and examples for the end of its help.
struct CommandText {
    const char* name;
    const char* description;
    const char* examples;
};

// Adds a subcommand that knows the global options, too. `action` returns the exit code or throws
// CommandError; it runs after the command line has been read.
CLI::App& AddCommand(CLI::App& app, Context& context, const CommandText& text,
                     std::function<int()> action);
// A subcommand that only groups others (`kelo memory read`).
CLI::App& AddGroup(CLI::App& app, const CommandText& text);
// --json, --timeout and --log.
void AddGlobalOptions(CLI::App& app, Context& context);

// Reports an error as text or, with --json, as an object on err. Returns the exit code.
int Report(const Context& context, const CommandError& error);

}  // namespace kelotool
