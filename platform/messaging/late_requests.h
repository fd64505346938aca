#pragma once

#include <deque>
#include <memory>

#include "platform/types.h"

class PartyQueue;

namespace messaging {

// The requests whose handlers returned without an answer, because it comes in a later turn; of all queues of the
// process, oldest first. An answer that comes later has only its request's id to tell whose it is: this list tells
// which party asked. It also holds a queue's party back while too many of its requests wait. Only the thread that
// processes the queues.
class LateRequests {
 public:
  // How many requests of a queue wait before the next is taken: far more than a device has calls being set up, and few
  // enough that a party that floods a dead name server costs some megabytes only.
  static constexpr std::ptrdiff_t kMaxWaiting = 1024;

  // The list of this process's queues.
  static std::shared_ptr<LateRequests> Shared();

  void Add(PartyQueue& queue, u64 id);

  // The oldest request with that id gets its answer. False when the party that asked is gone; a request that is not in
  // the list counts as the present party's.
  bool Answer(PartyQueue& queue, u64 id);

  // The oldest request with that id, of whichever queue, is not answered any more.
  void Drop(u64 id);

  // The party of the queue is gone; answers to what it asked for still come.
  void Orphan(const PartyQueue& queue);

  // The queue itself is gone, with all that waits.
  void Forget(const PartyQueue& queue);

 private:
  struct Request {
    PartyQueue* queue;
    u64 id;
    bool orphaned;
  };

  void Erase(const std::deque<Request>::const_iterator& request);
  void HoldBack(PartyQueue& queue) const;

  std::deque<Request> m_requests;
};

}  // namespace messaging
