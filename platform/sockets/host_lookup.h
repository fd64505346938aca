#pragma once

#include <chrono>
#include <stop_token>
#include <vector>

#include "platform/types.h"

namespace sockets {

// The IPv4 addresses of a host name in the resolver's order, in network byte order, none twice and never 0.0.0.0; empty
// when it has none or cannot be looked up. Blocks for as long as the system's resolver does, but returns nothing within
// 100 ms once `stop` has been requested or the deadline has passed: the look-up is then abandoned and touches nothing
// of the caller's. Any thread, several at once. Needs no lock of the library loader.
std::vector<u32> LookUpHostAddresses(
    const char* name, const std::stop_token& stop,
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max());

// The first of them, 0 when there is none.
u32 LookUpHost(const char* name, const std::stop_token& stop);

}  // namespace sockets
