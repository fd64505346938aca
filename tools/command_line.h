#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/command.h"
#include "tools/status_command.h"
#include "tools/stun_command.h"

struct CommandLine {
  std::string runtimeDir;  // empty: natclient's default
  bool json = false;
  int timeoutMs = 5000;
  bool run = false;
  std::string file;  // of run; empty: standard input
  std::optional<StunCommand> stun;
  std::optional<StatusCommand> status;
  Command command;  // without run, stun and status
};

// Without a value the program ends with `exitCode`; what there was to say has been said.
std::optional<CommandLine> ParseCommandLine(int argc, char** argv, int& exitCode);
