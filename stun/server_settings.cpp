// How the configured STUN server reaches the STUN library: when the manager is created, and when the host says that it
// has changed. A running manager takes it as it runs.

#include "agent/nat_agent.h"
#include "nat/nat_config_manager.h"
#include "stun/stun_manager_wrapper.h"
#include "stun/stun_settings_accessor.h"

namespace {

// The fields as they are now; let go of also when something throws.
struct AccessorUse {
  AccessorUse() NAT_REQUIRES(g_settingsLock) : accessor(*StunSettingsAccessor::GetInstance(true)) {}
  ~AccessorUse() NAT_REQUIRES(g_settingsLock) { StunSettingsAccessor::ReleaseInstance(); }
  AccessorUse(const AccessorUse&) = delete;
  AccessorUse& operator=(const AccessorUse&) = delete;

  const StunSettingsAccessor& accessor;
};

}  // namespace

bool StunManagerWrapper::UpdateServerSettings() {
  NatLogOut& log = _NatAgent.Log();
  if (!m_stunRunning) {
    log.TraceFormat("Stun not runing:no need update\r\n");
    return true;
  }
  log.TraceFormat("Reading Stun Cfg\r\n");
  const AccessorUse use;
  const StunSettingsAccessor& accessor = use.accessor;
  if (accessor.m_servers.empty()) {
    log.Trace("\r\nError:Stun server list empty!\r\n", kLogOrdinary);
    return false;
  }
  m_manager->UpdateSettings(accessor.m_servers, accessor.m_setting1, accessor.m_setting3, accessor.m_setting2);
  return true;
}

bool NatConfigManager::UpdateStunServerSettings() {
  if (!_NatAgent.m_stunWrapper.IsRunning()) {
    return false;
  }
  _NatAgent.Log().TraceFormat("Update Stun Server Settings\r\n");
  return _NatAgent.m_stunWrapper.UpdateServerSettings();
}
