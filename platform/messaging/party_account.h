#pragma once

#include <cstddef>

class PartyQueue;

namespace messaging {

// Sums up the requests of one party that wait, and holds the party back while they are too many. It outlives the party
// for as long as one of them waits; they then count among those that gone parties left on queues of this number, in
// this run or an earlier one. Only the thread that processes the queues.
class PartyAccount {
 public:
  explicit PartyAccount(PartyQueue& queue);

  bool HasParty() const { return m_queue != nullptr; }

  // Adds what begins to wait, or takes away what waits no more.
  void Change(std::ptrdiff_t requests, std::ptrdiff_t bytes);

  // The party is gone. It is not held back any longer.
  void Orphan();
  // True when the party is gone and gone parties left too much. Counts one request as dropped then.
  bool Drops();
  // How many were dropped on a queue since the last call.
  static std::size_t TakeDropped(int queue);

 private:
  struct Sum {
    void Add(std::size_t moreRequests, std::size_t moreBytes);
    std::size_t requests = 0;
    std::size_t bytes = 0;
  };
  struct LeftBehind {
    Sum sum;
    std::size_t dropped = 0;
  };
  static LeftBehind& Left(int queue);

  PartyQueue* m_queue;  // null once the party is gone
  Sum m_waiting;        // until then
  LeftBehind& m_left;
};

}  // namespace messaging
