#pragma once

#include <string>
#include <string_view>
#include <vector>

// What is wrong with one configuration file, each as "FILE:LINE: KEY: REASON", in the order of the lines.
class ConfigErrors {
 public:
  explicit ConfigErrors(std::string file) : m_file(std::move(file)) {}

  // Line 0: about the file as a whole, no line is named. An empty key is left out.
  void Add(unsigned line, std::string_view key, std::string_view reason);

  bool Empty() const { return m_errors.empty(); }
  std::vector<std::string> Texts() const;

 private:
  struct Error {
    unsigned line;
    std::string text;
  };
  std::string m_file;
  std::vector<Error> m_errors;
};
