#pragma once

#include <list>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "platform/types.h"

// A STUN server: a host name or dotted address, and its port as decimal text. The host may also be a list,
// "HOST[:PORT],HOST[:PORT]": the first that works is asked, the others are compared with and failed over to.
struct StunServInfo {
  std::string serverHost;
  std::string serverPort;
  bool operator==(const StunServInfo&) const = default;
};

// What is known of a local port. The agent reads the second pair only.
struct StunResult {
  u32 address1 = 0;  // the local address the port was probed from, network byte order
  u16 port1 = 0;     // the local port
  u32 address2 = 0;  // the public address, network byte order; 0 when not known
  u16 port2 = 0;     // the public port; 0 when not known
  u32 address3 = 0;  // the server that told it
  u16 port3 = 0;
  u32 address4 = 0;
  u16 port4 = 0;
  u32 address5 = 0;
  u16 port5 = 0;
  u32 value = 0;
};
static_assert(sizeof(StunResult) == 44);

// A port that is watched, for people.
struct StunPort {
  u16 port = 0;
  bool isMedia = false;
  bool isUnsettled = false;  // the NAT gives it another mapping each time
  u32 mappedIp = 0;          // network byte order; 0 when not known
  u16 mappedPort = 0;
  u32 serverIp = 0;  // that told it
  u16 serverPort = 0;
  std::int64_t ageMs = -1;  // since the last answer; -1: none
  std::int64_t nextMs = 0;  // until it asks again; -1: it is asking
};

// The server that is asked, for people.
struct StunServerState {
  enum class State { WAITING, UNHEARD, HEARD, DOUBTED, SILENT, REFUSING };  // the first: not started, or no address yet
  State state = State::WAITING;
  u32 ip = 0;  // network byte order; 0: none
  u16 port = 0;
};

// Whether a NAT gives a port the same mapping toward different destinations. Only then do others than the STUN server
// see the port as it was learnt.
enum class NatMapping { UNKNOWN, SAME, DIFFERENT };

// Learns the public mapping of UDP ports that belong to other processes. Any thread may call any operation.
class StunManager {
 public:
  // Called on the manager's thread, without a lock of it held, with the ports whose mapping changed: pairs of local
  // port and owner, one for each registration. A change is reported once a second answer has confirmed it, together
  // with those found about then, at most one report a second; the first mapping of a port is none.
  using ChangedPortsCallback = void (*)(void* context, std::list<std::pair<u16, u16>>& changedPorts);

  // Throws when there is no memory or no descriptor.
  StunManager(bool, bool);
  virtual ~StunManager();
  StunManager(const StunManager&) = delete;
  StunManager& operator=(const StunManager&) = delete;

  // Starts learning on the current uplink address (that of the default route), without waiting for any answer or
  // look-up; on a running manager, starts over there. Mappings learnt from another address are not answered any more,
  // but what is learnt next is compared with them, so that a changed public side is reported. False when it cannot (no
  // uplink, no socket, no thread, no memory), which the journal is told, and from the callback. A running manager then
  // goes on as it was, or, when there is no thread or no memory, has ended.
  bool Start(bool, bool);

  // Stops learning. No callback runs any more once it has returned: one that runs is waited for. Called from the
  // callback itself it returns at once, and that callback is the last. Ports, mappings and settings stay, for a later
  // Start. The manager must not be destroyed from its callback.
  void Stop(bool);

  // Registers start, start + interval, ... up to end, each tagged with owner. Ports that are not for media are
  // probed before others. The last flag has no meaning here. A port may be registered several times (ranges overlap,
  // interfaces share their ports); it is probed once all the same.
  void AddPorts(u16 start, u16 end, u8 interval, u8 owner, bool isMedia, bool);

  // Takes back one registration, the latest, of each of start, start + interval, ... up to end; a port that is not
  // registered is skipped. A port whose last registration goes is no longer probed and its mapping is forgotten.
  void RemovePorts(u16 start, u16 end, u8 interval);
  void RemoveAllPorts();

  // Fills the result of a registered port; address 2 and port 2 are left at 0 when its mapping is not known.
  void GetPortResult(u16 port, StunResult& result);

  // How many ports are registered, and of how many of them the mapping is known.
  void CountPorts(u32& registered, u32& known);

  // The public side of a port that was answered before the present one; 0 when there was none.
  void GetMappingBefore(u16 port, u32& mappedIp, u16& mappedPort);

  // Describes watched ports from this number on, in their order, and returns how many.
  std::size_t ListPorts(u32 from, std::span<StunPort> ports);
  StunServerState GetServer();

  // Probe now instead of at the next scheduled time; a port probed a moment ago as soon as that is a while ago. Several
  // in a row are one.
  void SendScanEvent();

  // What comparing two servers showed on the current uplink; with one server address always UNKNOWN.
  NatMapping GetNatMapping();

  void SetChangedPortsCallback(ChangedPortsCallback callback, void* context);

  // Takes new servers and numbers at any time: the probe period in seconds (0: 25), the sends per probe (0: 7) and the
  // initial retransmission time-out in milliseconds (0: 500), brought into 1 to 86400, 2 to 16 and 10 to 60000. Other
  // servers than before are asked for every port at once. What cannot be a server is told to the journal and left out.
  void UpdateSettings(const std::list<StunServInfo>& servers, u32 periodSeconds, u32 sends, u32 rtoMs);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
