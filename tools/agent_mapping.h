#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "platform/types.h"
#include "tools/status_connection.h"

// What the agent has learnt by STUN of a local UDP port, a row of its listing `mappings`. Nothing when the agent does
// not ask from the port or has no answer, or with an error when the agent cannot be asked. Takes no queue.
std::optional<nlohmann::ordered_json> FindLearntPort(const std::string& runtimeDir, u16 port,
                                                     StatusConnection::Clock::time_point deadline, std::string& error);
