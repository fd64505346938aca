#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/messaging/queue_state.h"
#include "platform/types.h"

class PartyQueue;

// The kind of a configuration update. The values the agent knows are named; any other is passed on.
enum UpdateType : u32 {
  UPDATE_TYPE_84 = 84,
  UPDATE_SIP_NAT_PORTS = 92,
  UPDATE_OTHER_NAT_PORTS = 93,
};

// The CGI party's queue: configuration-update notices, those the party sends and those this process sends itself.
// All operations belong to the thread that processes the queue.
class CGIMessenger {
 public:
  explicit CGIMessenger(int queue);
  virtual ~CGIMessenger();
  CGIMessenger(const CGIMessenger&) = delete;
  CGIMessenger& operator=(const CGIMessenger&) = delete;

  bool IsPartyOnline() const;
  // As NatMessenger::State.
  messaging::QueueState State() const;

  // As NatMessenger::ProcessMessageFromQueue.
  virtual bool ProcessMessageFromQueue(int count);

  // Acknowledges the notice being handled to the connected party, with the type and the value given. A notice that this
  // process sent itself is nobody's request: nothing is sent for it. Returns 1 when an acknowledgement went out, else
  // 0.
  int Update(UpdateType type, const std::list<std::string>& texts, unsigned value);

 protected:
  virtual void OnCgiPartyStateChanged(bool online);
  // As NatMessenger::OnRefused.
  virtual void OnRefused(const messaging::Refusal&) {}
  // Whether the notice being handled is the party's, and not of this process.
  bool IsFromParty() const { return m_updateFromParty; }
  virtual int OnUpdate(UpdateType type, const std::list<std::string>& texts, unsigned value) = 0;

 private:
  std::unique_ptr<PartyQueue> m_queue;
  u64 m_updateId = 0;  // query id of the update in hand
  bool m_updateFromParty = false;
};
