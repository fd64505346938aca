#pragma once

#include "agent/settings_lock.h"
#include "platform/messaging/nat_messenger.h"

// The channel of one call agent: passes its requests on to the agent, and loads or unloads the call agent's settings
// when it connects or disconnects. Agent thread, inside a turn of the main loop. The handlers throw nothing.
class NatCAMessenger : public NatMessenger {
 public:
  enum class RequestKind { CS, CS_LIST, RTP, REVERSE };

  explicit NatCAMessenger(u32 queue) : NatMessenger(queue), m_number(static_cast<int>(queue)) {}
  ~NatCAMessenger() override = default;

  // False, with nothing done, for a party without a name.
  bool OnPartyStateChanged(bool online) override NAT_REQUIRES(g_settingsLock);

  // Within a catch block: the request's handling threw. The journal hears of it, and a request that is still open is
  // answered as "no mapping known" or, when not even that can be sent, its party is hung up on.
  void FailRequest(RequestKind kind, const u64& queryId, const std::list<NatItem>& items, u32 csProto) noexcept;

 protected:
  void OnRefused(const messaging::Refusal& refusal) override;
  // What each returns has no meaning beyond the messaging library.
  u32 OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const std::list<NatItem>& items,
                            const u32& value) override NAT_REQUIRES(g_settingsLock);
  u32 OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const NatItem& item,
                            const NatPortType& portType, const u32& value) override NAT_REQUIRES(g_settingsLock);
  u32 OnRequestRTPNatMapping(const u64& queryId, const std::string& destination, const std::list<NatItem>& items,
                             const u32& csProto) override NAT_REQUIRES(g_settingsLock);
  u32 OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items, const u32& value) override;
  u32 OnCloseRTPNatMapping(const u64& queryId) override;

 private:
  // False when nothing could be loaded, also because loading threw.
  bool LoadSettings() NAT_REQUIRES(g_settingsLock);
  void AnswerNoMapping(RequestKind kind, const u64& queryId, const std::list<NatItem>& items, u32 csProto);

  const int m_number;  // the queue's
};
