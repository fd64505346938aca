// Signalling requests: whether a remote party sees a local signalling port through translation, and as what.

#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"

bool NatAgent::GetCSNatSettings(const u64&, const u32& destIp, const CA_PROTO& proto, NatSetting& setting,
                                NatFlag& flag) {
  u32 interfaceAddress = 0;
  u32 viaGateway = 0;
  if (!m_routeHelper.GetOutInterface(destIp, interfaceAddress, viaGateway)) {
    return false;
  }
  if (setting.selfPort == 0) {
    return false;
  }
  if (viaGateway == 0 || m_excTable.IsExcluded(destIp) == 1) {
    flag = NATFLAG_NO_NEED_NAT;
    return true;
  }
  flag = m_qorStorage->GetCSMapping(proto, setting) ? NATFLAG_MAPPED : NATFLAG_ERROR_NO_MAPPING;
  return true;
}

u32 NatAgent::OnRequestCSNatMapping(const u64& queryId, const u32& destIp, const NatItem& item, const CA_PROTO& proto,
                                    const NatPortType& portType) {
  NatSetting setting;
  setting.selfPort = item.port;
  setting.localIp = item.ip;
  setting.portType = portType;
  Log().LogCSRequest(queryId, destIp, setting, proto);

  NatFlag flag = NATFLAG_ERROR_NO_MAPPING;
  if (!GetCSNatSettings(queryId, destIp, proto, setting, flag)) {
    Log().Trace("Error:GetCSNatSettings\r\n", kLogOrdinary);
    flag = NATFLAG_ERROR_NO_MAPPING;
  }
  NatItem answer;
  if (flag != NATFLAG_ERROR_NO_MAPPING) {
    answer.ip = setting.mappedIp;
    answer.port = setting.mappedPort;
  }
  if (NatCAMessenger* channel = ChannelOf(proto)) {
    channel->ResponseCSNatMapping(queryId, answer, flag, 0);
  }
  Log().LogCSResponse(queryId, proto, setting, flag);
  return 0;
}

u32 NatAgent::OnRequestCSNatMapping(const u64& queryId, const u32& destIp, const std::list<NatItem>& items,
                                    const CA_PROTO& proto) {
  Log().LogNatListRequest(queryId, destIp, items, CA_PROTO_CM, false);
  std::list<NatRespItem> answers;
  NatFlag lastFlag = NATFLAG_ERROR_NO_MAPPING;  // also the value of an empty list
  if (destIp == 0) {
    Log().Trace("Error:Wrong dest ip\r\n", kLogOrdinary);
  } else {
    for (const NatItem& item : items) {
      NatSetting setting;
      setting.selfPort = item.port;
      setting.localIp = item.ip;
      NatFlag flag = NATFLAG_ERROR_NO_MAPPING;
      if (!GetCSNatSettings(queryId, destIp, proto, setting, flag)) {
        flag = NATFLAG_ERROR_NO_MAPPING;
      }
      answers.push_back(AnswerItem(setting, flag));
      lastFlag = flag;
    }
  }
  if (NatCAMessenger* channel = ChannelOf(proto)) {
    channel->ResponseCSNatMapping(queryId, answers, lastFlag);
  }
  Log().LogNatListResponse(queryId, answers, false);
  return 0;
}
