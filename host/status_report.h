#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/agent_library.h"
#include "host/status_request.h"

// What natagentd knows beside the agent, for the reports.
struct HostFacts {
  nlohmann::ordered_json config;  // the settings in force, their origin and when they were read
};

// The answer to a GET, as docs/status.md has it. Reads the running agent page by page.
nlohmann::ordered_json Report(const AgentLibrary& library, const HostFacts& facts, const StatusRequest& request);

// What cannot be answered, and why.
nlohmann::ordered_json StatusError(const std::string& text);

// Why the library's reading failed, for people.
std::string ReadFault(int result);
