#pragma once

#include "agent/settings_lock.h"
#include "platform/messaging/nat_messenger.h"

// The channel of one call agent: passes its requests on to the agent, and loads or unloads the call agent's settings
// when it connects or disconnects. Agent thread, inside a turn of the main loop.
class NatCAMessenger : public NatMessenger {
 public:
  explicit NatCAMessenger(u32 queue) : NatMessenger(queue) {}
  ~NatCAMessenger() override = default;

  // False, with nothing done, for a party without a name.
  bool OnPartyStateChanged(bool online) override NAT_REQUIRES(g_settingsLock);

 protected:
  // What each returns has no meaning beyond the messaging library.
  u32 OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const std::list<NatItem>& items,
                            const u32& value) override NAT_REQUIRES(g_settingsLock);
  u32 OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const NatItem& item,
                            const NatPortType& portType, const u32& value) override NAT_REQUIRES(g_settingsLock);
  u32 OnRequestRTPNatMapping(const u64& queryId, const std::string& destination, const std::list<NatItem>& items,
                             const u32& csProto) override NAT_REQUIRES(g_settingsLock);
  u32 OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items, const u32& value) override;
  u32 OnCloseRTPNatMapping(const u64& queryId) override;
};
