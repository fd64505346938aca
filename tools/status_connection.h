#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "platform/unique_fd.h"

// A connection to status.sock. What fails is in Error().
class StatusConnection {
 public:
  using Clock = std::chrono::steady_clock;

  // An empty directory: the default.
  bool Open(const std::string& runtimeDir);

  bool Send(const nlohmann::ordered_json& request, Clock::time_point deadline);

  // The next line; nothing when none comes by then, or `interrupt` (-1: none) becomes readable, without an error.
  std::optional<nlohmann::ordered_json> Next(Clock::time_point deadline, int interrupt = -1);

  const std::string& Error() const { return m_error; }

 private:
  // False: the time is over.
  bool Wait(short events, Clock::time_point deadline, int interrupt, bool& isInterrupted);
  bool Fail(const std::string& what, int error);

  UniqueFd m_fd;
  std::string m_in;
  std::string m_error;
};
