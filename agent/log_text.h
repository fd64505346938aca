#pragma once

#include <array>
#include <charconv>
#include <cstring>
#include <string>

#include "nat/nat_names.h"
#include "platform/types.h"

// Text of the log, put together by hand: requests are logged on their way through, where printf's formatting would cost
// more than deciding them.

inline constexpr char kRule[] = "--------------------------------------------------\r\n";  // 50 dashes
inline constexpr char kTenBlanks[] = "          ";

inline void AppendNumber(std::string& text, u64 number) {
  char digits[20];
  const auto end = std::to_chars(digits, digits + sizeof(digits), number);
  text.append(digits, end.ptr);
}

// The decimal text of a byte and a full stop.
struct ByteText {
  char text[4];
  u8 length;
};

inline constexpr auto kByteTexts = [] {
  std::array<ByteText, 256> texts{};
  for (unsigned byte = 0; byte < texts.size(); ++byte) {
    ByteText& entry = texts[byte];
    for (unsigned divisor = 100; divisor > 0; divisor /= 10) {
      if (byte >= divisor || divisor == 1) {
        entry.text[entry.length++] = static_cast<char>('0' + byte / divisor % 10);
      }
    }
    entry.text[entry.length++] = '.';
  }
  return texts;
}();

// The dotted text of an address in network byte order, and the character behind it.
inline void AppendIp(std::string& text, u32 address, char end) {
  u8 bytes[sizeof(address)];
  std::memcpy(bytes, &address, sizeof(address));
  char written[4 * sizeof(ByteText::text)];
  char* at = written;
  for (const u8 byte : bytes) {
    std::memcpy(at, kByteTexts[byte].text, sizeof(ByteText::text));
    at += kByteTexts[byte].length;
  }
  at[-1] = end;
  text.append(written, at);
}

// One item of an answer's line of public addresses.
inline void AppendMappedIp(std::string& text, const NatRespItem& item, const char* otherwise) {
  if (item.flag == NATFLAG_MAPPED) {
    AppendIp(text, item.mappedIp, ' ');
  } else {
    text += otherwise;
  }
}
