#pragma once

#include <list>
#include <memory>
#include <utility>

#include "agent/settings_lock.h"
#include "platform/stunutils/stun_manager.h"
#include "platform/types.h"

// A range of ports watched by STUN: startPort, startPort + interval, ... up to endPort (host order).
struct StunPortRange {
  u16 startPort = 0;
  u16 endPort = 0;
  u16 interval = 0;  // 1: every port; 2: the RTP ports without their RTCP neighbours
  u16 owner = 0;     // the call agent the ports belong to, a CA_PROTO
};

// The agent's one way to the STUN library: a counted start and release, port ranges with an RTCP switch, the mapping of
// a port, and the restart when the uplink changes. A manager exists exactly while m_stunRunning is set; it may exist
// without having been started, when no uplink address was known.
class StunManagerWrapper {
 public:
  StunManagerWrapper() = default;
  virtual ~StunManagerWrapper();
  StunManagerWrapper(const StunManagerWrapper&) = delete;
  StunManagerWrapper& operator=(const StunManagerWrapper&) = delete;

  // The first use creates, configures and starts the manager; further ones are counted. False, with no manager and no
  // count, when it could not be configured or started: the next use tries again.
  bool Start() NAT_REQUIRES(g_settingsLock);
  // The last one stops and destroys the manager. Always true; at count 0 nothing happens.
  bool Release() NAT_REQUIRES(g_settingsLock);
  // Ends it whatever the count. False when nothing was running.
  bool Stop() NAT_REQUIRES(g_settingsLock);

  // Hands the manager the configured server and numbers, read afresh; see stun_settings_accessor.h.
  bool UpdateServerSettings() NAT_REQUIRES(g_settingsLock);

  // True: the uplink address became known or changed; false: it was lost. Ports and count stay.
  bool OnUpLinkChanged(bool upLinkUp) NAT_REQUIRES(g_settingsLock);

  // False when no manager exists; nothing is queued for later then.
  bool AddPorts(u16 startPort, u16 endPort, u16 interval, u16 owner) NAT_REQUIRES(g_settingsLock);
  bool AddPorts(const StunPortRange& range) NAT_REQUIRES(g_settingsLock);
  bool RemovePorts(u16 startPort, u16 endPort, u16 interval) NAT_REQUIRES(g_settingsLock);
  // The same range with another interval switches its RTCP ports; another range replaces it. Always true.
  bool UpdatePorts(const StunPortRange& oldRange, const StunPortRange& newRange) NAT_REQUIRES(g_settingsLock);

  // The public side of a local port. When it is not known: false, both outputs 0, and a scan is asked for.
  bool GetStunMapping(u16 port, u32& mappedIp, u16& mappedPort) NAT_REQUIRES(g_settingsLock);

  void Scan() NAT_REQUIRES(g_settingsLock);
  // The same without asking for a scan; why it is known or not: NAT_WHY_...
  u32 FindStunMapping(u16 port, u32& mappedIp, u16& mappedPort) const NAT_REQUIRES(g_settingsLock);

  // The manager, for what a host reads of it; null without one.
  StunManager* Manager() const NAT_REQUIRES(g_settingsLock) { return m_manager.get(); }

  // How many ports STUN watches, and of how many of them it knows the public side; 0 without a manager.
  void CountPorts(u32& watched, u32& learnt) const NAT_REQUIRES(g_settingsLock);

  bool IsRunning() const NAT_REQUIRES(g_settingsLock) { return m_stunRunning; }

 private:
  bool StartFirst() NAT_REQUIRES(g_settingsLock);
  bool StartManager() NAT_REQUIRES(g_settingsLock);
  void DropManager() NAT_REQUIRES(g_settingsLock);
  // Also when the manager throws meanwhile.
  void EndManager(bool forGood) NAT_REQUIRES(g_settingsLock);

  std::unique_ptr<StunManager> m_manager NAT_GUARDED_BY(g_settingsLock);
  u16 m_useCount NAT_GUARDED_BY(g_settingsLock) = 0;
  bool m_stunRunning NAT_GUARDED_BY(g_settingsLock) = false;
};

// The STUN library's report of ports whose mapping changed (pairs of local port and owner): when a SIP port is among
// them, the call agents are told, once. Runs on the STUN library's thread.
void OnChangedPorts(void* context, std::list<std::pair<u16, u16>>& changedPorts);
