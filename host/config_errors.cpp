#include "host/config_errors.h"

#include <algorithm>

void ConfigErrors::Add(unsigned line, std::string_view key, std::string_view reason) {
  std::string text = m_file;
  if (line != 0) text.append(":").append(std::to_string(line));
  text.append(": ");
  if (!key.empty()) text.append(key).append(": ");
  text.append(reason);
  m_errors.push_back({line, std::move(text)});
}

std::vector<std::string> ConfigErrors::Texts() const {
  std::vector<Error> sorted = m_errors;
  std::stable_sort(sorted.begin(), sorted.end(), [](const Error& a, const Error& b) { return a.line < b.line; });
  std::vector<std::string> texts;
  texts.reserve(sorted.size());
  for (Error& error : sorted) texts.push_back(std::move(error.text));
  return texts;
}
