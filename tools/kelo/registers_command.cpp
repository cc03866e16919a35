// kelo registers: every register's name and number. Needs no camera.

#include <CLI/CLI.hpp>

#include "command.h"
#include "commands.h"
#include "json_writer.h"
#include "register_names.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {
    "registers", "List every register's name and number; needs no camera",
    "  kelo registers\n"
    "  kelo registers trigger       (those with \"trigger\" in their name)"};

struct Options {
    std::string part;
};

std::vector<RegisterName> Chosen(const std::string& part) {
    std::vector<RegisterName> chosen;
    for (const RegisterName& entry : RegisterNames()) {
        if (LowerCase(entry.name).find(LowerCase(part)) != std::string::npos)
            chosen.push_back(entry);
    }
    if (!chosen.empty()) return chosen;
    throw CommandError(EXIT_FAILED, "no register has \"" + Printable(part) + "\" in its name",
                       "`kelo registers` lists them all.");
}

void PrintTable(const Context& context, const std::vector<RegisterName>& registers) {
    Table table({{"NUMBER", Table::Align::kRight}, {"HEX", Table::Align::kRight}, {"NAME"}});
    for (const RegisterName& entry : registers)
        table.AddRow({std::to_string(entry.number), Format("0x%x", entry.number), entry.name});
    table.Print(context.out);
}

void PrintJson(const Context& context, const std::vector<RegisterName>& registers) {
    JsonWriter json;
    json.BeginObject();
    json.BeginArray("registers");
    for (const RegisterName& entry : registers) {
        json.BeginObject();
        json.Member("name", entry.name);
        json.Member("number", entry.number);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    context.Print(json);
}

int Registers(const Context& context, const Options& options) {
    const auto registers = Chosen(options.part);
    if (context.json) {
        PrintJson(context, registers);
    } else {
        PrintTable(context, registers);
    }
    return EXIT_OK;
}

}  // namespace

void AddRegistersCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = AddCommand(app, context, TEXT,
                                   [&context, options] { return Registers(context, *options); });
    command.add_option("PART", options->part, "Only names with this part, in any case")
        ->type_name("");
}

}  // namespace kelotool
