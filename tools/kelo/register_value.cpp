#include "register_value.h"

#include <CLI/CLI.hpp>
#include <bit>
#include <charconv>
#include <cmath>
#include <map>

#include "command.h"
#include "json_writer.h"
#include "register_names.h"
#include "text.h"

namespace kelotool {
namespace {

static_assert(sizeof(float) == sizeof(uint32_t));

std::optional<uint32_t> ParseInteger(const std::string& text) {
    if (const auto number = ParseNumber(text)) return number;
    if (!text.starts_with('-')) return std::nullopt;
    int32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return static_cast<uint32_t>(number);
}

std::optional<uint32_t> ParseFloat(const std::string& text) {
    float number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || text.empty()) return std::nullopt;
    return std::bit_cast<uint32_t>(number);
}

// Decimal digits that are too large for a register are not meant as a float.
bool LooksLikeFloat(const std::string& text) {
    return text.find_first_of(".eEnN") != std::string::npos;
}

}  // namespace

void AddFormatOption(CLI::App& app, std::optional<ValueFormat>& format,
                     const std::string& description) {
    static const std::map<std::string, ValueFormat> FORMATS = {
        {"int", ValueFormat::kInt}, {"hex", ValueFormat::kHex}, {"float", ValueFormat::kFloat}};
    app.add_option("--format", format, description)
        ->type_name("int|hex|float")
        ->transform(CLI::CheckedTransformer(FORMATS).description(""));
}

uint32_t ParseValue(const std::string& text, std::optional<ValueFormat> format) {
    std::optional<uint32_t> value;
    if (format == ValueFormat::kHex && !text.starts_with("0x")) {
        value = ParseNumber("0x" + text);
    } else if (format == ValueFormat::kFloat) {
        value = ParseFloat(text);
    } else {
        value = ParseInteger(text);
        if (!value && !format && LooksLikeFloat(text)) value = ParseFloat(text);
    }
    if (value) return *value;
    throw CommandError(EXIT_USAGE, "\"" + Printable(text) + "\" is no value for a register",
                       "A value is an integer from -2147483648 to 4294967295, 0x and up to eight "
                       "digits, or a number with a point (1.5) as 32-bit float.");
}

float FloatOf(uint32_t bits) {
    return std::bit_cast<float>(bits);
}

std::string ValueText(uint32_t value, ValueFormat format) {
    if (format == ValueFormat::kInt) return std::to_string(value);
    if (format == ValueFormat::kHex) return Format("0x%08x", value);
    char text[64];
    const auto end = std::to_chars(text, text + sizeof text, FloatOf(value)).ptr;
    return std::string(text, end);
}

Table RegisterTable() {
    return Table({{"REGISTER"},
                  {"NUMBER", Table::Align::kRight},
                  {"INTEGER", Table::Align::kRight},
                  {"HEX"},
                  {"FLOAT"}});
}

// Small integers are floats that nobody means.
void AddRegister(Table& table, uint32_t number, uint32_t value) {
    const bool plausible = std::isnormal(FloatOf(value));
    table.AddRow({RegisterText(number), std::to_string(number), ValueText(value, ValueFormat::kInt),
                  ValueText(value, ValueFormat::kHex),
                  plausible ? ValueText(value, ValueFormat::kFloat) : "-"});
}

void WriteValue(JsonWriter& json, uint32_t value) {
    json.Member("integer", value);
    json.Member("hex", ValueText(value, ValueFormat::kHex));
    json.Member("float", FloatOf(value));
}

}  // namespace kelotool
