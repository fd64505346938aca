#pragma once

#include "platform/types.h"

namespace sockets {

// What inet_addr gives for a text that is no address, and for 255.255.255.255.
inline constexpr u32 kNoAddress = 0xFFFFFFFF;

// Address of a text in the C library's numbers-and-dots notation, in network byte order; kNoAddress for anything else,
// the empty text included.
u32 inet_addr(const char* text);

// Dotted text of an address in network byte order. It stays valid until the same thread's next conversion.
const char* inet_ntoa(u32 address);

}  // namespace sockets
