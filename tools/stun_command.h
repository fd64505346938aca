#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/types.h"

// `natctl stun`, which asks STUN servers itself, without the agent.
struct StunCommand {
  struct Server {
    std::string host;
    u16 port = 3478;  // RFC 8489, 18.6
  };
  std::vector<Server> servers;  // at least one
  u16 localPort = 0;            // 0: any that is free
};

struct StunCommandResult {
  std::optional<StunCommand> command;
  std::string error;  // without a command: what is wrong with which word
};

// `words` begins with the command's own name.
StunCommandResult ParseStunCommand(const std::vector<std::string>& words);
