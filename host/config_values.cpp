#include "host/config_values.h"

#include <algorithm>
#include <sstream>

#include "host/toml.h"

namespace {

constexpr std::size_t kOriginColumn = 40;

// A file's name may hold anything; a comment may not.
std::string Comment(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return "# " + text;
}

}  // namespace

std::string TomlText(const std::string& text) {
  std::ostringstream out;
  out << toml::toml_formatter(toml::value<std::string>(text), toml::format_flags::none);
  return out.str();
}

std::string RenderConfig(const std::vector<ConfigValue>& values) {
  std::string text;
  std::string_view section;
  for (const ConfigValue& value : values) {
    if (value.section != section) {
      section = value.section;
      text.append(text.empty() ? "[" : "\n[").append(section).append("]\n");
    }
    std::string line = value.text.empty() ? "# " + value.key + ": not set" : value.key + " = " + value.text;
    line.resize(std::max(line.size() + 1, kOriginColumn), ' ');
    text.append(line).append(Comment(value.origin)).append("\n");
  }
  return text;
}
