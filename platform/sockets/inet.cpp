#include "platform/sockets/inet.h"

#include <arpa/inet.h>

#include <cstring>

namespace sockets {

static_assert(kNoAddress == INADDR_NONE);

namespace {

// Four decimal numbers without leading zeros, as nearly every address is written; anything else is not for here.
bool ReadPlain(const char* text, u32& address) {
  u8 bytes[4];
  for (int i = 0; i < 4; ++i) {
    unsigned number = 0;
    const char* const begin = text;
    for (; *text >= '0' && *text <= '9' && number <= 255; ++text) {
      number = number * 10 + static_cast<unsigned>(*text - '0');
    }
    const bool isPlain = text != begin && (*begin != '0' || text == begin + 1) && number <= 255;
    if (!isPlain || *text != (i < 3 ? '.' : '\0')) {
      return false;
    }
    ++text;
    bytes[i] = static_cast<u8>(number);
  }
  std::memcpy(&address, bytes, sizeof(address));
  return true;
}

}  // namespace

u32 inet_addr(const char* text) {
  u32 address = kNoAddress;
  if (text == nullptr || ReadPlain(text, address)) {
    return address;
  }
  return ::inet_addr(text);
}

const char* inet_ntoa(u32 address) {
  // Plain bytes: a thread-local object with a destructor would keep the library loaded.
  thread_local char text[sizeof("255.255.255.255")];
  char* end = text;
  const auto* bytes = reinterpret_cast<const u8*>(&address);
  for (int i = 0; i < 4; ++i) {
    const u8 byte = bytes[i];
    if (i != 0) {
      *end++ = '.';
    }
    if (byte >= 100) {
      *end++ = static_cast<char>('0' + byte / 100);
    }
    if (byte >= 10) {
      *end++ = static_cast<char>('0' + byte / 10 % 10);
    }
    *end++ = static_cast<char>('0' + byte % 10);
  }
  *end = '\0';
  return text;
}

}  // namespace sockets
