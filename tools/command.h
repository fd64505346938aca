#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/natclient.h"
#include "tools/stun_command.h"

enum class CommandKind {
  RUN,
  CONNECT,
  DISCONNECT,
  CS,
  CS_LIST,
  RTP,
  REVERSE,
  CLOSE,
  UPDATE,
  WAIT,
  WATCH,
  STUN,
  STATUS,  // status, monitor and explain
  HELP
};

// One command, ready to be carried out. Which fields count depends on the kind.
struct Command {
  CommandKind kind{};
  natclient_party party = NATCLIENT_CGI;
  std::string destination;
  std::vector<natclient_item> items;
  natclient_port_type portType = NATCLIENT_UDP;
  std::optional<std::uint64_t> id;     // absent: the next one that is counted
  std::optional<std::uint32_t> value;  // RTP: the call server's protocol
  std::uint32_t updateType = 0;
  std::vector<std::string> texts;
  int silenceMs = 1000;  // WAIT
  bool nowait = false;
  StunCommand stun;  // STUN
  std::string word;  // RUN: the file, empty for standard input; HELP: the command, empty for all
};

struct CommandResult {
  std::optional<Command> command;
  std::string error;  // without a command: what is wrong with which word
};

// The words of a line: separated by blanks, up to a word that begins with '#'.
std::vector<std::string> SplitWords(std::string_view line);

// `inRun`: a line of a run, where connect and disconnect are allowed, and run and help are not. There is at least one
// word.
CommandResult ParseCommand(const std::vector<std::string>& words, bool inRun);
