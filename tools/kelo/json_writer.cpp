#include "json_writer.h"

#include <charconv>
#include <cmath>
#include <type_traits>

#include "text.h"

namespace kelotool {

void JsonWriter::Prefix(std::string_view key) {
    if (!first_) text_ += ',';
    first_ = false;
    if (key.empty()) return;
    AppendString(key);
    text_ += ':';
}

void JsonWriter::Open(std::string_view key, char bracket) {
    Prefix(key);
    text_ += bracket;
    first_ = true;
}

void JsonWriter::Close(char bracket) {
    text_ += bracket;
    first_ = false;
}

void JsonWriter::AppendString(std::string_view value) {
    static const char* const HEX = "0123456789abcdef";
    text_ += '"';
    for (const char character : ValidUtf8(value)) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\') {
            text_ += '\\';
            text_ += character;
        } else if (byte < 0x20 || byte == 0x7F) {
            text_ += "\\u00";
            text_ += HEX[byte >> 4];
            text_ += HEX[byte & 0xF];
        } else {
            text_ += character;
        }
    }
    text_ += '"';
}

template <typename Number>
void JsonWriter::AppendNumber(Number value) {
    if constexpr (std::is_floating_point_v<Number>) {
        if (!std::isfinite(value)) {
            text_ += "null";
            return;
        }
    }
    char buffer[64];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    text_.append(buffer, end);
}

void JsonWriter::Member(std::string_view key, std::string_view value) {
    Prefix(key);
    AppendString(value);
}

void JsonWriter::Member(std::string_view key, bool value) {
    Prefix(key);
    text_ += value ? "true" : "false";
}

void JsonWriter::Member(std::string_view key, int64_t value) {
    Prefix(key);
    AppendNumber(value);
}

void JsonWriter::Member(std::string_view key, uint64_t value) {
    Prefix(key);
    AppendNumber(value);
}

void JsonWriter::Member(std::string_view key, float value) {
    Prefix(key);
    AppendNumber(value);
}

void JsonWriter::Member(std::string_view key, double value) {
    Prefix(key);
    AppendNumber(value);
}

void JsonWriter::NullMember(std::string_view key) {
    Prefix(key);
    text_ += "null";
}

void JsonWriter::Element(std::string_view value) {
    Prefix({});
    AppendString(value);
}

void JsonWriter::Element(uint64_t value) {
    Prefix({});
    AppendNumber(value);
}

void JsonWriter::Element(double value) {
    Prefix({});
    AppendNumber(value);
}

}  // namespace kelotool
