#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <system_error>

#include "host/command_line.h"
#include "host/daemon.h"
#include "platform/journal.h"
#include "platform/standard_descriptors.h"

namespace {

int Print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return kExitOk;
  JournalError(std::string("natagentd: cannot write: ") + std::strerror(errno));
  return kExitFailed;
}

// What --check and --print-config print of a configuration that is right.
std::string Describe(const LoadedConfig& config, bool isPrinted) {
  if (isPrinted) {
    return RenderConfig(config.values);
  }
  std::string text;
  for (const std::string& file : config.files) {
    text += file + ": ok\n";
  }
  return text.empty() ? "built-in settings: ok\n" : text;
}

int Main(int argc, char** argv, const sigset_t& signals) {
  int exitCode = kExitOk;
  std::optional<CommandLine> commandLine = ParseCommandLine(argc, argv, exitCode);
  if (!commandLine) return exitCode;

  if (commandLine->check || commandLine->printConfig) {
    const std::optional<LoadedConfig> config = LoadConfig(commandLine->config, kNamesWithin, exitCode);
    return config ? Print(Describe(*config, commandLine->printConfig)) : exitCode;
  }
  LastGoodConfig lastGood(commandLine->stateDir);
  std::optional<LoadedConfig> config = LoadConfigAtStart(commandLine->config, lastGood, exitCode);
  if (!config) {
    return exitCode;
  }
  return Daemon(signals, ResolveDirs(commandLine->dirs), commandLine->config, std::move(*config), lastGood).Run();
}

}  // namespace

int main(int argc, char** argv) {
  const sigset_t signals = TakeSignals();
  try {
    if (!FillStandardDescriptors()) throw std::system_error(errno, std::generic_category(), "/dev/null");
    return Main(argc, argv, signals);
  } catch (const std::exception& error) {
    JournalError(std::string("natagentd: ") + error.what());
    return kExitFailed;
  }
}
