#pragma once

#include <list>
#include <string>

#include "agent/settings_lock.h"
#include "nat/nat_records.h"

// Turns the host's configuration into the contents of the exclusion table and of the port-mapping storage: what belongs
// to a call agent when it connects, everything again when the host reports a change.
class NatConfigManager {
 public:
  NatConfigManager() = default;
  virtual ~NatConfigManager() = default;
  NatConfigManager(const NatConfigManager&) = delete;
  NatConfigManager& operator=(const NatConfigManager&) = delete;

  // False when there is no configuration, or nothing to load for this call agent.
  bool LoadNatSettings(CA_PROTO proto) NAT_REQUIRES(g_settingsLock);
  bool UnloadNatSettings(CA_PROTO proto) NAT_REQUIRES(g_settingsLock);

  // On the host's thread.
  bool ReloadNatSettings() NAT_REQUIRES(g_settingsLock);

  // On the host's thread: hands a running STUN client its server settings; false when STUN does not run.
  bool UpdateStunServerSettings() NAT_REQUIRES(g_settingsLock);

  // The hook for the configuration-update notices 84, 92 and 93: the agent re-reads nothing on them. True.
  bool OnCgiUpdate(const std::list<std::string>& texts);

 private:
  bool LoadSettingsOf(CA_PROTO proto) NAT_REQUIRES(g_settingsLock);
  void InitCMSettings() NAT_REQUIRES(g_settingsLock);

  bool m_excTableLoaded = false;  // agent thread only
};
