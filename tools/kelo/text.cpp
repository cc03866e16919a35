#include "text.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>

namespace kelotool {
namespace {

template <typename Number>
bool ParseWhole(std::string_view text, Number& number, int base) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end && !text.empty();
}

bool IsContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// Length of the valid sequence that the text begins with; 0 when there is none.
size_t SequenceLength(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) return 1;
    const size_t length = first >= 0xC2 && first < 0xE0   ? 2
                          : first >= 0xE0 && first < 0xF0 ? 3
                          : first >= 0xF0 && first < 0xF5 ? 4
                                                          : 0;
    if (length == 0 || text.size() < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if (!IsContinuation(byte(i))) return 0;
    }
    const unsigned char second = byte(1);
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool surrogate = first == 0xED && second >= 0xA0;
    const bool too_large = first == 0xF4 && second >= 0x90;
    return overlong || surrogate || too_large ? 0 : length;
}

// Control characters are below space, delete, and U+0080 to U+009F.
bool IsControl(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (first < 0x20 || first == 0x7F) return true;
    return first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;
}

std::string Cleaned(std::string_view text, bool replace_controls) {
    std::string cleaned;
    while (!text.empty()) {
        const size_t length = SequenceLength(text);
        if (length == 0) {
            cleaned += "\xEF\xBF\xBD";
        } else if (replace_controls && IsControl(text.substr(0, length))) {
            cleaned += '?';
        } else {
            cleaned += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return cleaned;
}

}  // namespace

std::string Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string AddressText(uint32_t address) {
    return Format("%u.%u.%u.%u", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF,
                  address & 0xFF);
}

std::string MacText(const uint8_t mac[6]) {
    return Format("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::string HandleText(uint32_t handle) {
    return Format("0x%08x", handle);
}

std::optional<uint32_t> ParseAddress(std::string_view text) {
    uint32_t address = 0;
    for (int part = 0; part < 4; ++part) {
        const size_t length = part < 3 ? text.find('.') : text.size();
        if (length == std::string_view::npos || length > 3) return std::nullopt;
        uint32_t number = 0;
        if (!ParseWhole(text.substr(0, length), number, 10) || number > 255) return std::nullopt;
        address = address << 8 | number;
        text.remove_prefix(std::min(length + 1, text.size()));
    }
    return address;
}

std::optional<std::array<uint8_t, 6>> ParseMac(std::string_view text) {
    if (text.size() != 17) return std::nullopt;
    std::array<uint8_t, 6> mac{};
    for (size_t i = 0; i < mac.size(); ++i) {
        if (!ParseWhole(text.substr(i * 3, 2), mac[i], 16)) return std::nullopt;
        if (i < 5 && text[i * 3 + 2] != ':' && text[i * 3 + 2] != '-') return std::nullopt;
    }
    return mac;
}

std::optional<uint32_t> ParseNumber(std::string_view text) {
    uint32_t number = 0;
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (!ParseWhole(hex ? text.substr(2) : text, number, hex ? 16 : 10)) return std::nullopt;
    return number;
}

std::string ValidUtf8(std::string_view text) {
    return Cleaned(text, false);
}

std::string Printable(std::string_view text) {
    return Cleaned(text, true);
}

std::string LowerCase(std::string_view text) {
    std::string lower(text);
    for (char& character : lower) {
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character + 32);
    }
    return lower;
}

}  // namespace kelotool
