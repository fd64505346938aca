#include "host/exclusions_section.h"

#include <arpa/inet.h>

#include <charconv>
#include <optional>

namespace {

// "10.0.0.0/8" as the address and the mask that the agent takes.
std::optional<NatExcRuleText> ParseNetwork(const std::string& text) {
  const std::size_t slash = text.find('/');
  const std::string address = text.substr(0, slash);
  in_addr parsed{};
  if (slash == std::string::npos || address.find('\0') != std::string::npos ||
      ::inet_pton(AF_INET, address.c_str(), &parsed) != 1) {
    return std::nullopt;
  }
  unsigned bits = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data() + slash + 1, end, bits);
  if (error != std::errc() || rest != end || bits > 32) {
    return std::nullopt;
  }
  const in_addr mask{htonl(bits == 0 ? 0 : ~u32{0} << (32 - bits))};
  char maskText[INET_ADDRSTRLEN];
  return NatExcRuleText{address, ::inet_ntop(AF_INET, &mask, maskText, sizeof maskText)};
}

std::string TomlRule(const NatExcRuleText& rule) {
  return "{ ip = " + TomlText(rule.ipText) + ", mask = " + TomlText(rule.maskText) + " }";
}

}  // namespace

void ReadExclusions(ConfigSection& section, NatConfig& nat, ConfigErrors& errors) {
  const toml::array* rules = section.Array("exclusions");
  std::string text;
  for (std::size_t index = 0; rules != nullptr && index < rules->size(); ++index) {
    const toml::node& node = (*rules)[index];
    const std::string name = "nat.exclusions[" + std::to_string(index) + "]";
    NatExcRuleText rule;
    if (const auto* network = node.as_string()) {
      const auto parsed = ParseNetwork(network->get());
      if (!parsed) {
        errors.Add(node.source(), name, "\"" + network->get() + "\" is not ADDRESS/BITS, as \"10.0.0.0/8\"");
        continue;
      }
      rule = *parsed;
    } else if (node.is_table()) {
      ConfigSection table(node.as_table(), name, errors);
      table.IpText("ip", rule.ipText);
      table.MaskText("mask", rule.maskText);
      table.RefuseUnknown();
    } else {
      errors.Add(node.source(), name,
                 "must be \"ADDRESS/BITS\" or a table, is " + std::string(TomlTypeName(node.type())));
      continue;
    }
    text.append(text.empty() ? "" : ", ").append(TomlRule(rule));
    nat.natExclusions.push_back(std::move(rule));
  }
  section.Note("exclusions", "[" + text + "]");
}
