#include "resolver/name_queue.h"

#include <algorithm>
#include <utility>

namespace {

// A party that is held back by given-up names alone waits for them itself, so they get its turns.
bool IsDue(const NameLane& lane) { return !lane.waiting.empty() || lane.givenUp.size() >= LateRequest::kMaxRequests; }

bool HasAny(const NameLane& lane) { return !lane.waiting.empty() || !lane.givenUp.empty(); }

NameList TakeFirst(NameList& names) {
  NameList first;
  first.splice(first.end(), names, names.begin());
  first.front().lane = nullptr;
  return first;
}

}  // namespace

bool NameQueue::IsEmpty() const { return m_left.empty() && std::none_of(m_lanes.begin(), m_lanes.end(), HasAny); }

void NameQueue::Push(const CA_PROTO& party, NameList& name) {
  NameLane& lane = Lane(party);
  name.front().lane = &lane;
  lane.waiting.splice(lane.waiting.end(), name);
}

NameList NameQueue::Pop() {
  for (bool (*const suits)(const NameLane&) : {IsDue, HasAny}) {
    for (std::size_t turn = 1; turn <= m_lanes.size(); ++turn) {
      NameLane& lane = Lane(m_served + turn);
      if (suits(lane)) {
        m_served += turn;
        return TakeFirst(!lane.waiting.empty() ? lane.waiting : lane.givenUp);
      }
    }
  }
  return TakeFirst(m_left);
}

void NameQueue::Return(NameList& name) { m_left.splice(m_left.begin(), name); }

void NameQueue::GiveUp(NameList::iterator name) {
  if (NameLane* const lane = std::exchange(name->lane, nullptr)) {
    lane->givenUp.splice(lane->givenUp.end(), lane->waiting, name);
  }
}

void NameQueue::GiveUp(const CA_PROTO& party) { GiveUp(Lane(party)); }

void NameQueue::GiveUp() {
  for (NameLane& lane : m_lanes) {
    GiveUp(lane);
  }
}

void NameQueue::GiveUp(NameLane& lane) {
  m_left.splice(m_left.end(), lane.givenUp);
  for (ResolvedName& name : lane.waiting) {
    name.lane = nullptr;
  }
  m_left.splice(m_left.end(), lane.waiting);
}
