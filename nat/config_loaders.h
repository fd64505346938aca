#pragma once

#include "agent/settings_lock.h"
#include "platform/types.h"

enum GwLoadMode : u32 {
  GW_ADD = 0,
  GW_UPDATE = 1,  // never adds a missing gateway mapping
  GW_REMOVE = 2,
};

// Each reads the host's configuration into the agent's tables. Without a configuration: false, nothing changed, nothing
// logged. Values are used as they stand.
bool LoadNatExcTable() NAT_REQUIRES(g_settingsLock);
bool LoadSipUdpSettings() NAT_REQUIRES(g_settingsLock);
bool LoadSipTcpSettings() NAT_REQUIRES(g_settingsLock);
// One gateway mapping for every address of the selected local interfaces. False also for an unknown mode.
bool LoadGwSettings(GwLoadMode mode) NAT_REQUIRES(g_settingsLock);
