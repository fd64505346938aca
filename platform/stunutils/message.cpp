#include "platform/stunutils/message.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>

namespace stun {
namespace {

// RFC 8489, 18.3, and what RFC 3489, 11.2 had below 0x8000. Those without a use here are understood by ignoring them.
enum Attribute : u16 {
  MAPPED_ADDRESS = 0x0001,
  MESSAGE_INTEGRITY = 0x0008,
  ERROR_CODE = 0x0009,
  REFLECTED_FROM = 0x000B,
  REALM = 0x0014,
  NONCE = 0x0015,
  MESSAGE_INTEGRITY_SHA256 = 0x001C,
  PASSWORD_ALGORITHM = 0x001D,
  USERHASH = 0x001E,
  XOR_MAPPED_ADDRESS = 0x0020,
  COMPREHENSION_OPTIONAL = 0x8000,
};

constexpr u8 kFamilyIpv4 = 0x01;
constexpr std::size_t kAttributeHeader = 4;

u16 Read16(const u8* at) { return static_cast<u16>(at[0] << 8 | at[1]); }
u32 Read32(const u8* at) { return static_cast<u32>(Read16(at)) << 16 | Read16(at + 2); }

u32 ToNetworkOrder(u32 value) {
  const std::array<u8, 4> bytes{static_cast<u8>(value >> 24), static_cast<u8>(value >> 16), static_cast<u8>(value >> 8),
                                static_cast<u8>(value)};
  return std::bit_cast<u32>(bytes);
}

bool Understood(u16 type) {
  return type >= COMPREHENSION_OPTIONAL || (type >= MAPPED_ADDRESS && type <= REFLECTED_FROM) || type == REALM ||
         type == NONCE || (type >= MESSAGE_INTEGRITY_SHA256 && type <= USERHASH) || type == XOR_MAPPED_ADDRESS;
}

// RFC 8489, 14.1 and 14.2. An IPv6 endpoint is none for this client. False when the attribute is malformed.
bool ReadAddress(std::span<const u8> value, bool isXored, std::optional<Endpoint>& endpoint) {
  if (value.size() < 4) {
    return false;
  }
  if (value[1] != kFamilyIpv4) {
    return true;
  }
  if (value.size() != 8) {
    return false;
  }
  const u32 mask = isXored ? kMagicCookie : 0;
  if (!endpoint) {  // the first of several of a kind counts (RFC 8489, 14)
    endpoint = Endpoint{ToNetworkOrder(Read32(value.data() + 4) ^ mask),
                        static_cast<u16>(Read16(value.data() + 2) ^ (mask >> 16))};
  }
  return true;
}

// RFC 8489, 14.8. 0 when the attribute holds no valid code.
u16 ReadErrorCode(std::span<const u8> value) {
  if (value.size() < 4) {
    return 0;
  }
  const unsigned group = value[2] & 0x07;
  const unsigned number = value[3];
  return group >= 3 && group <= 6 && number < 100 ? static_cast<u16>(group * 100 + number) : u16{0};
}

// Not "this network" (0/8), loopback (127/8), multicast, reserved or broadcast (224/3). Private ones may be: the
// server may be behind the same carrier's NAT.
bool CanBeMapped(const Endpoint& endpoint) {
  const u32 first = ntohl(endpoint.address) >> 24;
  return endpoint.port != 0 && first != 0 && first != 127 && first < 224;
}

struct Attributes {
  std::optional<Endpoint> mapped;
  std::optional<Endpoint> xorMapped;
  u16 errorCode = 0;
  bool notUnderstood = false;
};

bool ReadAttributes(std::span<const u8> rest, Attributes& found) {
  bool isSealed =
      false;  // what follows the integrity attributes is not covered by them and is ignored (RFC 8489, 14.5)
  while (!rest.empty()) {
    if (rest.size() < kAttributeHeader) {
      return false;
    }
    const u16 type = Read16(rest.data());
    const std::size_t length = Read16(rest.data() + 2);
    const std::size_t padded = (length + 3) & ~std::size_t{3};
    if (padded > rest.size() - kAttributeHeader) {
      return false;
    }
    const auto value = rest.subspan(kAttributeHeader, length);
    rest = rest.subspan(kAttributeHeader + padded);
    if (isSealed) {
      continue;
    }
    switch (type) {
      case MAPPED_ADDRESS:
        if (!ReadAddress(value, false, found.mapped)) return false;
        break;
      case XOR_MAPPED_ADDRESS:
        if (!ReadAddress(value, true, found.xorMapped)) return false;
        break;
      case ERROR_CODE:
        found.errorCode = ReadErrorCode(value);
        break;
      case MESSAGE_INTEGRITY:
      case MESSAGE_INTEGRITY_SHA256:
        isSealed = true;
        break;
      default:
        found.notUnderstood = found.notUnderstood || !Understood(type);
    }
  }
  return true;
}

}  // namespace

Request BindingRequest(const TransactionId& id) {
  Request request{0x00, 0x01, 0x00, 0x00, 0x21, 0x12, 0xA4, 0x42};
  std::copy(id.begin(), id.end(), request.begin() + 8);
  return request;
}

std::optional<Answer> ParseAnswer(std::span<const u8> datagram) {
  if (datagram.size() < kHeaderSize) {
    return std::nullopt;
  }
  const u16 type = Read16(datagram.data());
  const std::size_t length = Read16(datagram.data() + 2);
  if ((type != kSuccessType && type != kErrorType) || Read32(datagram.data() + 4) != kMagicCookie || length % 4 != 0 ||
      length != datagram.size() - kHeaderSize) {
    return std::nullopt;
  }
  Attributes found;
  if (!ReadAttributes(datagram.subspan(kHeaderSize), found)) {
    return std::nullopt;
  }
  Answer answer;
  std::copy_n(datagram.begin() + 8, answer.id.size(), answer.id.begin());
  if (type == kErrorType) {
    answer.kind = Answer::Kind::REFUSED;
    answer.errorCode = found.errorCode;
    return answer;
  }
  const Endpoint mapped = found.xorMapped.value_or(found.mapped.value_or(Endpoint{}));
  if (CanBeMapped(mapped) && !found.notUnderstood) {
    answer.kind = Answer::Kind::MAPPED;
    answer.mapped = mapped;
  }
  return answer;
}

}  // namespace stun
