#include "nat/nat_names.h"

#include "platform/sockets/inet.h"

const char* GetNatFlagName(const NatFlag& flag) {
  switch (flag) {
    case NATFLAG_NO_NEED_NAT:
      return "No need Nat ";
    case NATFLAG_MAPPED:
      return "Mapped Successfully ";
    case NATFLAG_ERROR_NO_MAPPING:
      return "Error No Mapping ";
  }
  return "Unknown NatFlag\r\n";
}

const char* GetCAProtoName(const CA_PROTO& proto) {
  switch (proto) {
    case CA_PROTO_CM:
      return "CM ";
    case CA_PROTO_SIP:
      return "Sip ";
    case CA_PROTO_CC:
      return "CC ";
  }
  return "Unknown ptotoType ";
}

const char* GetPartyName(const CA_PROTO& proto) {
  constexpr const char* kNames[] = {"cm", "sip", "q113", "cc"};
  return kNames[proto & 3U];
}

const char* GetCsProtocolName(const CA_PROTO& proto) { return proto == CA_PROTO_SIP ? "Sip" : "H323"; }

const char* GetPortTypeName(const NatPortType& portType) {
  switch (portType) {
    case NATPORT_UDP:
      return "Udp";
    case NATPORT_TCP:
      return "Tcp";
    case NATPORT_TLS:
      return "Tls";
  }
  return "";
}

const char* IpToString(u32 address) {
  const char* text = sockets::inet_ntoa(address);
  return text != nullptr ? text : "";
}
