#include "tools/grammar.h"

#include <vector>

#include "platform/did_you_mean.h"

namespace {

using Place = Grammar::Place;

constexpr Grammar kGrammars[] = {
    {.name = "run",
     .kind = CommandKind::RUN,
     .words = "[FILE]",
     .summary = "commands, one a line, from FILE or standard input (-); '#' begins a comment",
     .place = Place::COMMAND_LINE},
    {.name = "connect",
     .kind = CommandKind::CONNECT,
     .words = "PARTY",
     .summary = "connect the party (in a run only)",
     .place = Place::RUN,
     .party = true},
    {.name = "disconnect",
     .kind = CommandKind::DISCONNECT,
     .words = "PARTY",
     .summary = "hang up (in a run only)",
     .place = Place::RUN,
     .party = true},
    {.name = "cs",
     .kind = CommandKind::CS,
     .words = "PARTY DEST IP:PORT [udp|tcp|tls] [id=N] [value=N] [nowait]",
     .summary = "the public side of one signalling port",
     .party = true,
     .destination = true,
     .mostItems = 1,
     .portType = true,
     .id = true,
     .value = true,
     .nowait = true},
    {.name = "cs-list",
     .kind = CommandKind::CS_LIST,
     .words = "PARTY DEST [IP:PORT ...] [id=N] [value=N] [nowait]",
     .summary = "the public side of several signalling ports",
     .party = true,
     .destination = true,
     .mostItems = NATCLIENT_MAX_ITEMS,
     .id = true,
     .value = true,
     .nowait = true},
    {.name = "rtp",
     .kind = CommandKind::RTP,
     .words = "PARTY DEST [IP:PORT ...] [server=sip|cm|cc|N] [id=N] [nowait]",
     .summary = "the public side of media ports",
     .party = true,
     .destination = true,
     .mostItems = NATCLIENT_MAX_ITEMS,
     .id = true,
     .server = true,
     .nowait = true},
    {.name = "reverse",
     .kind = CommandKind::REVERSE,
     .words = "PARTY [IP:PORT ...] [id=N] [value=N] [nowait]",
     .summary = "local endpoints behind public ones",
     .party = true,
     .mostItems = NATCLIENT_MAX_ITEMS,
     .id = true,
     .value = true,
     .nowait = true},
    {.name = "close",
     .kind = CommandKind::CLOSE,
     .words = "PARTY id=N",
     .summary = "forget the media ports of a request",
     .party = true,
     .id = true},
    {.name = "update",
     .kind = CommandKind::UPDATE,
     .words = "TYPE [STRING ...] [value=N]",
     .summary = "configuration-update notice, as cgi",
     .value = true},
    {.name = "wait",
     .kind = CommandKind::WAIT,
     .words = "[SECONDS]",
     .summary = "print until SECONDS (1) pass in silence"},
    {.name = "watch",
     .kind = CommandKind::WATCH,
     .words = "PARTY",
     .summary = "connect and print until interrupted",
     .party = true},
    {.name = "stun",
     .kind = CommandKind::STUN,
     .words = "HOST[:PORT] ... [--local-port N]",
     .summary = "ask STUN servers, without the agent",
     .options = {{{"--local-port", "N", "UDP port to ask from, which has to be free; default: any"}}}},
    {.name = "status",
     .kind = CommandKind::STATUS,
     .words = "[TOPIC] [--format text|json|openmetrics]",
     .summary = "what the agent knows and has done; TOPIC: parties, mappings, stun, calls, exclusions, names, config, "
                "counters or uplink",
     .place = Place::COMMAND_LINE,
     .options = {{{"--format", "FORMAT", "text (default), json, or openmetrics for a scraper"}}}},
    {.name = "monitor",
     .kind = CommandKind::STATUS,
     .words = "[--log]",
     .summary = "what happens, until interrupted",
     .place = Place::COMMAND_LINE,
     .options = {{{"--log", "", "the lines of natagent.log too, with their times"}}}},
    {.name = "explain",
     .kind = CommandKind::STATUS,
     .words = "PARTY DEST IP:PORT [udp|tcp|tls|rtp] [server=sip|cm|cc]",
     .summary = "why an answer is as it is, without asking for it",
     .place = Place::COMMAND_LINE,
     .party = true,
     .destination = true,
     .server = true},
    {.name = "help",
     .kind = CommandKind::HELP,
     .words = "[COMMAND]",
     .summary = "this list, or what one command takes",
     .place = Place::COMMAND_LINE},
};

struct WordHelp {
  bool Grammar::*has;
  const char* text;
};

constexpr WordHelp kWordHelp[] = {
    {&Grammar::party, "PARTY       sip (queue 112), q113 (113), cm (114), cc (115) or cgi (102)"},
    {&Grammar::destination, "DEST        the remote party: dotted address or host name, without a port"},
    {&Grammar::portType, "udp|tcp|tls kind of the port; default: udp"},
    {&Grammar::server, "server=     protocol of the call server that owns the call; default: the party's own"},
    {&Grammar::id, "id=N        id of the request; default: counted from 1"},
    {&Grammar::value, "value=N     a number that the answer brings back"},
    {&Grammar::nowait, "nowait      do not wait for the answer before the next command"},
};

}  // namespace

std::span<const Grammar> Grammars() { return kGrammars; }

const Grammar* FindGrammar(std::string_view name) {
  for (const Grammar& grammar : kGrammars) {
    if (name == grammar.name) {
      return &grammar;
    }
  }
  return nullptr;
}

const Grammar::Option* FindOption(std::string_view name) {
  for (const Grammar& grammar : kGrammars) {
    for (const Grammar::Option& option : grammar.options) {
      if (!name.empty() && name == option.name) {
        return &option;
      }
    }
  }
  return nullptr;
}

std::string DidYouMeanCommand(std::string_view name) {
  std::vector<std::string_view> names;
  for (const Grammar& grammar : kGrammars) {
    names.push_back(grammar.name);
  }
  return DidYouMean(name, names);
}

std::string UsageOf(const Grammar& grammar) {
  std::string usage = grammar.place == Place::RUN ? "Usage: " : "Usage: natctl [OPTIONS] ";
  return usage.append(grammar.name).append(" ").append(grammar.words);
}

std::string HelpOf(const Grammar& grammar) {
  std::string help = UsageOf(grammar).append("\n\n").append(grammar.summary).append("\n\n");
  for (const WordHelp& word : kWordHelp) {
    if (grammar.*word.has) {
      help.append("  ").append(word.text).append("\n");
    }
  }
  for (const Grammar::Option& option : grammar.options) {
    if (!option.name.empty()) {
      help.append("  ")
          .append(option.name)
          .append(" ")
          .append(option.value)
          .append("  ")
          .append(option.help)
          .append("\n");
    }
  }
  return help + "natctl --help lists the options and the exit status; natctl(1) says it all.\n";
}

std::string CommandList() {
  constexpr std::size_t kColumn = 30;
  std::string list;
  for (const Grammar& grammar : kGrammars) {
    std::string line = grammar.place == Place::RUN ? "    " : "  ";  // below run
    line.append(grammar.name).append(" ").append(grammar.words);
    if (line.size() < kColumn) {
      line.resize(kColumn, ' ');
    } else {
      line += "\n" + std::string(kColumn, ' ');
    }
    list.append(line).append(grammar.summary).append("\n");
  }
  return list;
}
