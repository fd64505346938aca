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

int TellChecked(const std::string& configFile) {
  std::printf("%s: ok\n", configFile.empty() ? "built-in settings" : configFile.c_str());
  if (std::fflush(stdout) == 0) return kExitOk;
  JournalError(std::string("natagentd: cannot write: ") + std::strerror(errno));
  return kExitFailed;
}

int Main(int argc, char** argv, const sigset_t& signals) {
  int exitCode = kExitOk;
  std::optional<CommandLine> commandLine = ParseCommandLine(argc, argv, exitCode);
  if (!commandLine) return exitCode;

  if (commandLine->check) {
    return LoadConfig(commandLine->config) ? TellChecked(commandLine->config) : kExitUsage;
  }
  LastGoodConfig lastGood(commandLine->stateDir);
  std::optional<LoadedConfig> config = LoadConfigAtStart(commandLine->config, lastGood);
  if (!config) {
    return kExitUsage;
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
