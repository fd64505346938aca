#include "host/config_section.h"

#include <arpa/inet.h>

#include <algorithm>

#include "platform/did_you_mean.h"

namespace {

bool IsWord(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > ' ' && c != 0x7f; });
}

bool IsMask(u32 networkOrder) {
  const u32 zeros = ~ntohl(networkOrder);
  return (zeros & (zeros + 1)) == 0;  // ones at the lower end only
}

// 0.0.0.0 says that there is none. Not of a host are the rest of 0/8, 127/8, and 224/3 (RFC 6890, section 2.2.2).
bool IsPublicSide(u32 networkOrder) {
  const u32 first = ntohl(networkOrder) >> 24;
  return networkOrder == 0 || (first != 0 && first != 127 && first < 224);
}

}  // namespace

std::string_view TomlTypeName(toml::node_type type) {
  switch (type) {
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "an array";
    case toml::node_type::string:
      return "a string";
    case toml::node_type::integer:
      return "an integer";
    case toml::node_type::floating_point:
      return "a floating-point number";
    case toml::node_type::boolean:
      return "a boolean";
    case toml::node_type::none:
      return "nothing";
    default:
      return "a date or time";
  }
}

const toml::node* ConfigSection::Find(std::string_view key) {
  m_known.emplace(key);
  return m_table == nullptr ? nullptr : m_table->get(key);
}

void ConfigSection::Refuse(std::string_view key, std::string_view reason) {
  const toml::node* node = m_table == nullptr ? nullptr : m_table->get(key);
  if (node == nullptr) node = m_table;
  m_errors.Add(node == nullptr ? toml::source_region() : node->source(), m_name + "." + std::string(key), reason);
}

void ConfigSection::Note(std::string_view key, std::string text) {
  if (m_values == nullptr) {
    return;
  }
  const toml::node* node = m_table == nullptr ? nullptr : m_table->get(key);
  std::string origin = "default";
  if (node != nullptr && node->source().path != nullptr) {
    origin = *node->source().path + ":" + std::to_string(node->source().begin.line);
  }
  m_values->push_back({m_name, std::string(key), std::move(text), std::move(origin)});
}

void ConfigSection::RefuseUnknown() {
  if (m_table == nullptr) return;
  const std::vector<std::string_view> known(m_known.begin(), m_known.end());
  for (const auto& [key, node] : *m_table) {
    if (!m_known.contains(key.str())) {
      m_errors.Add(key.source(), m_name + "." + std::string(key.str()), "unknown key" + DidYouMean(key.str(), known));
    }
  }
}

bool ConfigSection::Integer(std::string_view key, long long least, long long most, long long& value) {
  const toml::node* node = Find(key);
  if (node == nullptr) return false;
  const auto integer = node->value_exact<std::int64_t>();
  if (!integer) {
    Refuse(key, "must be an integer, is " + std::string(TomlTypeName(node->type())));
    return false;
  }
  if (*integer < least || *integer > most) {
    Refuse(key, std::to_string(*integer) + " is not in " + std::to_string(least) + ".." + std::to_string(most));
    return false;
  }
  value = *integer;
  return true;
}

void ConfigSection::Flag(std::string_view key, u8& value) {
  if (const toml::node* node = Find(key)) {
    const auto flag = node->value_exact<bool>();
    if (!flag) return Refuse(key, "must be true or false, is " + std::string(TomlTypeName(node->type())));
    value = *flag ? 1 : 0;
  }
  Note(key, value != 0 ? "true" : "false");
}

void ConfigSection::Port(std::string_view key, u16& value) {
  long long number = 0;
  if (Integer(key, 1, 65535, number)) value = static_cast<u16>(number);
  Note(key, std::to_string(value));
}

void ConfigSection::PortOrNone(std::string_view key, u16& value) {
  long long number = 0;
  if (Integer(key, 0, 65535, number)) value = static_cast<u16>(number);
  Note(key, std::to_string(value));
}

void ConfigSection::Number(std::string_view key, u32& value) {
  long long number = 0;
  if (Integer(key, 0, 0xFFFFFFFFLL, number)) value = static_cast<u32>(number);
  Note(key, std::to_string(value));
}

bool ConfigSection::String(std::string_view key, std::string& value) {
  const toml::node* node = Find(key);
  if (node == nullptr) return false;
  const auto* text = node->as_string();
  if (text == nullptr) {
    Refuse(key, "must be a string, is " + std::string(TomlTypeName(node->type())));
    return false;
  }
  value = text->get();
  return true;
}

void ConfigSection::Text(std::string_view key, std::string& value) {
  std::string text;
  if (String(key, text)) {
    if (!IsWord(text)) return Refuse(key, "must not contain blanks or control characters");
    value = std::move(text);
  }
  Note(key, TomlText(value));
}

void ConfigSection::Texts(std::string_view key, std::vector<std::string>& values) {
  const toml::node* node = Find(key);
  std::vector<const toml::node*> entries;
  if (node != nullptr && node->as_array() == nullptr) {
    entries.push_back(node);
  } else if (node != nullptr) {
    for (const toml::node& entry : *node->as_array()) {
      entries.push_back(&entry);
    }
  }
  std::string noted;
  for (const toml::node* entry : entries) {
    const auto* text = entry->as_string();
    if (text == nullptr) {
      return Refuse(key, "must be a string or an array of strings, has " + std::string(TomlTypeName(entry->type())));
    }
    if (!IsWord(text->get())) {
      return Refuse(key, "must not contain blanks or control characters");
    }
    values.push_back(text->get());
    noted.append(noted.empty() ? "" : ", ").append(TomlText(text->get()));
  }
  Note(key, "[" + noted + "]");
}

bool ConfigSection::DottedQuad(std::string_view key, std::string& text, u32& address) {
  if (!String(key, text)) return false;
  in_addr parsed{};
  if (text.find('\0') != std::string::npos || ::inet_pton(AF_INET, text.c_str(), &parsed) != 1) {
    const bool hasPort = ::inet_pton(AF_INET, text.substr(0, text.find(':')).c_str(), &parsed) == 1;
    Refuse(key, "\"" + text + "\" is not a dotted IPv4 address" + (hasPort ? ": a port has a key of its own" : ""));
    return false;
  }
  address = parsed.s_addr;
  return true;
}

void ConfigSection::PublicAddress(std::string_view key, u32& value) {
  std::string text = "0.0.0.0";
  u32 address = 0;
  if (DottedQuad(key, text, address)) {
    if (!IsPublicSide(address)) return Refuse(key, "\"" + text + "\" cannot be an address that others see");
    value = address;
  }
  Note(key, TomlText(text));
}

bool ConfigSection::Require(std::string_view key) {
  if (Has(key)) return true;
  Find(key);
  Refuse(key, "is missing");
  return false;
}

void ConfigSection::IpText(std::string_view key, std::string& value) {
  std::string text;
  u32 address = 0;
  if (Require(key) && DottedQuad(key, text, address)) value = std::move(text);
}

void ConfigSection::MaskText(std::string_view key, std::string& value) {
  std::string text;
  u32 mask = 0;
  if (!Require(key) || !DottedQuad(key, text, mask)) return;
  if (!IsMask(mask)) return Refuse(key, "\"" + text + "\" is not a mask: its ones are not contiguous");
  value = std::move(text);
}

const toml::array* ConfigSection::Array(std::string_view key) {
  const toml::node* node = Find(key);
  if (node == nullptr) return nullptr;
  if (node->as_array() == nullptr) Refuse(key, "must be an array, is " + std::string(TomlTypeName(node->type())));
  return node->as_array();
}
