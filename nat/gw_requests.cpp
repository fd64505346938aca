// RTP requests: the public side of the device's own media ports, for a call through one of its gateway interfaces.

#include <string>
#include <utility>

#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"
#include "nat/nat_names.h"
#include "nat/reasons.h"
#include "platform/journal.h"

bool NatAgent::GetGwNatSettings(const u64& queryId, const u32& remoteIp, const CA_PROTO& proto, NatSetting& setting,
                                NatFlag& flag) {
  const u32 why = HandOutGw(queryId, remoteIp, proto, setting);
  if (why == NAT_WHY_NO_ROUTE) {
    return false;
  }
  flag = FlagOf(why);
  return true;
}

u32 NatAgent::DecideGw(u32 remoteIp, CA_PROTO callServer, NatSetting& setting, Purpose purpose) {
  setting.mappedIp = 0;
  setting.mappedPort = 0;
  u32 overGateway = 1;  // also of a name without an address
  u32 interfaceIp = 0;
  if (remoteIp != 0 && !m_routeHelper.GetOutInterface(remoteIp, interfaceIp, overGateway)) {
    return NAT_WHY_NO_ROUTE;
  }
  if (setting.localIp == 0) {
    setting.localIp = interfaceIp;
  }
  if (!IsCAOnLine(callServer)) {
    return NAT_WHY_SERVER_NOT_THERE;
  }
  if (overGateway == 0) {
    return NAT_WHY_ATTACHED;
  }
  if (m_excTable.IsExcluded(remoteIp) == 1) {
    return NAT_WHY_EXCLUDED;
  }
  if (!m_qorStorage->HasGw(setting.localIp)) {
    return WhyNoGw();
  }
  return m_qorStorage->LookUpGw(setting, purpose);
}

u32 NatAgent::WhyNoGw() {
  if (m_qorStorage->HasAnyGw()) {
    return NAT_WHY_OTHER_LOCAL_ADDRESS;
  }
  if (m_settings.media.state == NAT_HOST_LOADED) {
    return NAT_WHY_NO_GATEWAY_ADDRESS;
  }
  return IsCAOnLine(CA_PROTO_CM) && m_settings.media.state == NAT_HOST_DROPPED_BY_CC ? NAT_WHY_MEDIA_DROPPED
                                                                                     : NAT_WHY_MEDIA_NOT_LOADED;
}

u32 NatAgent::HandOutGw(u64 queryId, u32 remoteIp, CA_PROTO callServer, NatSetting& setting) {
  if (remoteIp == 0) {
    Log().Trace("remoteip = 0(dns error?):mark as over gw\r\n", kLogOrdinary);
  }
  const u32 why = DecideGw(remoteIp, callServer, setting, Purpose::ANSWER);
  const NatFlag flag = FlagOf(why);
  if (why == NAT_WHY_NO_ROUTE) {
    Log().Trace("Error:remote not available\r\n", kLogOrdinary);
  } else if (flag != NATFLAG_NO_NEED_NAT || why == NAT_WHY_OUTSIDE_RTP_RANGE) {
    Log().Trace("Need Qor Nat\r\n", kLogOrdinary);
    if (flag == NATFLAG_MAPPED) {
      m_reverseNat.AddRevTarget(queryId, setting);
    } else if (flag == NATFLAG_ERROR_NO_MAPPING) {
      Log().Trace("Error:No Mapped Ip or Port\r\n", kLogOrdinary);
    }
  }
  return why;
}

void NatAgent::TellMediaMiss(CA_PROTO party) {
  if (std::exchange(m_settings.isMediaMissTold, true)) {
    return;
  }
  JournalWarning(
      "the party " + std::string(GetPartyName(party)) +
      " asks for media ports while no media settings are loaded: they come with the party cm, and go when cm "
      "or cc hangs up");
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
    const u32 why = HandOutGw(queryId, remoteIp, callServer, setting);
    m_counters.CountItem(proto, KIND_RTP, why);
    if (why == NAT_WHY_MEDIA_NOT_LOADED || why == NAT_WHY_MEDIA_DROPPED) {
      TellMediaMiss(proto);
    }
    answers.push_back(AnswerItem(setting, FlagOf(why)));
  }
  if (NatCAMessenger* channel = ChannelOf(proto)) {
    channel->ResponseRTPNatMapping(queryId, answers, csProto);
  }
  Log().TraceNumber("CA_Proto ", proto);
  Log().LogNatListResponse(queryId, answers, true);
  return 0;
}
