#pragma once

#include <charconv>
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

inline void AppendIp(std::string& text, u32 address) { text += IpToString(address); }

// One item of an answer's line of public addresses.
inline void AppendMappedIp(std::string& text, const NatRespItem& item, const char* otherwise) {
  if (item.flag == NATFLAG_MAPPED) {
    AppendIp(text, item.mappedIp);
    text += ' ';
  } else {
    text += otherwise;
  }
}
