#include "platform/sockets/inet.h"

#include <arpa/inet.h>

namespace sockets {

static_assert(kNoAddress == INADDR_NONE);

u32 inet_addr(const char* text) { return text == nullptr ? kNoAddress : ::inet_addr(text); }

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
