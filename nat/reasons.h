#pragma once

#include "agent/host.h"
#include "nat/nat_records.h"

// The answer that follows from a reason, NAT_WHY_...
constexpr NatFlag FlagOf(u32 why) {
  return why < NAT_WHY_ATTACHED   ? NATFLAG_MAPPED
         : why < NAT_WHY_NO_ROUTE ? NATFLAG_NO_NEED_NAT
                                  : NATFLAG_ERROR_NO_MAPPING;
}
