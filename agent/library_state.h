#pragma once

#include <memory>

#include "agent/nat_agent.h"
#include "nat/host_config.h"

// The host's configuration object as handed to NatMain; null before the first NatMain. Never freed here.
extern ConfigSource* g_configSource;

// What NatHostMakeConfigSource made last.
extern std::shared_ptr<void> g_hostsSource;

// The agent thread, null when none: the entry points' mark that the agent has been started. Host thread only.
extern void* g_agentThread;
