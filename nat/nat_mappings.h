#pragma once

#include "nat/nat_records.h"
#include "nat/port_range.h"

enum UdpMapMode : u32 {
  MAP_NONE = 0,
  MAP_STATIC = 1,  // through the port range
  MAP_STUN = 2,    // learnt port by port by the STUN client
};

// The UDP translation of one call agent or of one gateway interface.
class NatMappings {
 public:
  NatMappings() = default;
  explicit NatMappings(u32 ip) : localIp(ip) {}
  virtual ~NatMappings() = default;
  NatMappings(const NatMappings&) = default;
  NatMappings& operator=(const NatMappings&) = default;

  // The covered local address and ports; returns true, as do all setters here.
  bool Set(u32 ip, u16 localStart, u16 localEnd, UdpMapMode newMode, u16 newFlags, bool withoutRtcp);
  void SetStatic(u32 publicIp, u16 publicStart, u16 publicEnd);
  bool SetMode(UdpMapMode newMode);

  u32 GetStaticIp() const { return mode == MAP_STATIC ? range.publicIp : 0; }
  bool InRange(u16 port) const { return range.localStart <= port && port <= range.localEnd; }
  bool GetRange(u16& start, u16& end) const;

  // The static translation of setting.selfPort. Whenever there is none, the mapped fields are 0 and the result false.
  bool GetMapping(NatSetting& setting) const;

  // The step at which STUN watches the range: 2 leaves out the RTCP ports.
  u16 StunInterval() const { return noRtcp ? 2 : 1; }

  bool noRtcp = false;
  u16 flags = 0;
  u32 localIp = 0;  // network byte order; a gateway mapping's interface address
  UdpMapMode mode = MAP_NONE;
  PortRange range;
};

inline constexpr u16 kGwIdentityFlag = 0x01;    // part of a gateway mapping's identity
inline constexpr u16 kFollowUplinkFlag = 0x10;  // the mapping's localIp follows the uplink address
