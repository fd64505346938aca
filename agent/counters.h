#pragma once

#include "agent/host.h"
#include "nat/nat_records.h"

// What requests came and what became of them, by the party's protocol. Plain numbers: changed in turns of the main loop
// and read by the host, both under the settings lock.
struct Counters {
  static constexpr u32 kParties = 4;  // protocols 0 to 3
  static constexpr u32 kKinds = 7;    // frames to the agent, 1 to 6

  void CountRequest(CA_PROTO party, u32 kind) { ++requests[party % kParties][kind]; }
  void CountItem(CA_PROTO party, u32 kind, u32 why) { ++items[party % kParties][kind][why]; }

  u64 requests[kParties][kKinds] = {};
  u64 items[kParties][kKinds][NAT_HOST_MAX_WHY] = {};
  u64 updates = 0;    // of the CGI party
  u64 names[2] = {};  // looked up: without and with an address
};

// The kinds of request, as their frames are numbered.
enum : u32 {
  KIND_CS = 1,
  KIND_CS_LIST = 2,
  KIND_RTP = 3,
  KIND_REVERSE = 4,
  KIND_CLOSE = 5,
  KIND_UPDATE = 6,
};
