#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/config_errors.h"
#include "host/config_values.h"
#include "host/toml.h"
#include "platform/types.h"

// One table of the configuration, read key by key. A key that is absent leaves its default; one that is wrong is
// reported and leaves its default too, so that every fault of a file is found in one reading.
class ConfigSection {
 public:
  // `name` prefixes the keys in errors. A null table has no keys. Everything given must outlive the section. What each
  // key comes to is appended to `values`, when there are any.
  ConfigSection(const toml::table* table, std::string name, ConfigErrors& errors,
                std::vector<ConfigValue>* values = nullptr)
      : m_table(table), m_name(std::move(name)), m_errors(errors), m_values(values) {}

  void Flag(std::string_view key, u8& value);
  void Port(std::string_view key, u16& value);        // 1..65535
  void PortOrNone(std::string_view key, u16& value);  // 0..65535
  void Number(std::string_view key, u32& value);      // 0..4294967295
  // A dotted quad that can be seen from outside, or 0.0.0.0; to network byte order.
  void PublicAddress(std::string_view key, u32& value);
  void Text(std::string_view key, std::string& value);  // one word: no blanks, no control characters
  const toml::array* Array(std::string_view key);       // null when absent or something else

  // One word, or an array of words.
  void Texts(std::string_view key, std::vector<std::string>& values);

  // A dotted quad, and one that is a mask of leading ones; both stay texts and must be there.
  void IpText(std::string_view key, std::string& value);
  void MaskText(std::string_view key, std::string& value);

  bool Has(std::string_view key) const { return m_table != nullptr && m_table->contains(key); }

  // Reports a fault of the key at the key's line, or at the section's when the key is absent.
  void Refuse(std::string_view key, std::string_view reason);

  // Keeps what the key, which may be absent, comes to; empty: no value. For keys that are read as an array only.
  void Note(std::string_view key, std::string text);

  // Reports every key that none of the calls above has named.
  void RefuseUnknown();

 private:
  const toml::node* Find(std::string_view key);
  bool Integer(std::string_view key, long long least, long long most, long long& value);
  bool String(std::string_view key, std::string& value);
  bool DottedQuad(std::string_view key, std::string& text, u32& address);
  bool Require(std::string_view key);

  const toml::table* m_table;
  std::string m_name;
  ConfigErrors& m_errors;
  std::vector<ConfigValue>* m_values;
  std::set<std::string, std::less<>> m_known;
};

// "an integer", "a table", ... for people.
std::string_view TomlTypeName(toml::node_type type);
