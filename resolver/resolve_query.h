#pragma once

#include <list>
#include <string>

#include "nat/nat_records.h"

// A name that the resolver thread is to look up, or has looked up.
struct ResolvedName {
  std::string hostName;  // as it was queued
  u32 address = 0;       // network byte order; 0 before the look-up, and when it failed
};

// A request that waits for its destination's name.
struct ResolveQuery {
  u64 queryId = 0;
  std::string hostName;
  std::list<NatItem> items;
  NatPortType portType = NATPORT_UDP;
  CA_PROTO proto{};    // the asking channel's
  CA_PROTO csProto{};  // the further number that the request carried; of an RTP request the call server's protocol
  u64 ticket = 0;      // by which the messenger keeps the request
};
