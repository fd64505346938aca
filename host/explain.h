#pragma once

#include <nlohmann/json.hpp>

#include "host/agent_library.h"
#include "host/status_request.h"

// The answer to an EXPLAIN: the decision step by step, the answer that the agent would give now, and what to do about
// it. `address`: what the destination's text or its look-up gave, 0 for a name without an address.
nlohmann::ordered_json Explain(const AgentLibrary& library, const StatusRequest& request, std::uint32_t address);
