#pragma once

#include <atomic>
#include <memory>

#include "agent/settings_lock.h"
#include "messaging/nat_ca_messenger.h"
#include "messaging/nat_cgi_messenger.h"
#include "nat/nat_records.h"
#include "platform/messaging/cyclic_queue_poller.h"

// The channels, the poller over their queues, and the agent's main loop.
class NatAgentMessenger {
 public:
  NatAgentMessenger();
  virtual ~NatAgentMessenger() = default;
  NatAgentMessenger(const NatAgentMessenger&) = delete;
  NatAgentMessenger& operator=(const NatAgentMessenger&) = delete;

  // Runs the main loop on the agent thread until Stop, then stops the agent, which destroys this object. Always true.
  bool Run();

  // Ends the loop after its next turn; the poller's result. Any thread while the object exists (see RunLink).
  bool Stop();
  // Makes the loop run its periodic checks now; the poller's result. Any thread while the object exists.
  bool Wake();

  // Whose party is connected, as the bits of agent/host.h. Agent thread.
  u32 OnlineParties() const;

  // What the queue of a number tells of itself; false for a number that is no queue's.
  bool ReadQueue(int queue, messaging::QueueState& state) const NAT_REQUIRES(g_settingsLock);

  // The channel of a call agent's protocol, or null.
  NatCAMessenger* GetCAMessenger(CA_PROTO proto);

 private:
  void SelectQueues() NAT_REQUIRES(g_settingsLock);
  void TellStart();
  void AnnounceOnlineParties();
  // One turn after the wait: what waits at one queue, or of messages that came together all of them.
  void Turn(int queue);
  // What is thrown ends the message in hand, not the turn.
  void Handle(int queue) NAT_REQUIRES(g_settingsLock);
  void CheckWhatIsFlagged() NAT_REQUIRES(g_settingsLock);
  // Of a call agent; null for another number.
  NatCAMessenger* ChannelOfQueue(int queue);

  NatCAMessenger m_channel112;
  NatCAMessenger m_channel113;
  NatCAMessenger m_channel114;
  NatCAMessenger m_channel115;
  NatCGIMessenger m_cgiChannel;
  std::atomic<bool> m_loopRunning;
  std::unique_ptr<CyclicQueuePoller> m_poller;
};
