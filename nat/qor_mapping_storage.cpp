#include "nat/qor_mapping_storage.h"

#include <algorithm>

#include "agent/log_text.h"
#include "agent/nat_agent.h"
#include "nat/reasons.h"

// --- look-ups ---

namespace {

u32 ByStun(NatSetting& setting, QorMappingStorage::Purpose purpose) NAT_REQUIRES(g_settingsLock) {
  StunManagerWrapper& stun = _NatAgent.m_stunWrapper;
  const u32 why = stun.FindStunMapping(setting.selfPort, setting.mappedIp, setting.mappedPort);
  if (why != NAT_WHY_MAPPED_BY_STUN && purpose == QorMappingStorage::Purpose::ANSWER) {
    stun.Scan();
  }
  return why;
}

u32 ByRange(const std::unique_ptr<PortRange>& range, NatSetting& setting) {
  if (!range) {
    return NAT_WHY_NO_PUBLIC_SIDE;
  }
  return range->Translate(setting) ? NAT_WHY_MAPPED_BY_CONFIGURATION : NAT_WHY_OTHER_PORT;
}

}  // namespace

u32 QorMappingStorage::LookUpCS(const CA_PROTO& proto, NatSetting& setting, Purpose purpose) const {
  if (setting.portType != NATPORT_UDP) {
    return proto != CA_PROTO_SIP ? u32{NAT_WHY_NOT_SIGNALLING}
                                 : ByRange(setting.portType == NATPORT_TCP ? sipTcp : sipTls, setting);
  }
  const auto& mappings = proto == CA_PROTO_SIP ? sipUdp : otherUdp;
  if (!mappings) {
    return proto == CA_PROTO_SIP ? NAT_WHY_NO_PUBLIC_SIDE : NAT_WHY_NOT_SIGNALLING;
  }
  if (mappings->mode == MAP_STUN) {
    return ByStun(setting, purpose);
  }
  if (mappings->GetMapping(setting)) {
    return NAT_WHY_MAPPED_BY_CONFIGURATION;
  }
  return mappings->mode == MAP_STATIC ? NAT_WHY_OTHER_PORT : NAT_WHY_NO_PUBLIC_SIDE;
}

u32 QorMappingStorage::LookUpGw(NatSetting& setting, Purpose purpose) const {
  const auto chosen = std::find_if(gateways.begin(), gateways.end(), [&](const NatMappings& gateway) {
    return gateway.localIp == setting.localIp && gateway.InRange(setting.selfPort);
  });
  if (chosen == gateways.end()) {
    return NAT_WHY_OUTSIDE_RTP_RANGE;
  }
  if (chosen->mode == MAP_STUN) {
    return ByStun(setting, purpose);
  }
  if (!chosen->GetMapping(setting)) {
    return chosen->mode == MAP_STATIC ? NAT_WHY_BEYOND_RANGE : NAT_WHY_NO_PUBLIC_SIDE;
  }
  return setting.mappedIp == 0 || setting.mappedPort == 0 ? NAT_WHY_NO_PUBLIC_SIDE : NAT_WHY_MAPPED_BY_CONFIGURATION;
}

bool QorMappingStorage::GetCSMapping(const CA_PROTO& proto, NatSetting& setting) const {
  return FlagOf(LookUpCS(proto, setting, Purpose::ANSWER)) == NATFLAG_MAPPED;
}

bool QorMappingStorage::GetGwMapping(NatSetting& setting) const {
  return LookUpGw(setting, Purpose::ANSWER) != NAT_WHY_OUTSIDE_RTP_RANGE;
}

bool QorMappingStorage::HasGw(u32 localIp) const {
  return std::any_of(gateways.begin(), gateways.end(),
                     [localIp](const NatMappings& gateway) { return gateway.localIp == localIp; });
}

bool QorMappingStorage::Describe(std::size_t number, NatHostMapping& mapping) const {
  const auto set = [&mapping](u32 what, u32 by, const PortRange& range, u32 localIp) {
    mapping = {mapping.size,      what,           by, localIp, range.localStart, range.localEnd, range.publicIp,
               range.publicStart, range.publicEnd};
    return true;
  };
  const auto setUdp = [&set](u32 what, const NatMappings& udp) {
    const u32 by = udp.mode == MAP_STUN     ? NAT_HOST_BY_STUN
                   : udp.mode == MAP_STATIC ? NAT_HOST_BY_CONFIGURATION
                                            : NAT_HOST_BY_NOTHING;
    return set(what, by, udp.range, udp.localIp);
  };
  if (sipUdp && number-- == 0) {
    return setUdp(NAT_HOST_SIP_UDP, *sipUdp);
  }
  if (sipTcp && number-- == 0) {
    return set(NAT_HOST_SIP_TCP, NAT_HOST_BY_CONFIGURATION, *sipTcp, 0);
  }
  if (sipTls && number-- == 0) {
    return set(NAT_HOST_SIP_TLS, NAT_HOST_BY_CONFIGURATION, *sipTls, 0);
  }
  return number < gateways.size() &&
         setUdp(NAT_HOST_MEDIA, *std::next(gateways.begin(), static_cast<std::ptrdiff_t>(number)));
}

// --- the call agents' own ports ---

bool QorMappingStorage::SetRange(u8 index, const PortRange* range) {
  auto& slot = index == 0 ? sipTcp : sipTls;
  if (range == nullptr || range->publicIp == 0) {
    slot.reset();
  } else if (slot) {
    *slot = *range;
  } else {
    slot = std::make_unique<PortRange>(*range);
  }
  return true;
}

bool QorMappingStorage::SetUdpMappings(const CA_PROTO& proto, const NatMappings* mappings) {
  auto& slot = proto == CA_PROTO_SIP ? sipUdp : otherUdp;
  if (mappings != nullptr && !(mappings->mode == MAP_STATIC && mappings->GetStaticIp() == 0)) {
    if (!slot) {
      slot = std::make_unique<NatMappings>();
    }
    ChangeMode(*slot, *mappings, proto);
  } else if (slot) {
    if (slot->mode == MAP_STUN) {
      RemoveStunPorts(*slot);
    }
    slot.reset();
  }
  return true;
}

bool QorMappingStorage::Unload(const CA_PROTO& proto) {
  switch (proto) {
    case CA_PROTO_SIP:
      SetRange(0, nullptr);
      SetRange(1, nullptr);
      SetUdpMappings(CA_PROTO_SIP, nullptr);
      return true;
    case CA_PROTO_CM:
    case CA_PROTO_CC:
      for (const NatMappings& gateway : gateways) {
        if (gateway.mode == MAP_STUN) {
          RemoveStunPorts(gateway);
        }
      }
      gateways.clear();
      return true;
  }
  return false;
}

// --- gateway interfaces ---

bool QorMappingStorage::AddGw(const NatMappings& mappings) {
  gateways.push_back(mappings);  // first, so that what STUN was started for is let go with it
  if (mappings.mode == MAP_STUN) {
    AddStunPorts(mappings, CA_PROTO_CC);
  }
  return true;
}

bool QorMappingStorage::UpdateGw(const NatMappings& mappings) {
  const auto found = FindGw(mappings.localIp, mappings.flags & kGwIdentityFlag);
  return found != gateways.end() && ChangeMode(*found, mappings, CA_PROTO_CM);
}

bool QorMappingStorage::RemoveGw(u32 localIp, u8 flagBit) {
  const auto found = FindGw(localIp, flagBit);
  if (found == gateways.end()) {
    return false;
  }
  if (found->mode == MAP_STUN) {
    RemoveStunPorts(*found);
  }
  gateways.erase(found);
  return true;
}

bool QorMappingStorage::FollowUplink(u32 uplinkIp) {
  for (NatMappings& gateway : gateways) {
    if ((gateway.flags & kFollowUplinkFlag) != 0) {
      gateway.localIp = uplinkIp;
    }
  }
  return true;
}

std::list<NatMappings>::iterator QorMappingStorage::FindGw(u32 localIp, u16 flagBit) {
  return std::find_if(gateways.begin(), gateways.end(), [=](const NatMappings& gateway) {
    return gateway.localIp == localIp && (gateway.flags & kGwIdentityFlag) == flagBit;
  });
}

// --- keeping STUN in step ---

bool QorMappingStorage::ChangeMode(NatMappings& current, const NatMappings& wanted, const CA_PROTO& proto) {
  _NatAgent.Log().TraceFormat("UdpMapMode -- oldMode %u --newMode %u\r\n%s", static_cast<unsigned>(current.mode),
                              static_cast<unsigned>(wanted.mode), kRule);
  switch (wanted.mode) {
    case MAP_STATIC:
      if (current.mode == MAP_STUN) {
        RemoveStunPorts(current);
      }
      current = wanted;
      return true;
    case MAP_STUN:
      if (current.mode == MAP_STUN) {
        const u16 owner = static_cast<u16>(proto);
        _NatAgent.m_stunWrapper.UpdatePorts(
            {current.range.localStart, current.range.localEnd, current.StunInterval(), owner},
            {wanted.range.localStart, wanted.range.localEnd, wanted.StunInterval(), owner});
        current = wanted;
      } else {
        current = wanted;
        AddStunPorts(current, proto);
      }
      return true;
    case MAP_NONE:
      break;
  }
  return false;
}

void QorMappingStorage::AddStunPorts(const NatMappings& mappings, CA_PROTO owner) {
  _NatAgent.m_stunWrapper.Start();
  _NatAgent.m_stunWrapper.AddPorts(mappings.range.localStart, mappings.range.localEnd, mappings.StunInterval(),
                                   static_cast<u16>(owner));
}

void QorMappingStorage::RemoveStunPorts(const NatMappings& mappings) {
  // Every port, not every second one: the RTCP ports may have been watched until a moment ago.
  _NatAgent.m_stunWrapper.RemovePorts(mappings.range.localStart, mappings.range.localEnd, 1);
  _NatAgent.m_stunWrapper.Release();
}
