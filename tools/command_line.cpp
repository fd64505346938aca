#include "tools/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string_view>
#include <vector>

#include "platform/did_you_mean.h"
#include "tools/exit_status.h"
#include "tools/grammar.h"
#include "tools/parsing.h"
#include "tools/printer.h"
#include "tools/terminal.h"

namespace {

constexpr const char* kUsage = "Usage: natctl [OPTIONS] COMMAND [WORD ...]\n";

// What comes behind the list of the commands.
constexpr const char* kFurther =
    R"(PARTY: sip, q113, cm, cc, cgi.  DEST: dotted address or host name.  Options may stand anywhere; behind -- every word
is the command's.  natctl help COMMAND says more of one.
Exit status: 0 every request answered; 1 one was not answered in time, or refused; 2 wrong usage;
             3 the agent cannot be reached, the queue is taken, or the connection was lost.)";

class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override { return kUsage; }
};

// A word that is meant as an option.
bool IsOption(std::string_view word) { return word.size() > 1 && word.front() == '-'; }

// The words that no option of natctl's took, the command's name first.
std::vector<std::string> Words(const CLI::App& app) {
  std::vector<std::string> words = app.remaining();
  auto command = words.begin();
  while (command != words.end() && IsOption(*command)) {
    const Grammar::Option* option = FindOption(*command++);
    if (option != nullptr && !option->value.empty() && command != words.end()) {
      ++command;
    }
  }
  if (command != words.end()) {
    std::rotate(words.begin(), command, command + 1);
  }
  return words;
}

const Grammar* CommandOf(const std::vector<std::string>& words) {
  return words.empty() ? nullptr : FindGrammar(words.front());
}

// An option that neither natctl nor the command has; an empty text when there is none.
std::string FindUnknownOption(const CLI::App& app, const std::vector<std::string>& words, const Grammar* grammar) {
  std::vector<std::string> known;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      known.push_back("--" + name);
    }
  }
  if (grammar != nullptr) {
    for (const Grammar::Option& option : grammar->options) {
      known.emplace_back(option.name);
    }
  }
  const std::vector<std::string_view> names(known.begin(), known.end());
  for (const std::string& word : words) {
    const std::string name = word.substr(0, word.find('='));
    if (!IsOption(word) || std::find(known.begin(), known.end(), name) != known.end()) {
      continue;
    }
    return "'" + name + "' is not an option" + DidYouMean(name, names);
  }
  return {};
}

int Tell(const std::string& text) {
  if (std::cout << text && std::cout.flush()) {
    return static_cast<int>(ExitStatus::ANSWERED);
  }
  PrintError("cannot write to standard output");
  return static_cast<int>(ExitStatus::UNANSWERED);
}

int Refuse(const std::string& error, const Grammar* grammar) {
  PrintError(error);
  std::cerr << (grammar == nullptr ? "natctl --help lists the commands and options." : UsageOf(*grammar)) << '\n';
  return static_cast<int>(ExitStatus::USAGE);
}

// Returns an empty text, or what is wrong with the command's words, those from `--` on being `behind`.
std::string TakeWords(const CLI::App& app, const std::vector<std::string>& behind, NatctlLine& line) {
  std::vector<std::string> words = Words(app);
  std::string error = FindUnknownOption(app, words, CommandOf(words));
  if (!error.empty()) {
    return error;
  }
  words.insert(words.end(), behind.begin(), behind.end());
  if (words.empty()) {
    return "a command is missing";
  }
  const Grammar* grammar = FindGrammar(words.front());
  if (grammar != nullptr && grammar->kind == CommandKind::STATUS) {
    StatusCommandResult result = ParseStatusCommand(words);
    line.json = line.json || (result.command && result.command->json);
    line.command.kind = CommandKind::STATUS;
    line.status = std::move(result.command);
    return result.error;
  }
  CommandResult result = ParseCommand(words, false);
  if (result.command) {
    line.command = std::move(*result.command);
  }
  return result.error;
}

// An empty text leaves the defaults. Returns an empty text, or what is wrong.
std::string TakeTimeout(const std::string& timeout, Timeouts& timeouts) {
  if (timeout.empty()) return {};
  const auto milliseconds = ParseMilliseconds(timeout);
  if (!milliseconds) {
    return "--timeout: '" + timeout + "' is not SECONDS";
  }
  timeouts.answer = timeouts.contact = std::chrono::milliseconds(*milliseconds);
  return {};
}

}  // namespace

std::optional<NatctlLine> ParseNatctlLine(int argc, char** argv, int& exitCode) {
  NatctlLine line;
  std::string timeout;
  CLI::App app("Plays a party of the NAT agent.", "natctl");
  app.formatter(std::make_shared<HelpFormatter>());
  app.add_option("--runtime-dir", line.runtimeDir,
                 "Directory of the agent's queues (default: $NATAGENT_RUNTIME_DIR or /run/natagent)")
      ->type_name("DIR");
  app.add_flag("--json", line.json, "One JSON object a line");
  app.add_option("--timeout", timeout,
                 "How long to wait (default: 30 for an answer, 5 for a connection or a STUN server)")
      ->type_name("SECONDS");
  app.set_version_flag("-V,--version", "natctl " NATAGENT_VERSION);
  app.allow_extras();
  app.footer("Commands:\n" + CommandList() + kFurther);
  char** const end = argv + argc;
  char** const dashes = std::find_if(argv, end, [](const char* word) { return std::string_view(word) == "--"; });
  try {
    app.parse(static_cast<int>(dashes - argv), argv);
  } catch (const CLI::CallForHelp&) {
    const Grammar* grammar = CommandOf(Words(app));
    exitCode = Tell(grammar == nullptr ? app.help() : HelpOf(*grammar));
    return std::nullopt;
  } catch (const CLI::CallForVersion& version) {
    exitCode = Tell(std::string(version.what()) + "\n");
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    exitCode = Refuse(error.what(), nullptr);
    return std::nullopt;
  }

  const std::vector<std::string> behind(dashes == end ? end : dashes + 1, end);
  std::string error = TakeTimeout(timeout, line.timeouts);
  if (error.empty()) {
    error = TakeWords(app, behind, line);
  }
  if (!error.empty()) {
    exitCode = Refuse(error, CommandOf(Words(app)));
    return std::nullopt;
  }
  if (line.command.kind != CommandKind::HELP) {
    return line;
  }
  exitCode = Tell(line.command.word.empty() ? app.help() : HelpOf(*FindGrammar(line.command.word)));
  return std::nullopt;
}
