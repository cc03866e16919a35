#include "json_writer.h"

#include <cmath>
#include <cstdio>

namespace kelo::bench {

JsonWriter& JsonWriter::Text(std::string_view key, std::string_view value) {
    Key(key);
    Quote(value);
    return *this;
}

JsonWriter& JsonWriter::Number(std::string_view key, double value) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%.9g", value);
    return Raw(key, std::isfinite(value) ? digits : "null");
}

JsonWriter& JsonWriter::Bool(std::string_view key, bool value) {
    return Raw(key, value ? "true" : "false");
}

JsonWriter& JsonWriter::Raw(std::string_view key, std::string_view json) {
    Key(key);
    text_ += json;
    return *this;
}

JsonWriter& JsonWriter::Begin(std::string_view key, char bracket) {
    Key(key);
    text_ += bracket;
    first_ = true;
    return *this;
}

JsonWriter& JsonWriter::End(char bracket) {
    text_ += bracket;
    first_ = false;
    return *this;
}

// An element of an array has none.
void JsonWriter::Key(std::string_view key) {
    if (!first_) text_ += ',';
    first_ = false;
    if (key.empty()) return;
    Quote(key);
    text_ += ':';
}

void JsonWriter::Quote(std::string_view value) {
    text_ += '"';
    for (const char c : value) {
        char escaped[8];
        if (c == '"' || c == '\\') {
            std::snprintf(escaped, sizeof escaped, "\\%c", c);
        } else if (static_cast<unsigned char>(c) < 0x20) {
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
        } else {
            std::snprintf(escaped, sizeof escaped, "%c", c);
        }
        text_ += escaped;
    }
    text_ += '"';
}

}  // namespace kelo::bench
