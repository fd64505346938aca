#pragma once

#include <list>
#include <memory>

#include "agent/host.h"
#include "agent/settings_lock.h"
#include "nat/nat_mappings.h"
#include "nat/nat_records.h"

// The translations the device knows for its own ports: the SIP call agent's signalling ports and the media ports of
// each gateway interface. Keeps the ports that STUN watches in step with the mappings: every mapping in MAP_STUN holds
// one count of the STUN wrapper. Destroying the storage tells STUN nothing; the agent stops STUN as a whole.
class QorMappingStorage {
 public:
  QorMappingStorage() = default;
  virtual ~QorMappingStorage() = default;
  QorMappingStorage(const QorMappingStorage&) = delete;
  QorMappingStorage& operator=(const QorMappingStorage&) = delete;

  // Translates a signalling port, by setting.portType; false when no mapping is known.
  bool GetCSMapping(const CA_PROTO& proto, NatSetting& setting) const NAT_REQUIRES(g_settingsLock);

  // Translates a media port of a gateway interface: true when a mapping covers it, whatever that gave. Mapped fields
  // of 0 then mean that no public side is known. The first of several mappings answers.
  bool GetGwMapping(NatSetting& setting) const NAT_REQUIRES(g_settingsLock);
  bool HasGw(u32 localIp) const NAT_REQUIRES(g_settingsLock);

  // The same, with the reason (NAT_WHY_...) for a signalling port, and for a media port whose interface has a mapping.
  // To EXPLAIN, nothing is asked of STUN.
  enum class Purpose { ANSWER, EXPLAIN };
  u32 LookUpCS(const CA_PROTO& proto, NatSetting& setting, Purpose purpose) const NAT_REQUIRES(g_settingsLock);
  u32 LookUpGw(NatSetting& setting, Purpose purpose) const NAT_REQUIRES(g_settingsLock);
  bool HasAnyGw() const { return !gateways.empty(); }

  // What a host reads of the translations: the one of this number, in an order of its own; false beyond the last.
  bool Describe(std::size_t number, NatHostMapping& mapping) const NAT_REQUIRES(g_settingsLock);

  // Index 0 is the SIP agent's TCP port, 1 its TLS port. No range, or a public address of 0, switches it off.
  bool SetRange(u8 index, const PortRange* range) NAT_REQUIRES(g_settingsLock);

  // No mappings, or a static public address of 0, switches the call agent's UDP translation off.
  bool SetUdpMappings(const CA_PROTO& proto, const NatMappings* mappings) NAT_REQUIRES(g_settingsLock);

  // Forgets what belongs to a call agent; false for one that nothing belongs to.
  bool Unload(const CA_PROTO& proto) NAT_REQUIRES(g_settingsLock);

  bool AddGw(const NatMappings& mappings) NAT_REQUIRES(g_settingsLock);
  // False when there is no gateway mapping of that address and identity flag; UpdateGw never adds one.
  bool UpdateGw(const NatMappings& mappings) NAT_REQUIRES(g_settingsLock);
  bool RemoveGw(u32 localIp, u8 flagBit) NAT_REQUIRES(g_settingsLock);

  // Points every gateway mapping that follows the uplink at its address.
  bool FollowUplink(u32 uplinkIp) NAT_REQUIRES(g_settingsLock);

 private:
  std::list<NatMappings>::iterator FindGw(u32 localIp, u16 flagBit);
  bool ChangeMode(NatMappings& current, const NatMappings& wanted, const CA_PROTO& proto) NAT_REQUIRES(g_settingsLock);
  void AddStunPorts(const NatMappings& mappings, CA_PROTO owner) NAT_REQUIRES(g_settingsLock);
  void RemoveStunPorts(const NatMappings& mappings) NAT_REQUIRES(g_settingsLock);

  std::unique_ptr<NatMappings> sipUdp;
  std::unique_ptr<NatMappings> otherUdp;
  std::unique_ptr<PortRange> sipTcp;
  std::unique_ptr<PortRange> sipTls;
  std::list<NatMappings> gateways;  // searched front to back
};
