#include "platform/journal.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

// The number is the priority that systemd reads at the beginning of a line.
void WriteLine(std::string_view priority, std::string_view text) {
  std::string line;
  line.reserve(priority.size() + text.size() + 1);
  line.append(priority).append(text).append("\n");
  // Nobody is left to tell when standard error is gone.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

std::string_view Priority(std::string_view journalPriority) {
  static const bool underJournal = ::getenv("JOURNAL_STREAM") != nullptr;
  return underJournal ? journalPriority : std::string_view("");
}

}  // namespace

void JournalNotice(std::string_view text) { WriteLine(Priority("<5>"), text); }
void JournalError(std::string_view text) { WriteLine(Priority("<3>"), text); }
