#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelotool {

struct RegisterName {
    const char* name;
    uint32_t number;
};

// Every name that kelo_registers.h knows, in its order. Some numbers have two.
std::span<const RegisterName> RegisterNames();

// A name (in any case, REG_ may be left out), a number or 0x... Throws CommandError for anything
// else, with names that are like it.
uint32_t ParseRegister(const std::string& text);
// The names of a number, joined by '/'; empty when it has none.
std::string NamesOf(uint32_t number);
// Its names, or its number.
std::string RegisterText(uint32_t number);

}  // namespace kelotool
