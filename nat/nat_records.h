#pragma once

#include "platform/types.h"

// The records in which call agents ask and the agent answers. Addresses are in network byte order, ports in host
// order; 0 is no address. NatItem and NatRespItem travel on the queues exactly as they lie in memory.

enum NatFlag : u32 {
  NATFLAG_NO_NEED_NAT = 0,
  NATFLAG_MAPPED = 1,
  NATFLAG_ERROR_NO_MAPPING = 2,
};

// Whoever asks; 2 is the party on queue 113, which has no name and no channel for answers.
enum CA_PROTO : u32 {
  CA_PROTO_CM = 0,
  CA_PROTO_SIP = 1,
  CA_PROTO_CC = 3,
};

enum NatPortType : u32 {
  NATPORT_UDP = 0,
  NATPORT_TCP = 1,
  NATPORT_TLS = 2,
};

struct NatItem {
  u32 ip = 0;
  u16 port = 0;
  u16 padding = 0;
};
static_assert(sizeof(NatItem) == 8);

struct NatRespItem {
  u32 ip = 0;
  u16 port = 0;
  u16 padding = 0;
  u32 mappedIp = 0;
  u16 mappedPort = 0;
  u16 mappedPadding = 0;
  NatFlag flag = NATFLAG_NO_NEED_NAT;
};
static_assert(sizeof(NatRespItem) == 20);

// The working record of one decision: which fields are asked and which answered depends on the operation.
struct NatSetting {
  u16 selfPort = 0;
  u16 mappedPort = 0;
  u32 mappedIp = 0;
  u32 localIp = 0;
  NatPortType portType = NATPORT_UDP;
};

// What a party is answered about one item, once the record has been worked out.
inline NatRespItem AnswerItem(const NatSetting& setting, NatFlag flag) {
  return {setting.localIp, setting.selfPort, 0, setting.mappedIp, setting.mappedPort, 0, flag};
}
