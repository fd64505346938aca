#include "agent/faults.h"

#include <cstdio>
#include <exception>

#include "platform/journal.h"

namespace {

// On the stack, as there may be no memory left.
void Report(const char* what, const char* reason) {
  char line[256];
  std::snprintf(line, sizeof line, "%s: %s", what, reason);
  JournalError(line);
}

}  // namespace

void ReportFault(const char* what) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& fault) {
      Report(what, fault.what());
    } catch (...) {
      Report(what, "thrown without a reason");
    }
  } catch (...) {
    return;  // the journal itself has no memory
  }
}
