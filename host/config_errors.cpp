#include "host/config_errors.h"

#include <algorithm>
#include <tuple>

void ConfigErrors::Add(unsigned line, std::string_view key, std::string_view reason) {
  Add(m_files.size() - 1, line, key, reason);
}

void ConfigErrors::Add(const toml::source_region& where, std::string_view key, std::string_view reason) {
  const auto file = where.path == nullptr ? m_files.begin() : std::find(m_files.begin(), m_files.end(), *where.path);
  Add(file == m_files.end() ? 0 : static_cast<std::size_t>(file - m_files.begin()), where.begin.line, key, reason);
}

void ConfigErrors::Add(std::size_t file, unsigned line, std::string_view key, std::string_view reason) {
  std::string text = m_files[file];
  if (line != 0) text.append(":").append(std::to_string(line));
  text.append(": ");
  if (!key.empty()) text.append(key).append(": ");
  text.append(reason);
  m_errors.push_back({file, line, std::move(text)});
}

std::vector<std::string> ConfigErrors::Texts() const {
  std::vector<Error> sorted = m_errors;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Error& a, const Error& b) { return std::tie(a.file, a.line) < std::tie(b.file, b.line); });
  std::vector<std::string> texts;
  texts.reserve(sorted.size());
  for (Error& error : sorted) texts.push_back(std::move(error.text));
  return texts;
}
