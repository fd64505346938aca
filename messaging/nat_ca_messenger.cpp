#include "messaging/nat_ca_messenger.h"

#include "agent/faults.h"
#include "agent/nat_agent.h"
#include "agent/party_events.h"
#include "messaging/nat_agent_messenger.h"
#include "platform/messaging/late_request.h"
#include "platform/sockets/inet.h"

namespace {

// Null for a party without a name.
const char* PartyName(CA_PROTO proto) {
  switch (proto) {
    case CA_PROTO_CM:
      return "CM ";
    case CA_PROTO_SIP:
      return "Sip UA ";
    case CA_PROTO_CC:
      return "CC ";
  }
  return nullptr;
}

// True for a dotted address, which is answered at once; anything else is a host name, the empty text included.
bool IsAddress(const std::string& destination, u32& address) {
  address = sockets::inet_addr(destination.c_str());
  return address != sockets::kNoAddress;
}

}  // namespace

bool NatCAMessenger::OnPartyStateChanged(bool online) {
  TellParty(online, m_number, State());
  if (!online) {
    _NatAgent.LeaveBehind(m_proto);
  }
  const char* name = PartyName(m_proto);
  if (name == nullptr) {
    return false;
  }
  NatLogOut& log = _NatAgent.Log();
  if (!online) {
    log.TraceFormat("%s Disconnected \r\n", name);
    try {
      _NatAgent.m_configManager->UnloadNatSettings(m_proto);
    } catch (...) {
      ReportFault("the settings of a call agent are not all dropped");
    }
    return true;
  }
  log.TraceFormat("Connected Call Agent %s\r\n", name);
  if (LoadSettings()) {
    log.TraceFormat("Loaded Nat Settings for %s\r\n", name);
  } else {
    log.TraceFormat("Error: Loading Congif File Failed\r\n");
  }
  return true;
}

bool NatCAMessenger::LoadSettings() {
  try {
    return _NatAgent.m_configManager->LoadNatSettings(m_proto);
  } catch (...) {
    ReportFault("the settings of a call agent are not loaded");
    return false;
  }
}

void NatCAMessenger::OnRefused(const messaging::Refusal& refusal) { TellRefusal(m_number, refusal); }

u32 NatCAMessenger::OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const NatItem& item,
                                          const NatPortType& portType, const u32& value) {
  _NatAgent.m_counters.CountRequest(m_proto, KIND_CS);
  try {
    u32 address = 0;
    if (IsAddress(destination, address)) {
      _NatAgent.OnRequestCSNatMapping(queryId, address, item, m_proto, portType);
    } else {
      _NatAgent.SetQueryforResolve(queryId, destination, {item}, portType, m_proto, static_cast<CA_PROTO>(value));
    }
  } catch (...) {
    FailRequest(RequestKind::CS, queryId, {}, value);
  }
  return 1;
}

u32 NatCAMessenger::OnRequestCSNatMapping(const u64& queryId, const std::string& destination,
                                          const std::list<NatItem>& items, const u32& value) {
  _NatAgent.m_counters.CountRequest(m_proto, KIND_CS_LIST);
  try {
    u32 address = 0;
    if (IsAddress(destination, address)) {
      _NatAgent.OnRequestCSNatMapping(queryId, address, items, m_proto);
    } else {
      _NatAgent.SetQueryforResolve(queryId, destination, items, NATPORT_UDP, m_proto, static_cast<CA_PROTO>(value));
    }
  } catch (...) {
    FailRequest(RequestKind::CS_LIST, queryId, items, value);
  }
  return 0;
}

u32 NatCAMessenger::OnRequestRTPNatMapping(const u64& queryId, const std::string& destination,
                                           const std::list<NatItem>& items, const u32& csProto) {
  _NatAgent.m_counters.CountRequest(m_proto, KIND_RTP);
  try {
    NatLogOut& log = _NatAgent.Log();
    u32 address = 0;
    if (IsAddress(destination, address)) {
      log.TraceNumber("CA_PROTO ", m_proto);
      _NatAgent.OnRequestRTPNatMapping(queryId, address, items, m_proto, csProto);
    } else {
      log.TraceNumber("SetQueryfor CA_Proto ", m_proto);
      _NatAgent.SetQueryforResolve(queryId, destination, items, NATPORT_UDP, m_proto, static_cast<CA_PROTO>(csProto));
    }
  } catch (...) {
    FailRequest(RequestKind::RTP, queryId, items, csProto);
  }
  return 1;
}

u32 NatCAMessenger::OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items,
                                                  const u32& value) {
  _NatAgent.m_counters.CountRequest(m_proto, KIND_REVERSE);
  try {
    _NatAgent.OnRequestReverceRTPNatMapping(queryId, items, m_proto, value);
  } catch (...) {
    FailRequest(RequestKind::REVERSE, queryId, items, value);
  }
  return 1;
}

u32 NatCAMessenger::OnCloseRTPNatMapping(const u64& queryId) {
  _NatAgent.m_counters.CountRequest(m_proto, KIND_CLOSE);
  try {
    _NatAgent.CloseRTPNatMapping(queryId);
  } catch (...) {
    ReportFault("a query id is not closed");
  }
  return 0;
}

void NatCAMessenger::FailRequest(RequestKind kind, const u64& queryId, const std::list<NatItem>& items,
                                 u32 csProto) noexcept {
  ReportFault("a request was not handled to its end");
  constexpr u32 kKinds[] = {KIND_CS, KIND_CS_LIST, KIND_RTP, KIND_REVERSE};
  _NatAgent.m_counters.CountItem(m_proto, kKinds[static_cast<int>(kind)], NAT_WHY_FAULT);
  // Queue 113 is not answered.
  if (!RequestScope::IsOpen() || PartyName(m_proto) == nullptr) {
    return;
  }
  if (!Contain("a party is hung up on", [&] { AnswerNoMapping(kind, queryId, items, csProto); })) {
    HangUp();
  }
}

void NatCAMessenger::AnswerNoMapping(RequestKind kind, const u64& queryId, const std::list<NatItem>& items,
                                     u32 csProto) {
  std::list<NatRespItem> answers;
  for (const NatItem& item : items) {
    if (kind == RequestKind::REVERSE) {
      answers.push_back({.mappedIp = item.ip, .mappedPort = item.port});
    } else {
      answers.push_back({.ip = item.ip, .port = item.port, .flag = NATFLAG_ERROR_NO_MAPPING});
    }
  }
  switch (kind) {
    case RequestKind::CS:
      ResponseCSNatMapping(queryId, NatItem{}, NATFLAG_ERROR_NO_MAPPING, 0);
      break;
    case RequestKind::CS_LIST:
      ResponseCSNatMapping(queryId, answers, NATFLAG_ERROR_NO_MAPPING);
      break;
    case RequestKind::RTP:
      ResponseRTPNatMapping(queryId, answers, csProto);
      break;
    case RequestKind::REVERSE:
      ResponseReverceRTPNatMapping(queryId, answers, 0);
      break;
  }
}
