// RTP requests: the public side of the device's own media ports, for a call through one of its gateway interfaces.

#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"

bool NatAgent::GetGwNatSettings(const u64& queryId, const u32& remoteIp, const CA_PROTO& proto, NatSetting& setting,
                                NatFlag& flag) {
  setting.mappedIp = 0;
  setting.mappedPort = 0;
  u32 overGateway = 0;
  u32 interfaceIp = 0;
  if (remoteIp == 0) {
    overGateway = 1;
    Log().Trace("remoteip = 0(dns error?):mark as over gw\r\n", kLogOrdinary);
  } else if (!m_routeHelper.GetOutInterface(remoteIp, interfaceIp, overGateway)) {
    Log().Trace("Error:remote not available\r\n", kLogOrdinary);
    return false;
  }
  if (setting.localIp == 0) {
    setting.localIp = interfaceIp;
  }
  if (!IsCAOnLine(proto) || overGateway == 0 || m_excTable.IsExcluded(remoteIp) == 1 ||
      !m_qorStorage->HasGw(setting.localIp)) {
    flag = NATFLAG_NO_NEED_NAT;
    return true;
  }
  Log().Trace("Need Qor Nat\r\n", kLogOrdinary);
  if (!m_qorStorage->GetGwMapping(setting)) {
    flag = NATFLAG_NO_NEED_NAT;
    return true;
  }
  if (setting.mappedIp == 0 || setting.mappedPort == 0) {
    flag = NATFLAG_ERROR_NO_MAPPING;
    Log().Trace("Error:No Mapped Ip or Port\r\n", kLogOrdinary);
    return true;
  }
  flag = NATFLAG_MAPPED;
  m_reverseNat.AddRevTarget(queryId, setting);
  return true;
}

u32 NatAgent::OnRequestRTPNatMapping(const u64& queryId, const u32& remoteIp, const std::list<NatItem>& items,
                                     const CA_PROTO& proto, const u32& csProto) {
  const CA_PROTO callServer = static_cast<CA_PROTO>(csProto);
  Log().LogNatListRequest(queryId, remoteIp, items, callServer, true);
  std::list<NatRespItem> answers;
  for (const NatItem& item : items) {
    NatSetting setting;
    setting.selfPort = item.port;
    setting.localIp = item.ip;
    NatFlag flag = NATFLAG_ERROR_NO_MAPPING;
    if (!GetGwNatSettings(queryId, remoteIp, callServer, setting, flag)) {
      flag = NATFLAG_ERROR_NO_MAPPING;
    }
    answers.push_back(AnswerItem(setting, flag));
  }
  if (NatCAMessenger* channel = ChannelOf(proto)) {
    channel->ResponseRTPNatMapping(queryId, answers, csProto);
  }
  Log().TraceNumber("CA_Proto ", proto);
  Log().LogNatListResponse(queryId, answers, true);
  return 0;
}
