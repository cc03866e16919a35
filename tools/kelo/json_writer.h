#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelotool {

// Writes one JSON text on one line. The caller nests properly; commas and escapes are put in here.
// Text that is not UTF-8 becomes it: what is not valid is replaced.
class JsonWriter {
public:
    void BeginObject(std::string_view key = {}) { Open(key, '{'); }
    void EndObject() { Close('}'); }
    void BeginArray(std::string_view key = {}) { Open(key, '['); }
    void EndArray() { Close(']'); }

    void Member(std::string_view key, std::string_view value);
    void Member(std::string_view key, const char* value) { Member(key, std::string_view(value)); }
    void Member(std::string_view key, const std::string& value) {
        Member(key, std::string_view(value));
    }
    void Member(std::string_view key, bool value);
    void Member(std::string_view key, int value) { Member(key, static_cast<int64_t>(value)); }
    void Member(std::string_view key, unsigned value) { Member(key, static_cast<uint64_t>(value)); }
    void Member(std::string_view key, int64_t value);
    void Member(std::string_view key, uint64_t value);
    void Member(std::string_view key, float value);   // the shortest text that reads back the same
    void Member(std::string_view key, double value);  // infinity and not-a-number become null
    void NullMember(std::string_view key);

    // Elements of arrays.
    void Element(std::string_view value);
    void Element(uint64_t value);
    void Element(double value);

    const std::string& Text() const { return text_; }

private:
    void Prefix(std::string_view key);
    void Open(std::string_view key, char bracket);
    void Close(char bracket);
    void AppendString(std::string_view value);
    template <typename Number>
    void AppendNumber(Number value);

    std::string text_;
    bool first_ = true;
};

}  // namespace kelotool
