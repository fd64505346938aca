#include "nat/nat_config_manager.h"

#include "agent/faults.h"
#include "agent/nat_agent.h"
#include "nat/config_loaders.h"
#include "nat/nat_names.h"

namespace {

bool UpdateGwSettings() NAT_REQUIRES(g_settingsLock) { return LoadGwSettings(GW_UPDATE); }

// What a reload runs, in this order and each whatever the one before gave or threw. Under the settings lock.
constexpr bool (*kLoaders[])() = {LoadNatExcTable, LoadSipUdpSettings, LoadSipTcpSettings, UpdateGwSettings};

}  // namespace

bool NatConfigManager::LoadNatSettings(CA_PROTO proto) {
  switch (proto) {
    case CA_PROTO_CM:
      InitCMSettings();
      return LoadGwSettings(GW_ADD);
    case CA_PROTO_SIP:
      LoadSipUdpSettings();
      return LoadSipTcpSettings();
    case CA_PROTO_CC:
      break;
  }
  return false;
}

void NatConfigManager::InitCMSettings() {
  // The next route change counts as the uplink coming up.
  _NatAgent.m_upLinkIp = 0;
  if (!m_excTableLoaded) {
    LoadNatExcTable();
    m_excTableLoaded = true;
  }
}

bool NatConfigManager::UnloadNatSettings(CA_PROTO proto) {
  _NatAgent.Log().TraceFormat("Unload config for %s\r\n", GetCAProtoName(proto));
  return _NatAgent.m_qorStorage->Unload(proto);
}

bool NatConfigManager::ReloadNatSettings() {
  bool loaded = false;
  for (bool (*const load)() : kLoaders) {
    loaded = Contain("changed settings are not loaded", [&] { loaded = load(); }) && loaded;
  }
  return loaded;
}

bool NatConfigManager::OnCgiUpdate(const std::list<std::string>&) { return true; }
