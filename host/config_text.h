#pragma once

#include <optional>
#include <string_view>

struct TextFault {
  unsigned line;
  std::string_view reason;  // static text
};

// Finds the first place in a configuration's text that the TOML library cannot be trusted with: it aborts or runs into
// undefined behaviour at some malformed texts, and overflows the stack at deep ones. Without a value the library reads
// or refuses the text by itself. Strings of several lines, which no setting needs, are refused here.
std::optional<TextFault> CheckConfigText(std::string_view text);
