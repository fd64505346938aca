#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/host.h"

// One line on status.sock, docs/status.md.
struct StatusRequest {
  enum class Kind { GET, EXPLAIN, MONITOR };
  static constexpr std::size_t kMaxLine = 4096;  // bytes, without the line end

  Kind kind = Kind::GET;
  // GET
  std::string topic;
  std::array<std::uint64_t, 3> next{};  // where a listing goes on: its part, and the place in it
  // EXPLAIN: the destination is a text yet
  std::string destination;
  NatHostQuestion question{};
  // MONITOR
  bool withLog = false;
};

struct StatusRequestResult {
  std::optional<StatusRequest> request;
  std::string error;  // without a request: what is wrong with it
};

StatusRequestResult ParseStatusRequest(std::string_view line);
