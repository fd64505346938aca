#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

// What standard error got since the capture began, without the journal's counts of earlier tests' lines.
inline std::string CapturedJournal() {
  return std::regex_replace(testing::internal::GetCapturedStderr(), std::regex("journal: [^\n]* left out[^\n]*\n"), "");
}
