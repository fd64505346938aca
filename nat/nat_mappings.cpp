#include "nat/nat_mappings.h"

bool PortRange::Translate(NatSetting& setting) const {
  if (setting.selfPort < localStart || setting.selfPort > localEnd) {
    return false;
  }
  const u16 mappedPort = static_cast<u16>(publicStart - localStart + setting.selfPort);
  setting.mappedPort = mappedPort;
  setting.mappedIp = publicIp;
  return mappedPort <= publicEnd;
}

bool NatMappings::Set(u32 ip, u16 localStart, u16 localEnd, UdpMapMode newMode, u16 newFlags, bool withoutRtcp) {
  localIp = ip;
  range.localStart = localStart;
  range.localEnd = localEnd;
  flags = newFlags;
  noRtcp = withoutRtcp;
  SetMode(newMode);
  return true;
}

void NatMappings::SetStatic(u32 publicIp, u16 publicStart, u16 publicEnd) {
  range.publicIp = publicIp;
  range.publicStart = publicStart;
  range.publicEnd = publicEnd;
  mode = MAP_STATIC;
}

bool NatMappings::SetMode(UdpMapMode newMode) {
  mode = newMode;
  return true;
}

bool NatMappings::GetRange(u16& start, u16& end) const {
  start = range.localStart;
  end = range.localEnd;
  return true;
}

bool NatMappings::GetMapping(NatSetting& setting) const {
  if (mode == MAP_STATIC && range.Translate(setting)) {
    return true;
  }
  setting.mappedIp = 0;
  setting.mappedPort = 0;
  return false;
}
