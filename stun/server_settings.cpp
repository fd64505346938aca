// How the configured STUN server reaches the STUN library: when the manager is created, and when the host says that it
// has changed. A running manager takes it as it runs.

#include "agent/nat_agent.h"
#include "nat/nat_config_manager.h"
#include "stun/stun_manager_wrapper.h"
#include "stun/stun_settings_accessor.h"

bool StunManagerWrapper::UpdateServerSettings() {
  NatLogOut& log = _NatAgent.Log();
  if (!m_stunRunning) {
    log.TraceFormat("Stun not runing:no need update\r\n");
    return true;
  }
  log.TraceFormat("Reading Stun Cfg\r\n");
  const StunSettingsAccessor* accessor = StunSettingsAccessor::GetInstance(true);
  const u32 setting1 = accessor->m_setting1;
  const u32 setting2 = accessor->m_setting2;
  const u32 setting3 = accessor->m_setting3;
  const std::list<StunServInfo> servers = accessor->m_servers;
  if (servers.empty()) {
    log.Trace("\r\nError:Stun server list empty!\r\n", kLogOrdinary);
    StunSettingsAccessor::ReleaseInstance();
    return false;
  }
  m_manager->UpdateSettings(servers, setting1, setting3, setting2);
  StunSettingsAccessor::ReleaseInstance();
  return true;
}

bool NatConfigManager::UpdateStunServerSettings() {
  if (!_NatAgent.m_stunWrapper.IsRunning()) {
    return false;
  }
  _NatAgent.Log().TraceFormat("Update Stun Server Settings\r\n");
  return _NatAgent.m_stunWrapper.UpdateServerSettings();
}
