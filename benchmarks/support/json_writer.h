#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelo::bench {

// Writes JSON from front to back; the caller balances Begin and End.
class JsonWriter {
public:
    JsonWriter& BeginObject(std::string_view key = {}) { return Begin(key, '{'); }
    JsonWriter& EndObject() { return End('}'); }
    JsonWriter& BeginArray(std::string_view key = {}) { return Begin(key, '['); }
    JsonWriter& EndArray() { return End(']'); }

    JsonWriter& Text(std::string_view key, std::string_view value);
    // Null for a number that is none.
    JsonWriter& Number(std::string_view key, double value);
    JsonWriter& Bool(std::string_view key, bool value);
    // A value that is JSON already.
    JsonWriter& Raw(std::string_view key, std::string_view json);

    const std::string& Result() const { return text_; }

private:
    JsonWriter& Begin(std::string_view key, char bracket);
    JsonWriter& End(char bracket);
    void Key(std::string_view key);
    void Quote(std::string_view value);

    std::string text_;
    bool first_ = true;  // nothing stands yet in the innermost bracket
};

}  // namespace kelo::bench
