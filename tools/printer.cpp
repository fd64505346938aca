#include "tools/printer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/terminal.h"

void Printer::Print(const Event& event) {
  const bool isFailure = IsFailure(event.kind);
  Print(m_json ? JsonLine(event) : PlainLines(event, isFailure ? m_coloursError : m_coloursOut), isFailure);
}

void Printer::Print(const std::string& lines, bool isFailure) {
  if (m_json || !isFailure) {
    m_lines += lines;
  } else {
    Flush();
    std::fputs(lines.c_str(), stderr);
  }
}

bool Printer::Flush() {
  if (m_lines.empty()) return !m_broken;
  if (!m_broken &&
      (std::fwrite(m_lines.data(), 1, m_lines.size(), stdout) != m_lines.size() || std::fflush(stdout) != 0)) {
    m_broken = true;
    PrintError(std::string("cannot write: ") + std::strerror(errno));
  }
  m_lines.clear();
  return !m_broken;
}

void PrintError(const std::string& text) { std::fprintf(stderr, "natctl: %s\n", Printable(text).c_str()); }
