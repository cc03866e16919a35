#pragma once

#include <optional>

// What getsockopt() reports in this executable.
namespace kelo::test {

// Every option is two bytes long.
inline bool shorten_socket_options = false;
// The size of a receive buffer, in place of the true one.
inline std::optional<int> reported_receive_buffer;

}  // namespace kelo::test
