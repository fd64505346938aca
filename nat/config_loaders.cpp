#include "nat/config_loaders.h"

#include <string>
#include <vector>

#include "agent/log_text.h"
#include "agent/nat_agent.h"
#include "nat/config_reader.h"
#include "platform/sockets/inet.h"
#include "platform/vxnetutils/bsd_socket.h"

bool LoadNatExcTable() {
  if (!HaveConfig()) {
    return false;
  }
  std::string text = "Set NatExlTable\r\n";
  text += kRule;
  std::list<NatExcEntry> entries;
  for (const NatExcRuleText& rule : ReadConfig(&NatConfig::natExclusions)) {
    entries.push_back({sockets::inet_addr(rule.ipText.c_str()), sockets::inet_addr(rule.maskText.c_str())});
    text += "Ip = ";
    text += rule.ipText;
    text += " Mask = ";
    text += rule.maskText;
    text += "\r\n";
  }
  _NatAgent.m_excTable.SetTable(entries);
  _NatAgent.m_settings.exclusionsSince = SettingsState::Now();
  _NatAgent.Log().TraceFormat("%s--------------------------------------------------\r\n", text.c_str());
  return true;
}

bool LoadSipUdpSettings() {
  if (!HaveConfig()) {
    return false;
  }
  NatMappings mappings;
  mappings.Set(0, ReadConfig(&NatConfig::sipUdpPort), ReadConfig(&NatConfig::sipUdpPort), MAP_NONE, 0, false);
  if (ReadConfig(&NatConfig::sipUdpUseStun) != 0) {
    mappings.SetMode(MAP_STUN);
  } else {
    mappings.SetStatic(ReadConfig(&NatConfig::sipUdpPublicIp), ReadConfig(&NatConfig::sipUdpPublicPort),
                       ReadConfig(&NatConfig::sipUdpPublicPort));
  }
  _NatAgent.Log().TraceFormat("\r\nUpdate Udp NatSettings for SIP\r\n");
  return _NatAgent.m_qorStorage->SetUdpMappings(CA_PROTO_SIP, &mappings);
}

bool LoadSipTcpSettings() {
  if (!HaveConfig()) {
    return false;
  }
  PortRange range;
  range.localStart = range.localEnd = ReadConfig(&NatConfig::sipTcpPort);
  range.publicIp = ReadConfig(&NatConfig::sipTcpPublicIp);
  range.publicStart = range.publicEnd = ReadConfig(&NatConfig::sipTcpPublicPort);
  return _NatAgent.m_qorStorage->SetRange(0, &range);
}

namespace {

NatMappings GwMappings(u32 address) NAT_REQUIRES(g_settingsLock) {
  NatMappings mappings;
  mappings.Set(address, ReadConfig(&MediaConfig::rtpPortStart), ReadConfig(&MediaConfig::rtpPortEnd), MAP_NONE, 0,
               false);
  mappings.noRtcp = ReadConfig(&MediaConfig::rtcpEnabled) == 0;
  if (ReadConfig(&NatConfig::gwUseStun) != 0) {
    mappings.SetMode(MAP_STUN);
  } else {
    mappings.SetStatic(ReadConfig(&NatConfig::gwPublicIp), ReadConfig(&NatConfig::gwPublicPortStart),
                       ReadConfig(&NatConfig::gwPublicPortEnd));
  }
  return mappings;
}

// False for an unknown mode.
bool LoadGwInterface(GwLoadMode mode, u32 address) NAT_REQUIRES(g_settingsLock) {
  QorMappingStorage& storage = *_NatAgent.m_qorStorage;
  NatLogOut& log = _NatAgent.Log();
  if (mode == GW_REMOVE) {
    storage.RemoveGw(address, 0);
    return true;
  }
  const NatMappings mappings = GwMappings(address);
  switch (mode) {
    case GW_ADD:
      log.Trace("Add Gw Nat Settings\r\n", kLogOrdinary);
      storage.AddGw(mappings);
      return true;
    case GW_UPDATE:
      log.TraceFormat("Update Gw Nat Settings ");
      if (!storage.UpdateGw(mappings)) {
        log.TraceFormat("\r\nError: Gw Not Added\r\n");
      }
      return true;
    case GW_REMOVE:
      break;
  }
  log.TraceFormat("Error Gw Nat Update Unknown Mode\r\n");
  return false;
}

}  // namespace

bool LoadGwSettings(GwLoadMode mode) {
  if (!HaveConfig() || CurrentMediaConfig() == nullptr) {
    return false;
  }
  const std::string wanted = ReadConfig(&NatConfig::gwInterface);
  std::vector<InterfaceInfo> interfaces;
  const unsigned int count = BsdSocket::GetLocalHostEx(&interfaces, nullptr);
  for (unsigned int i = 0; i < count && i < interfaces.size(); ++i) {
    const u32 address = interfaces[i].address.IPAddrNetOrder();
    if (address == 0 || (wanted != "*" && wanted != interfaces[i].name)) {
      continue;
    }
    if (!LoadGwInterface(mode, address)) {
      return false;
    }
  }
  return true;
}
