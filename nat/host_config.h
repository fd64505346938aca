#pragma once

#include <list>
#include <string>

#include "platform/types.h"

// The host's configuration as the agent reads it. The host owns every record; the agent reads fields afresh at every
// load, on its own thread and on the one that calls UpdateNatMain, never at the same time. It keeps no pointer beyond a
// load, writes nothing and frees nothing. Values are used as they stand: the host validates. From C++11 on.

struct MediaConfig {
  u16 rtpPortStart = 0;  // first and last local RTP port
  u16 rtpPortEnd = 0;
  u8 rtcpEnabled = 0;  // zero: STUN watches every second port only

#if __cplusplus >= 202002L
  bool operator==(const MediaConfig&) const = default;
#endif
};

struct NatExcRuleText {
  std::string ipText;    // dotted address
  std::string maskText;  // dotted mask

#if __cplusplus >= 202002L
  bool operator==(const NatExcRuleText&) const = default;
#endif
};

struct NatConfig {
  std::string gwInterface;  // interface whose addresses carry media, "*" for every one
  u16 sipUdpPort = 0;
  u16 sipTcpPort = 0;
  u8 sipUdpUseStun = 0;
  u32 sipUdpPublicIp = 0;  // network byte order; 0: off. So are the other public addresses
  u16 sipUdpPublicPort = 0;
  u32 sipTcpPublicIp = 0;
  u16 sipTcpPublicPort = 0;
  u8 gwUseStun = 0;
  u32 gwPublicIp = 0;
  u16 gwPublicPortStart = 0;
  u16 gwPublicPortEnd = 0;
  std::list<NatExcRuleText> natExclusions;
  u32 stunSetting1 = 0;  // probe period in seconds; 0: the STUN library's own
  u32 stunSetting2 = 0;  // initial retransmission time-out in milliseconds; 0: the library's own
  u32 stunSetting3 = 0;  // sends per probe; 0: the library's own
  // May be a list, "HOST[:PORT],HOST[:PORT]".
  std::string stunServerHost;
  u16 stunServerPort = 0;

#if __cplusplus >= 202002L
  bool operator==(const NatConfig&) const = default;
#endif
};

struct HostConfig {
  const MediaConfig* mediaConfig = nullptr;
  const NatConfig* natConfig = nullptr;
};

// What a host hands to NatMain. The agent calls the sixteenth operation only; the fifteen before it are the host's own
// business and keep their places in the virtual table.
class ConfigSource {
 public:
  virtual void Reserved1() {}
  virtual void Reserved2() {}
  virtual void Reserved3() {}
  virtual void Reserved4() {}
  virtual void Reserved5() {}
  virtual void Reserved6() {}
  virtual void Reserved7() {}
  virtual void Reserved8() {}
  virtual void Reserved9() {}
  virtual void Reserved10() {}
  virtual void Reserved11() {}
  virtual void Reserved12() {}
  virtual void Reserved13() {}
  virtual void Reserved14() {}
  virtual void Reserved15() {}

  // The current record, or null when there is none. Called on the agent's thread and on the thread that is inside
  // UpdateNatMain, never on both at once; a record given stays as it is until the next call of either.
  virtual HostConfig* GetConfig() = 0;

 protected:
  ~ConfigSource() = default;
};
