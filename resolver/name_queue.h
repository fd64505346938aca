#pragma once

#include <array>

#include "resolver/resolve_query.h"

// The names that wait for their look-up. A party's names keep their order, and parties take turns. A name that nobody
// waits for any more comes after all others, so a party waits for at most as many look-ups as there are parties. Needs
// its owner's lock. Nothing throws.
class NameQueue {
 public:
  bool IsEmpty() const;

  // Queues the list's only name for a party.
  void Push(const CA_PROTO& party, NameList& name);
  // The name whose turn it is, alone in a list. Only while the queue is not empty.
  NameList Pop();
  // Puts back a name that was not looked up because the run ended. Its party is gone.
  void Return(NameList& name);

  // Nobody waits for the name any more. It must exist, but need not be queued any longer.
  void GiveUp(NameList::iterator name);
  // The party is gone, or every party.
  void GiveUp(const CA_PROTO& party);
  void GiveUp();

  // The names of gone parties, oldest first.
  NameList& Left() { return m_left; }

 private:
  NameLane& Lane(std::size_t party) { return m_lanes[party % m_lanes.size()]; }
  void GiveUp(NameLane& lane);

  std::array<NameLane, 4> m_lanes;  // by the party's protocol
  std::size_t m_served = 0;         // the party that had the last turn
  NameList m_left;
};
