#pragma once

#include "nat/nat_records.h"

// A static translation of a local port range onto a public address and port range. Ports in host order, ends inclusive.
struct PortRange {
  u16 localStart = 0;
  u16 localEnd = 0;
  u32 publicIp = 0;     // network byte order
  u16 publicStart = 0;  // the port under which localStart is seen from outside
  u16 publicEnd = 0;    // the highest public port that may be handed out

  // Translates setting.selfPort. A port outside the local range: false, setting unchanged. Otherwise mappedIp and
  // mappedPort are written (the port modulo 65536), and the result tells whether it is within publicEnd.
  bool Translate(NatSetting& setting) const;
};
