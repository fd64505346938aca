#include "host/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <string_view>
#include <vector>

#include "platform/did_you_mean.h"
#include "platform/journal.h"

namespace {

// What is wrong, with the option that was meant when a word is none.
std::string FaultText(const CLI::App& app, const CLI::ParseError& error) {
  std::vector<std::string> known;
  for (const CLI::Option* option : app.get_options()) {
    known.push_back("--" + option->get_lnames().front());
  }
  const std::vector<std::string_view> names(known.begin(), known.end());
  std::string text = std::string("natagentd: ") + error.what();
  for (const std::string& word : app.remaining()) {
    text += DidYouMean(word.substr(0, word.find('=')), names);
  }
  return text;
}

// What an empty shell variable leaves is no wish for the default.
std::string CheckName(const std::string& name) { return name.empty() ? "the name is empty" : ""; }

}  // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char** argv, int& exitCode) {
  CommandLine parsed;
  CLI::App app("Runs the NAT agent with the settings of a file.", "natagentd");
  app.add_option("--config", parsed.config,
                 std::string("Configuration (default: ") + kDefaultConfig + " when it exists, else built-in settings)")
      ->check(CheckName)
      ->type_name("FILE");
  app.add_option("--runtime-dir", parsed.dirs.runtime,
                 "Directory of the agent's queues (default: $NATAGENT_RUNTIME_DIR or /run/natagent)")
      ->check(CheckName)
      ->type_name("DIR");
  app.add_option("--log-dir", parsed.dirs.log,
                 "Directory of natagent.log (default: $NATAGENT_LOG_DIR or /var/log/natagent)")
      ->check(CheckName)
      ->type_name("DIR");
  app.add_option("--state-dir", parsed.stateDir,
                 "Directory of the last good configuration (default: $NATAGENT_STATE_DIR or /var/lib/natagent)")
      ->check(CheckName)
      ->type_name("DIR");
  app.add_flag("--check", parsed.check, "Check the configuration and exit");
  app.add_flag("--print-config", parsed.printConfig, "Print the settings and where each comes from, and exit");
  app.set_version_flag("-V,--version", "natagentd " NATAGENT_VERSION);
  app.footer(
      "SIGHUP reads the configuration again; a wrong one keeps the settings that hold. SIGTERM and SIGINT stop the "
      "agent.\nExit status: 0 stopped, or checked; 1 the agent cannot run; 2 wrong usage or configuration.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) {
      JournalError(FaultText(app, error));
      exitCode = kExitUsage;
      return std::nullopt;
    }
    app.exit(error);  // prints the help or the version
    exitCode = kExitOk;
    if (!std::cout.flush()) {
      JournalError("natagentd: cannot write to standard output");
      exitCode = kExitFailed;
    }
    return std::nullopt;
  }
  return parsed;
}
