// Reverse RTP requests and closing: from public endpoints back to the local ones, and the end of a query id.

#include <algorithm>

#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"

u32 NatAgent::OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items, const CA_PROTO& proto,
                                            const u32&) {
  Log().LogRevRtpRequest(queryId, items);
  std::list<NatRespItem> answers;
  for (const NatItem& item : items) {
    NatSetting setting;
    setting.mappedIp = item.ip;
    setting.mappedPort = item.port;
    NatFlag flag = NATFLAG_NO_NEED_NAT;
    GetRevGwNatSettings(setting, flag);
    m_counters.CountItem(proto, KIND_REVERSE, flag == NATFLAG_MAPPED ? NAT_WHY_FOUND : NAT_WHY_NOT_HANDED_OUT);
    answers.push_back(AnswerItem(setting, flag));
  }
  if (NatCAMessenger* channel = ChannelOf(proto)) {
    channel->ResponseReverceRTPNatMapping(queryId, answers, 0);
  }
  Log().LogRevRtpResponse(queryId, answers);
  return 0;
}

bool NatAgent::GetRevGwNatSettings(NatSetting& setting, NatFlag& flag) {
  flag = m_reverseNat.GetRevSettings(setting) ? NATFLAG_MAPPED : NATFLAG_NO_NEED_NAT;
  return true;
}

bool NatAgent::CloseRTPNatMapping(const u64& queryId) {
  Log().TraceNumber("Got CloseRTPNatMapping request for ", queryId);
  const bool deleted = m_reverseNat.DeleteRevTarget(queryId);
  Log().Trace(deleted ? "Rev target deleted\r\n" : "No rev target with such queryId\r\n", kLogOrdinary);
  // A party that starts again uses its predecessor's ids: a request that somebody waits for goes before one left
  // behind.
  const auto find = [&](bool leftBehindToo) {
    return std::find_if(m_pendingQueries.begin(), m_pendingQueries.end(), [&](const ResolveQuery& query) {
      return query.queryId == queryId && (leftBehindToo || query.name->request.HasParty());
    });
  };
  auto waiting = find(false);
  if (waiting == m_pendingQueries.end()) {
    waiting = find(true);
  }
  if (waiting != m_pendingQueries.end()) {
    {
      ScopedLock lock(m_resolveEvent);
      GiveUpName(*waiting);
    }
    m_pendingQueries.erase(waiting);
  }
  return true;
}
