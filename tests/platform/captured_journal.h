#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>

// What standard error got since the capture began, without the journal's counts of earlier tests' lines.
inline std::string CapturedJournal() {
  std::istringstream captured(testing::internal::GetCapturedStderr());
  std::string kept;
  for (std::string line; std::getline(captured, line);) {
    if (!line.starts_with("journal: ") || line.find(" left out: ") == std::string::npos) {
      kept += line + "\n";
    }
  }
  return kept;
}
