#pragma once

#include <unistd.h>

#include <string>

#include "tools/event.h"
#include "tools/terminal.h"

// Where events go: JSON lines all to standard output, plain lines there too, but failures to standard error. Lines are
// gathered until Flush, which comes before every wait, so that a reader has everything while nothing happens.
class Printer {
 public:
  explicit Printer(bool json)
      : m_json(json), m_coloursOut(TakesColours(STDOUT_FILENO)), m_coloursError(TakesColours(STDERR_FILENO)) {}

  void Print(const Event& event);
  // Whole lines that have been put together already, as JSON or plain.
  void Print(const std::string& lines, bool isFailure);
  bool IsJson() const { return m_json; }

  // False when standard output cannot be written; reported once.
  bool Flush();

 private:
  const bool m_json;
  const bool m_coloursOut;
  const bool m_coloursError;
  std::string m_lines;
  bool m_broken = false;
};

// What went wrong with natctl itself, or with its words.
void PrintError(const std::string& text);
