#include "tools/line_reader.h"

#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace {

// Far longer than the longest command, and short enough to be held.
constexpr std::size_t kLongestLine = 1 << 20;

}  // namespace

std::optional<std::string> LineReader::TakeLine() {
  const std::size_t end = m_text.find('\n', m_taken);
  if (end == std::string::npos) return std::nullopt;
  std::string line = m_text.substr(m_taken, end - m_taken);
  m_taken = end + 1;
  return line;
}

std::optional<std::string> LineReader::Next(const std::function<void()>& waitReadable) {
  std::optional<std::string> line = Read(waitReadable);
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (!std::exchange(m_begun, true) && line && line->starts_with(kByteOrderMark)) line->erase(0, kByteOrderMark.size());
  return line;
}

std::optional<std::string> LineReader::Read(const std::function<void()>& waitReadable) {
  for (;;) {
    if (std::optional<std::string> line = TakeLine()) return line;
    m_text.erase(0, m_taken);
    m_taken = 0;
    if (m_ended) {
      if (m_text.empty()) return std::nullopt;
      return std::exchange(m_text, {});
    }
    if (m_text.size() > kLongestLine) {
      m_error = EMSGSIZE;
      m_ended = true;
      m_text.clear();
      return std::nullopt;
    }
    waitReadable();
    char block[65536];
    const ssize_t length = ::read(m_fd, block, sizeof block);
    if (length > 0) {
      m_text.append(block, static_cast<std::size_t>(length));
    } else if (length == 0) {
      m_ended = true;
    } else if (errno != EINTR && errno != EAGAIN) {
      m_error = errno;
      m_ended = true;
    }
  }
}
