#include "tools/terminal.h"

#include <unistd.h>

#include <cstdlib>

namespace {

std::string_view Environment(const char* name) {
  const char* value = ::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

}  // namespace

std::string Printable(std::string_view text, std::string_view also) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte < 0x7F && also.find(c) == std::string_view::npos) {
      printable += c;
    } else {
      printable.append("\\x").append({kDigits[byte >> 4], kDigits[byte & 15]});
    }
  }
  return printable;
}

std::string Coloured(std::string text, Colour colour, bool isOn) {
  constexpr const char* kCodes[] = {"", "\x1B[32m", "\x1B[33m", "\x1B[31m"};
  return isOn && colour != Colour::NONE ? kCodes[static_cast<int>(colour)] + std::move(text) + "\x1B[0m" : text;
}

bool TakesColours(int fd) {
  return Environment("NO_COLOR").empty() && Environment("TERM") != "dumb" && ::isatty(fd) == 1;
}
