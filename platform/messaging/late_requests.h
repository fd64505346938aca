#pragma once

#include <map>
#include <memory>
#include <optional>

#include "platform/types.h"

class PartyQueue;

namespace messaging {

// The requests that are answered in a later turn than the one they came in, of all queues of the process. Whose an
// answer is cannot be told from its request's id, as parties choose their ids and come and go: a ticket tells it. Only
// the thread that processes the queues.
class LateRequests {
 public:
  // How many requests of a queue wait before the next is taken: far more than a device has calls being set up, and few
  // enough that a party that floods a dead name server costs some megabytes only.
  static constexpr std::ptrdiff_t kMaxWaiting = 1024;

  // The list of this process's queues.
  static std::shared_ptr<LateRequests> Shared();

  // A request of the queue's party is being handled from now on, until null is given.
  void Handle(PartyQueue* queue);

  // The request that is being handled waits. Its ticket, which was never given before; 0 when none is being handled.
  u64 Keep();

  // What is answered from now on answers that request, until it is finished. 0: as if nothing had been resumed.
  void Resume(u64 ticket);
  // It waits no more, answered or not.
  void Finish(u64 ticket);

  // The request in hand, handled or resumed, has been answered.
  void Answered() { m_open = false; }
  // Whether it still needs an answer: neither answered nor kept, and its party is there.
  bool IsOpen() const { return m_open; }

  // Whether an answer that is sent now is for the queue's present party: not so when who asked is gone.
  bool IsForParty(const PartyQueue& queue) const;

  // The party of the queue is gone.
  void Orphan(const PartyQueue& queue);
  // The queue itself is gone, with all that waits.
  void Forget(const PartyQueue& queue);

 private:
  struct Request {
    PartyQueue* queue;
    bool orphaned;
  };

  // No further request is taken while too many wait.
  void HoldBack(PartyQueue& queue) const;

  std::map<u64, Request> m_requests;  // by their tickets
  PartyQueue* m_handled = nullptr;
  std::optional<u64> m_resumed;
  bool m_open = false;
};

}  // namespace messaging
