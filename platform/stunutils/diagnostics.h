#pragma once

#include <string>
#include <string_view>

#include "platform/types.h"

namespace stun {

// A line in the host's journal while a StunLogger is created; nothing otherwise. Any thread.
void Notice(std::string_view text) noexcept;

// "192.0.2.1", "192.0.2.1:3478".
std::string AddressText(u32 address);
struct Endpoint;
std::string EndpointText(const Endpoint& endpoint);

}  // namespace stun
