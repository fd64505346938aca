#pragma once

#include "nat/nat_records.h"

// Printable names, constant texts. They end in one blank, so that further text can follow directly; the one for an
// unknown flag ends in CR LF.
const char* GetNatFlagName(const NatFlag& flag);
const char* GetCAProtoName(const CA_PROTO& proto);

// The party on the queue of a protocol, as people call it: "sip", "cm", "cc", "q113".
const char* GetPartyName(const CA_PROTO& proto);

// Names in the signalling dumps, without a trailing blank: "Sip" or "H323"; "Udp", "Tcp", "Tls" or the empty text.
const char* GetCsProtocolName(const CA_PROTO& proto);
const char* GetPortTypeName(const NatPortType& portType);

// Dotted text of an address. It stays valid until the same thread's next conversion.
const char* IpToString(u32 address);
