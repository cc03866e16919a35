#pragma once

#include <cstdint>
#include <string>

namespace kelo::test {

// Moves the process (call it before any other thread exists) into a network namespace of its own
// whose loopback interface is up. Where the system refuses, takes a machine-wide lock instead, so
// that tests that need the same ports run one after the other; the lock ends with the process.
// Returns whether there is a private namespace.
bool EnterPrivateNetwork();

// Whether EnterPrivateNetwork gave this process a namespace.
bool InPrivateNetwork();

// Runs "ip ARGUMENTS" and throws if it fails. Only inside a private network.
void Ip(const std::string& arguments);

// a.b.c.d in host order.
constexpr uint32_t Address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}

}  // namespace kelo::test
