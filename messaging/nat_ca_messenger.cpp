#include "messaging/nat_ca_messenger.h"

#include "agent/nat_agent.h"
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
    _NatAgent.m_configManager->UnloadNatSettings(m_proto);
    return true;
  }
  log.TraceFormat("Connected Call Agent %s\r\n", name);
  if (_NatAgent.m_configManager->LoadNatSettings(m_proto)) {
    log.TraceFormat("Loaded Nat Settings for %s\r\n", name);
  } else {
    log.TraceFormat("Error: Loading Congif File Failed\r\n");
  }
  return true;
}

u32 NatCAMessenger::OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const NatItem& item,
                                          const NatPortType& portType, const u32& value) {
  u32 address = 0;
  if (IsAddress(destination, address)) {
    _NatAgent.OnRequestCSNatMapping(queryId, address, item, m_proto, portType);
  } else {
    _NatAgent.SetQueryforResolve(queryId, destination, {item}, portType, m_proto, static_cast<CA_PROTO>(value));
  }
  return 1;
}

u32 NatCAMessenger::OnRequestCSNatMapping(const u64& queryId, const std::string& destination,
                                          const std::list<NatItem>& items, const u32& value) {
  u32 address = 0;
  if (IsAddress(destination, address)) {
    _NatAgent.OnRequestCSNatMapping(queryId, address, items, m_proto);
  } else {
    _NatAgent.SetQueryforResolve(queryId, destination, items, NATPORT_UDP, m_proto, static_cast<CA_PROTO>(value));
  }
  return 0;
}

u32 NatCAMessenger::OnRequestRTPNatMapping(const u64& queryId, const std::string& destination,
                                           const std::list<NatItem>& items, const u32& csProto) {
  NatLogOut& log = _NatAgent.Log();
  u32 address = 0;
  if (IsAddress(destination, address)) {
    log.TraceNumber("CA_PROTO ", m_proto);
    _NatAgent.OnRequestRTPNatMapping(queryId, address, items, m_proto, csProto);
  } else {
    log.TraceNumber("SetQueryfor CA_Proto ", m_proto);
    _NatAgent.SetQueryforResolve(queryId, destination, items, NATPORT_UDP, m_proto, static_cast<CA_PROTO>(csProto));
  }
  return 1;
}

u32 NatCAMessenger::OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items,
                                                  const u32& value) {
  _NatAgent.OnRequestReverceRTPNatMapping(queryId, items, m_proto, value);
  return 1;
}

u32 NatCAMessenger::OnCloseRTPNatMapping(const u64& queryId) {
  _NatAgent.CloseRTPNatMapping(queryId);
  return 0;
}
