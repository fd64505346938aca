// Signalling requests: whether a remote party sees a local signalling port through translation, and as what.

#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"
#include "nat/reasons.h"

namespace {

// Without a route, or for port 0, there is no decision.
bool IsDecided(u32 why) { return why != NAT_WHY_NO_ROUTE && why != NAT_WHY_PORT_0; }

}  // namespace

bool NatAgent::GetCSNatSettings(const u64&, const u32& destIp, const CA_PROTO& proto, NatSetting& setting,
                                NatFlag& flag) {
  const u32 why = DecideCS(destIp, proto, setting, Purpose::ANSWER);
  if (!IsDecided(why)) {
    return false;
  }
  flag = FlagOf(why);
  return true;
}

u32 NatAgent::DecideCS(u32 destIp, CA_PROTO proto, NatSetting& setting, Purpose purpose) {
  u32 interfaceAddress = 0;
  u32 viaGateway = 0;
  if (!m_routeHelper.GetOutInterface(destIp, interfaceAddress, viaGateway)) {
    return NAT_WHY_NO_ROUTE;
  }
  if (setting.selfPort == 0) {
    return NAT_WHY_PORT_0;
  }
  if (viaGateway == 0) {
    return NAT_WHY_ATTACHED;
  }
  if (m_excTable.IsExcluded(destIp) == 1) {
    return NAT_WHY_EXCLUDED;
  }
  return m_qorStorage->LookUpCS(proto, setting, purpose);
}

u32 NatAgent::OnRequestCSNatMapping(const u64& queryId, const u32& destIp, const NatItem& item, const CA_PROTO& proto,
                                    const NatPortType& portType) {
  NatSetting setting;
  setting.selfPort = item.port;
  setting.localIp = item.ip;
  setting.portType = portType;
  Log().LogCSRequest(queryId, destIp, setting, proto);

  const u32 why = DecideCS(destIp, proto, setting, Purpose::ANSWER);
  m_counters.CountItem(proto, KIND_CS, why);
  if (!IsDecided(why)) {
    Log().Trace("Error:GetCSNatSettings\r\n", kLogOrdinary);
  }
  const NatFlag flag = FlagOf(why);
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
    m_counters.CountItem(proto, KIND_CS_LIST, NAT_WHY_NO_DESTINATION);
  } else {
    for (const NatItem& item : items) {
      NatSetting setting;
      setting.selfPort = item.port;
      setting.localIp = item.ip;
      const u32 why = DecideCS(destIp, proto, setting, Purpose::ANSWER);
      m_counters.CountItem(proto, KIND_CS_LIST, why);
      lastFlag = FlagOf(why);
      answers.push_back(AnswerItem(setting, lastFlag));
    }
  }
  if (NatCAMessenger* channel = ChannelOf(proto)) {
    channel->ResponseCSNatMapping(queryId, answers, lastFlag);
  }
  Log().LogNatListResponse(queryId, answers, false);
  return 0;
}
