#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <tuple>

#include "platform/types.h"

namespace stun {

// A UDP endpoint: the address in network byte order, the port in host order.
struct Endpoint {
  u32 address = 0;
  u16 port = 0;
  bool operator==(const Endpoint&) const = default;
  bool operator<(const Endpoint& other) const { return std::tie(address, port) < std::tie(other.address, other.port); }
  bool Known() const { return address != 0 && port != 0; }
};

using TransactionId = std::array<u8, 12>;

inline constexpr u32 kMagicCookie = 0x2112A442;  // RFC 8489, 5
inline constexpr u16 kSuccessType = 0x0101;
inline constexpr u16 kErrorType = 0x0111;
inline constexpr std::size_t kHeaderSize = 20;

using Request = std::array<u8, kHeaderSize>;

// A Binding request without attributes, which servers of RFC 3489 answer too.
Request BindingRequest(const TransactionId& id);

// A server's answer to a Binding request.
struct Answer {
  enum class Kind {
    MAPPED,    // a usable public endpoint
    UNUSABLE,  // a success without one, or with an attribute that has to be understood and is not
    REFUSED,   // an error response
  };
  Kind kind = Kind::UNUSABLE;
  TransactionId id{};
  Endpoint mapped;    // MAPPED only
  u16 errorCode = 0;  // REFUSED only; 0 when the response names none
};

// An answer that came to a port.
struct Arrival {
  u16 port = 0;
  Endpoint source;
  Answer answer;
};

// Reads a datagram. Nothing when it is no answer to a Binding request or is malformed: as if it had never come.
std::optional<Answer> ParseAnswer(std::span<const u8> datagram);

}  // namespace stun
