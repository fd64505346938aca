#pragma once

#include <list>
#include <string>

#include "nat/nat_records.h"
#include "platform/messaging/late_request.h"

struct NameLane;

// A name that the resolver thread is to look up, or has looked up. It exists until its result has been taken, also when
// its request was answered or closed before. It is moved from list to list, which needs no memory.
struct ResolvedName {
  std::string hostName;      // as it was queued
  u32 address = 0;           // network byte order; 0 before the look-up, and when it failed
  NameLane* lane = nullptr;  // the queue's: where it waits, while somebody waits for it
  LateRequest request{};     // agent thread only
};

using NameList = std::list<ResolvedName>;

// The names of one party, each list oldest first.
struct NameLane {
  NameList waiting;
  NameList givenUp;  // answered by an earlier look-up of the same name, or closed
};

// A request that waits for its destination's name.
struct ResolveQuery {
  u64 queryId = 0;
  std::string hostName;
  std::list<NatItem> items;
  NatPortType portType = NATPORT_UDP;
  CA_PROTO proto{};           // the asking channel's
  CA_PROTO csProto{};         // the further number it carried; of an RTP request the call server's protocol
  NameList::iterator name{};  // whose look-up is the request's own
};
