#pragma once

#include <list>
#include <memory>
#include <string>

#include "agent/settings_lock.h"
#include "platform/stunutils/stun_manager.h"
#include "platform/types.h"

// The STUN fields of the host's configuration in the form the STUN library takes. One shared instance, made on first
// use and destroyed when the last user lets go.
class StunSettingsAccessor {
 public:
  virtual ~StunSettingsAccessor() = default;
  StunSettingsAccessor(const StunSettingsAccessor&) = delete;
  StunSettingsAccessor& operator=(const StunSettingsAccessor&) = delete;

  // Counts one use; with reload, the fields are read first, whether or not that succeeds.
  static StunSettingsAccessor* GetInstance(bool reload) NAT_REQUIRES(g_settingsLock);
  static void ReleaseInstance() NAT_REQUIRES(g_settingsLock);

  // False, with nothing changed, without a configuration or for a kind above 2.
  bool Load(u32 kind) NAT_REQUIRES(g_settingsLock);

  // What was read: zeroes and an empty list in a new instance, exactly one server after a successful Load.
  u32 m_setting1 = 0;
  u32 m_setting2 = 0;
  u32 m_setting3 = 0;
  std::list<StunServInfo> m_servers;
  std::string m_serverHost;
  std::string m_serverPort;

 private:
  StunSettingsAccessor() = default;

  static StunSettingsAccessor* s_instance NAT_GUARDED_BY(g_settingsLock);
  static int s_useCount NAT_GUARDED_BY(g_settingsLock);
};
