#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelotool {

// As printf.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

std::string AddressText(uint32_t address);
std::string MacText(const uint8_t mac[6]);
std::string HandleText(uint32_t handle);  // 0x and eight digits

// Null for anything but four decimal numbers up to 255.
std::optional<uint32_t> ParseAddress(std::string_view text);
// aa:bb:cc:dd:ee:ff or with hyphens.
std::optional<std::array<uint8_t, 6>> ParseMac(std::string_view text);
// Decimal, or hexadecimal behind 0x; the whole text.
std::optional<uint32_t> ParseNumber(std::string_view text);

// What is not valid UTF-8 becomes U+FFFD.
std::string ValidUtf8(std::string_view text);
// For a terminal: valid UTF-8, and control characters, with which a camera's description could take
// the terminal over, become '?'.
std::string Printable(std::string_view text);

std::string LowerCase(std::string_view text);

}  // namespace kelotool
