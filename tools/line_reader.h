#pragma once

#include <functional>
#include <optional>
#include <string>

// Lines of a descriptor as they come. The last line counts without a line end too; a byte order mark before the first
// is no part of it.
class LineReader {
 public:
  explicit LineReader(int fd) : m_fd(fd) {}

  // The next line without its end, or nothing at the end of the input. `waitReadable` is called whenever there is no
  // whole line yet. A read that fails ends the input and leaves its errno in Error(), EMSGSIZE for a line beyond 1 MiB.
  std::optional<std::string> Next(const std::function<void()>& waitReadable);

  int Error() const { return m_error; }

 private:
  std::optional<std::string> Read(const std::function<void()>& waitReadable);
  std::optional<std::string> TakeLine();

  const int m_fd;
  std::string m_text;
  std::size_t m_taken = 0;  // how much of the text has been given out
  bool m_begun = false;
  bool m_ended = false;
  int m_error = 0;
};
