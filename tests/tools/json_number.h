#pragma once

#include <cstdlib>
#include <string>

namespace kelo::test {

// The value of the first member of that name, which is a number; -1 when there is none.
inline double JsonNumber(const std::string& json, const std::string& key) {
    const std::string quoted = "\"" + key + "\":";
    const size_t found = json.find(quoted);
    return found == std::string::npos ? -1 : std::strtod(&json[found + quoted.size()], nullptr);
}

}  // namespace kelo::test
