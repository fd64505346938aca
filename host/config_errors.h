#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/toml.h"

// What is wrong with a configuration, each as "FILE:LINE: KEY: REASON", in the order of the files and their lines.
class ConfigErrors {
 public:
  explicit ConfigErrors(std::string file) : m_files{std::move(file)} {}

  // The file that is read next, after those before.
  void BeginFile(std::string file) { m_files.push_back(std::move(file)); }

  // About the file begun last. Line 0: about it as a whole, no line is named. An empty key is left out.
  void Add(unsigned line, std::string_view key, std::string_view reason);

  // About a value, wherever it stands.
  void Add(const toml::source_region& where, std::string_view key, std::string_view reason);

  bool Empty() const { return m_errors.empty(); }
  std::vector<std::string> Texts() const;

 private:
  struct Error {
    std::size_t file;
    unsigned line;
    std::string text;
  };
  void Add(std::size_t file, unsigned line, std::string_view key, std::string_view reason);

  std::vector<std::string> m_files;
  std::vector<Error> m_errors;
};
