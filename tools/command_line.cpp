#include "tools/command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/exit_status.h"
#include "tools/parsing.h"
#include "tools/printer.h"

namespace {

constexpr const char* kCommands =
    R"(Commands:
  run [FILE]                  commands, one a line, from FILE or standard input (-); '#' begins a comment
    connect PARTY | disconnect PARTY                                (in run only)
  cs PARTY DEST IP:PORT [udp|tcp|tls] [id=N] [value=N] [nowait]     one signalling port
  cs-list PARTY DEST [IP:PORT ...] [id=N] [value=N] [nowait]        several signalling ports
  rtp PARTY DEST [IP:PORT ...] [server=sip|cm|cc|N] [id=N] [nowait] media ports
  reverse PARTY [IP:PORT ...] [id=N] [value=N] [nowait]             local endpoints behind public ones
  close PARTY id=N                                                  forget the media ports of a request
  update TYPE [STRING ...] [value=N]                                configuration-update notice, as cgi
  wait [SECONDS]                                                    print until SECONDS (1) pass in silence
  watch PARTY                                                       print until interrupted
  status [TOPIC] [--json|--format openmetrics]                      what the agent knows and has done
  monitor [--log] [--json]                                          what happens, until interrupted
  explain PARTY DEST IP:PORT [udp|tcp|tls|rtp] [server=sip|cm|cc]   why an answer is as it is, without asking for it
  stun HOST[:PORT] ... [--local-port N]                             ask STUN servers, without the agent
TOPIC: parties, mappings, stun, calls, exclusions, names, config, counters, uplink.
PARTY: sip, q113, cm, cc, cgi.  DEST: dotted address or host name.
Exit status: 0 every request answered; 1 one was not answered in time, or refused; 2 wrong usage;
             3 the agent cannot be reached, the queue is taken, or the connection was lost.)";

std::string TakeWords(const std::vector<std::string>& words, CommandLine& line) {
  if (words.empty()) return "a command is missing, see natctl --help";
  if (words.front() == "run") {
    if (words.size() > 2) return "run: '" + words[2] + "' is too much";
    line.run = true;
    if (words.size() == 2 && words[1].empty()) return "run: '' is no file";
    if (words.size() == 2 && words[1] != "-") line.file = words[1];
    return {};
  }
  if (words.front() == "stun") {
    StunCommandResult result = ParseStunCommand(words);
    line.stun = std::move(result.command);
    return result.error;
  }
  if (StatusCommand::Is(words.front())) {
    StatusCommandResult result = ParseStatusCommand(words);
    line.json = line.json || (result.command && result.command->json);
    line.status = std::move(result.command);
    return result.error;
  }
  CommandResult result = ParseCommand(words, false);
  if (result.command) line.command = std::move(*result.command);
  return result.error;
}

}  // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char** argv, int& exitCode) {
  CommandLine line;
  std::string timeout = "5";
  CLI::App app("Plays a party of the NAT agent.\nUsage: natctl [OPTIONS] COMMAND ...", "natctl");
  app.add_option("--runtime-dir", line.runtimeDir,
                 "Directory of the agent's queues (default: $NATAGENT_RUNTIME_DIR or /run/natagent)")
      ->type_name("DIR");
  app.add_flag("--json", line.json, "One JSON object a line");
  app.add_option("--timeout", timeout, "How long to wait for an answer or a connection (default: 5)")
      ->type_name("SECONDS");
  app.set_version_flag("--version", "natctl " NATAGENT_VERSION);
  app.prefix_command();
  app.failure_message(
      [](const CLI::App* failed, const CLI::Error& error) { return failed->get_name() + ": " + error.what() + "\n"; });
  app.footer(kCommands);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitCode = app.exit(error) == 0 ? 0 : static_cast<int>(ExitStatus::USAGE);
    if (exitCode == 0 && !std::cout.flush()) {
      PrintError("cannot write to standard output");
      exitCode = static_cast<int>(ExitStatus::UNANSWERED);
    }
    return std::nullopt;
  }

  const auto timeoutMs = ParseMilliseconds(timeout);
  line.timeoutMs = timeoutMs.value_or(0);
  const std::string error =
      timeoutMs ? TakeWords(app.remaining(), line) : "--timeout: '" + timeout + "' is not SECONDS";
  if (error.empty()) return line;
  PrintError(error);
  exitCode = static_cast<int>(ExitStatus::USAGE);
  return std::nullopt;
}
