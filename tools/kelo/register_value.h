#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "table.h"

namespace CLI {
class App;
}

namespace kelotool {

class JsonWriter;

// How a register's 32 bits are written. Not given: in every way that tells something when printed,
// by its looks when read.
enum class ValueFormat { kInt, kHex, kFloat };

// --format int|hex|float
void AddFormatOption(CLI::App& app, std::optional<ValueFormat>& format,
                     const std::string& description);

// Integers from -2^31 to 2^32-1, 0x..., or a number with a point or an exponent, whose bits are
// those of an IEEE single. With kFloat every number is one. Throws CommandError.
uint32_t ParseValue(const std::string& text, std::optional<ValueFormat> format);

std::string ValueText(uint32_t value, ValueFormat format);
// A table of registers, and what is to be known of one.
Table RegisterTable();
void AddRegister(Table& table, uint32_t number, uint32_t value);
// "integer", "hex" and "float".
void WriteValue(JsonWriter& json, uint32_t value);

float FloatOf(uint32_t bits);

}  // namespace kelotool
