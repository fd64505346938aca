#include "nat/nat_config_manager.h"

#include "agent/faults.h"
#include "agent/host_events.h"
#include "agent/nat_agent.h"
#include "nat/config_loaders.h"
#include "nat/load_warnings.h"
#include "nat/nat_names.h"

namespace {

constexpr int kSipQueue = 112;
constexpr int kCmQueue = 114;
constexpr int kCcQueue = 115;

void TellLoaded(int queue, bool loaded) {
  if (HostEvents::Wants(NAT_EVENT_LOADED)) {
    NatHostEvent event = HostEvents::Make(NAT_EVENT_LOADED);
    event.queue = queue;
    event.reason = loaded ? 1 : 0;
    HostEvents::Tell(event);
  }
}

// True.
bool SetLoaded(SettingsState::Part& part) NAT_REQUIRES(g_settingsLock) {
  part.Set(NAT_HOST_LOADED);
  if (&part == &_NatAgent.m_settings.media) {
    _NatAgent.m_settings.isMediaMissTold = false;
    Contain("media settings are not looked through", WarnOfMediaSettings);
  } else {
    Contain("signalling settings are not looked through", WarnOfSignallingSettings);
  }
  return true;
}

bool UpdateGwSettings() NAT_REQUIRES(g_settingsLock) { return LoadGwSettings(GW_UPDATE); }

// What a reload runs, in this order and each whatever the one before gave or threw. Under the settings lock.
constexpr bool (*kLoaders[])() = {LoadNatExcTable, LoadSipUdpSettings, LoadSipTcpSettings, UpdateGwSettings};

}  // namespace

bool NatConfigManager::LoadNatSettings(CA_PROTO proto) {
  const bool loaded = LoadSettingsOf(proto);
  TellLoaded(proto == CA_PROTO_SIP ? kSipQueue : proto == CA_PROTO_CM ? kCmQueue : kCcQueue, loaded);
  return loaded;
}

bool NatConfigManager::LoadSettingsOf(CA_PROTO proto) {
  switch (proto) {
    case CA_PROTO_CM:
      InitCMSettings();
      return LoadGwSettings(GW_ADD) && SetLoaded(_NatAgent.m_settings.media);
    case CA_PROTO_SIP:
      LoadSipUdpSettings();
      return LoadSipTcpSettings() && SetLoaded(_NatAgent.m_settings.signalling);
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
  SettingsState& state = _NatAgent.m_settings;
  if (proto == CA_PROTO_SIP) {
    state.signalling.Set(NAT_HOST_DROPPED_BY_SIP);
  } else if (state.media.state != NAT_HOST_NOT_LOADED) {
    state.media.Set(proto == CA_PROTO_CM ? NAT_HOST_DROPPED_BY_CM : NAT_HOST_DROPPED_BY_CC);
  }
  return _NatAgent.m_qorStorage->Unload(proto);
}

bool NatConfigManager::ReloadNatSettings() {
  bool loaded = false;
  for (bool (*const load)() : kLoaders) {
    loaded = Contain("changed settings are not loaded", [&] { loaded = load(); }) && loaded;
  }
  if (loaded) {
    SetLoaded(_NatAgent.m_settings.signalling);
    if (_NatAgent.m_settings.media.state == NAT_HOST_LOADED) {
      SetLoaded(_NatAgent.m_settings.media);
    }
  }
  TellLoaded(0, loaded);
  return loaded;
}

bool NatConfigManager::OnCgiUpdate(const std::list<std::string>&) { return true; }
