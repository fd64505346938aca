#pragma once

#include <optional>
#include <string>

#include "tools/command.h"
#include "tools/status_command.h"
#include "tools/timeouts.h"

// Named apart from natagentd's: one test program links both.
struct NatctlLine {
  std::string runtimeDir;  // empty: natclient's default
  bool json = false;
  Timeouts timeouts;
  Command command;                      // any but HELP
  std::optional<StatusCommand> status;  // STATUS
};

// Options may stand anywhere; behind `--` every word is the command's. Without a value the program ends with
// `exitCode`; what there was to say has been said.
std::optional<NatctlLine> ParseNatctlLine(int argc, char** argv, int& exitCode);
