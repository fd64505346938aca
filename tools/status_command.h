#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

// `natctl status`, `monitor` and `explain`, which ask natagentd through status.sock and take no queue.
struct StatusCommand {
  enum class Kind { STATUS, MONITOR, EXPLAIN };

  Kind kind = Kind::STATUS;
  std::string topic = "summary";
  nlohmann::ordered_json request;  // its line; a listing's further ones have "next" too
  bool json = false;
  bool openMetrics = false;
};

struct StatusCommandResult {
  std::optional<StatusCommand> command;
  std::string error;  // without a command: what is wrong with which word
};

// `words` begins with the command's own name.
StatusCommandResult ParseStatusCommand(const std::vector<std::string>& words);
