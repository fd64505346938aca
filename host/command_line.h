#pragma once

#include <optional>
#include <string>

#include "host/runtime_dirs.h"

struct CommandLine {
  std::string config;    // empty: the file of kDefaultConfig when it exists, else the built-in settings
  RuntimeDirs dirs;      // empty: as ResolveDirs
  std::string stateDir;  // empty: as LastGoodConfig
  bool check = false;
  bool printConfig = false;
};

inline constexpr const char* kDefaultConfig = "/etc/natagent/natagentd.toml";

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the agent cannot run
inline constexpr int kExitUsage = 2;   // wrong words, or a wrong configuration

// Without a value the program ends with `exitCode`; what there was to say has been said.
std::optional<CommandLine> ParseCommandLine(int argc, char** argv, int& exitCode);
