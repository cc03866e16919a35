#include "register_names.h"

#include <algorithm>
#include <string_view>

#include "command.h"
#include "kelo_registers.h"
#include "text.h"

namespace kelotool {
namespace {

// {"REG_WIDTH", REG_WIDTH}, and so on, made from the header when the build is configured.
constexpr RegisterName NAMES[] = {
#include "register_names.inc"
};

std::string WithoutPrefix(std::string_view name) {
    const std::string lower = LowerCase(name);
    return lower.starts_with("reg_") ? lower.substr(4) : lower;
}

// How many characters have to be changed, put in or taken out to make one of the other.
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

std::string NamesLike(const std::string& text) {
    constexpr size_t DISTANCE_MAX = 2;
    constexpr size_t SUGGESTIONS_MAX = 8;
    const std::string wanted = WithoutPrefix(text).substr(0, 64);
    std::string names;
    size_t count = 0;
    for (const RegisterName& entry : NAMES) {
        const std::string name = WithoutPrefix(entry.name);
        const bool part = wanted.size() >= 3 && name.find(wanted) != std::string::npos;
        if (!part && Distance(name, wanted) > DISTANCE_MAX) continue;
        if (++count > SUGGESTIONS_MAX) return names + ", ...";
        names += (names.empty() ? "" : ", ") + std::string(entry.name);
    }
    return names;
}

}  // namespace

std::span<const RegisterName> RegisterNames() {
    return NAMES;
}

uint32_t ParseRegister(const std::string& text) {
    if (const auto number = ParseNumber(text)) return *number;
    const std::string wanted = WithoutPrefix(text);
    for (const RegisterName& entry : NAMES) {
        if (WithoutPrefix(entry.name) == wanted) return entry.number;
    }
    const std::string like = NamesLike(text);
    throw CommandError(EXIT_USAGE, "there is no register \"" + Printable(text) + "\"",
                       like.empty() ? "`kelo registers` lists them all; a number will do, too."
                                    : "Like it: " + like + ".");
}

std::string NamesOf(uint32_t number) {
    std::string names;
    for (const RegisterName& entry : NAMES) {
        if (entry.number != number) continue;
        if (!names.empty()) names += '/';
        names += entry.name;
    }
    return names;
}

std::string RegisterText(uint32_t number) {
    const std::string names = NamesOf(number);
    return names.empty() ? "register " + std::to_string(number) : names;
}

}  // namespace kelotool
