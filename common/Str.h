#pragma once

#include <string>

#include "StrArg.h"

// Builds a text piece by piece: Str() + "count " + 3 + " > " + 2. Each append changes the builder
// itself and returns it.
class Str {
public:
    Str() = default;
    explicit Str(const char* text) : storage(text) {}
    explicit Str(std::string text) : storage(std::move(text)) {}

    Str& operator+(const char* text) {
        storage += text;
        return *this;
    }
    Str& operator+(const std::string& text) {
        storage += text;
        return *this;
    }
    Str& operator+(int number) {
        storage += std::to_string(number);
        return *this;
    }
    Str& operator+(unsigned int number) {
        storage += std::to_string(number);
        return *this;
    }

    operator const char*() const { return storage.c_str(); }
    operator StrArg() const { return StrArg(storage); }
    const char* c_str() const { return storage.c_str(); }

private:
    std::string storage;
};
