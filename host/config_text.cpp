#include "host/config_text.h"

#include <string>

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t";
constexpr std::size_t kMaxDepth = 16;  // of brackets, and of the parts of a dotted key; the configuration needs 3

bool IsKeyStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
         c == '"' || c == '\'';
}

// Checks one line after the other, up to the line's comment.
class LineCheck {
 public:
  // Returns an empty text, or why the line is refused.
  std::string_view Check(std::string_view line);

 private:
  static bool IsHeaderWithoutName(std::string_view line);
  std::string_view CheckSign(char c);
  std::string_view Open(char close);
  std::string_view Close(char close);

  std::string m_open;      // the brackets that are still to be closed, the innermost last
  std::size_t m_dots = 0;  // in the key at hand
};

std::string_view LineCheck::Check(std::string_view line) {
  if (m_open.empty() && IsHeaderWithoutName(line)) {
    return "the name of a table must begin with a letter, a digit, '_', '-' or a quote";
  }
  m_dots = 0;
  char quote = 0;  // of the string at hand
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (quote == 0 && c == '#') {
      return {};
    }
    if (static_cast<unsigned char>(c) >= 0x80) {
      return "only comments may have characters beyond ASCII; a string can name them as \\uXXXX";
    }
    if (quote == 0 && (c == '"' || c == '\'')) {
      if (line.substr(at + 1, 2) == std::string(2, c)) {
        return "strings of several lines are not supported";
      }
      quote = c;
    } else if (c == quote) {
      quote = 0;
    } else if (quote == '"' && c == '\\') {
      ++at;
    } else if (quote == 0) {
      const std::string_view fault = CheckSign(c);
      if (!fault.empty()) {
        return fault;
      }
    }
  }
  return {};  // the library refuses a string that its line leaves open
}

bool LineCheck::IsHeaderWithoutName(std::string_view line) {
  std::size_t at = line.find_first_not_of(kBlanks);
  if (at == std::string_view::npos || line[at] != '[') {
    return false;
  }
  at = line.find_first_not_of(kBlanks, at + (line.substr(at, 2) == "[[" ? 2 : 1));
  return at == std::string_view::npos || !IsKeyStart(line[at]);
}

std::string_view LineCheck::CheckSign(char c) {
  switch (c) {
    case '[':
      return Open(']');
    case '{':
      return Open('}');
    case ']':
    case '}':
      return Close(c);
    case '=':
    case ',':
      m_dots = 0;
      return {};
    case '.':
      return ++m_dots > kMaxDepth ? "the key has too many parts" : "";
    case ':':
      return "':' has no place here: '=' joins a key and its value, and dates and times are not supported";
    default:
      return {};
  }
}

std::string_view LineCheck::Open(char close) {
  m_dots = 0;
  m_open += close;
  return m_open.size() > kMaxDepth ? "nested too deeply" : "";
}

std::string_view LineCheck::Close(char close) {
  if (m_open.empty() || m_open.back() != close) {
    return close == ']' ? "']' closes nothing" : "'}' closes nothing";
  }
  m_open.pop_back();
  return {};
}

}  // namespace

std::optional<TextFault> CheckConfigText(std::string_view text) {
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  LineCheck check;
  for (unsigned line = 1; !text.empty(); ++line) {
    const std::size_t length = text.find('\n');
    const std::string_view reason = check.Check(text.substr(0, length));
    if (!reason.empty()) {
      return TextFault{line, reason};
    }
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
  }
  return std::nullopt;
}
