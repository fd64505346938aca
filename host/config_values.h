#pragma once

#include <string>
#include <string_view>
#include <vector>

// One setting in force.
struct ConfigValue {
  std::string section;
  std::string key;
  std::string text;    // as TOML; empty: there is no value, and the key cannot be written
  std::string origin;  // "default" or "FILE:LINE"
};

// A string as TOML, in ASCII and on one line.
std::string TomlText(const std::string& text);

// The values as a configuration of its own, each with its origin in a comment. Read again it gives the same settings.
std::string RenderConfig(const std::vector<ConfigValue>& values);
