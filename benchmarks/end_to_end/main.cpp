// What receiving images through the library costs beside receiving them at all.
//
// A sender on a core of its own sends images to the library's exported functions and to bare loops,
// turn by turn in one run, for each kind of traffic that cameras make. The best of the loops is the
// floor. See ../README.md.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../support/json_writer.h"
#include "row_report.h"
#include "row_runner.h"
#include "rows.h"

namespace {

using namespace kelo::bench;

struct Options {
    RunOptions run;
    bool list = false;
    std::vector<std::string> only;
    std::string json;
};

Options ParseOptions(int argc, char** argv) {
    Options options;
    CLI::App app{"Receives images through the library and through bare loops, turn by turn."};
    app.add_flag("--list", options.list, "names the rows and ends");
    app.add_option("--only", options.only, "a row, or all whose names begin so; may be repeated");
    app.add_option("--rounds", options.run.rounds, "rounds; each has one run per variant")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--seconds", options.run.seconds, "length of a run")
        ->check(CLI::Range(0.01, 1e6))
        ->capture_default_str();
    app.add_option("--hold", options.run.hold_seconds,
                   "seconds for which a rate must hold without a lost packet")
        ->check(CLI::Range(0.01, 1e6))
        ->capture_default_str();
    app.add_option("--json", options.json, "file for the results");
    app.add_option("--sender-core", options.run.cores.sender, "core of the sender")
        ->capture_default_str();
    app.add_option("--receiver-core", options.run.cores.receiver, "core of the receivers")
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return options;
}

// A row is asked for by its name, or by the beginning of several names.
bool Wanted(const Row& row, const std::vector<Row>& rows, const std::vector<std::string>& only) {
    const auto asks_for = [&](const std::string& name) {
        const bool is_a_name = std::any_of(rows.begin(), rows.end(),
                                           [&](const Row& other) { return other.name == name; });
        return is_a_name ? row.name == name : row.name.starts_with(name);
    };
    return only.empty() || std::any_of(only.begin(), only.end(), asks_for);
}

void WriteAll(int fd, const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const ssize_t written = write(fd, text.data() + at, text.size() - at);
        if (written <= 0) return;
        at += static_cast<size_t>(written);
    }
}

std::string ReadAll(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t size = 0; (size = read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(size));
    return text;
}

std::string RunOrSkip(const Row& row, const RunOptions& options) try {
    return RunRow(row, options);
} catch (const std::exception& error) {
    std::printf("\n%s: could not be run: %s\n", row.name.c_str(), error.what());
    return SkippedRowJson(row, error.what());
}

// In a process of its own, because it moves into networks of its own.
std::string RunApart(const Row& row, const RunOptions& options) {
    int ends[2];
    if (pipe(ends) != 0) return SkippedRowJson(row, "no pipe");
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        WriteAll(ends[1], RunOrSkip(row, options));
        std::fflush(nullptr);
        _exit(0);
    }
    close(ends[1]);
    const std::string json = ReadAll(ends[0]);
    close(ends[0]);
    if (child > 0) waitpid(child, nullptr, 0);
    return json.empty() ? SkippedRowJson(row, "its process died") : json;
}

std::string ResultsJson(const RunOptions& options, const std::vector<std::string>& rows) {
    utsname system{};
    uname(&system);
    JsonWriter json;
    json.BeginObject()
        .Text("benchmark", "end_to_end")
        .Text("kernel", std::string(system.sysname) + " " + system.release)
        .Text("architecture", system.machine)
        .Number("rounds", options.rounds)
        .Number("seconds", options.seconds)
        .BeginArray("rows");
    for (const std::string& row : rows)
        json.Raw({}, row);
    return json.EndArray().EndObject().Result();
}

}  // namespace

int main(int argc, char** argv) try {
    const Options options = ParseOptions(argc, argv);
    std::vector<std::string> results;
    const std::vector<Row> rows = AllRows();
    for (const Row& row : rows) {
        if (!Wanted(row, rows, options.only)) continue;
        if (options.list) {
            std::printf("%-24s %s\n", row.name.c_str(), row.title.c_str());
        } else {
            results.push_back(RunApart(row, options.run));
        }
    }
    if (!options.json.empty()) {
        std::ofstream file(options.json);
        file << ResultsJson(options.run, results) << '\n';
        if (!file) throw std::runtime_error("cannot write " + options.json);
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "end_to_end: %s\n", error.what());
    return 1;
}
