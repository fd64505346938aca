#include "platform/messaging/late_requests.h"

#include <algorithm>

#include "platform/messaging/party_queue.h"

namespace messaging {

std::shared_ptr<LateRequests> LateRequests::Shared() {
  static constinit std::weak_ptr<LateRequests> s_shared;
  std::shared_ptr<LateRequests> requests = s_shared.lock();
  if (requests == nullptr) s_shared = requests = std::make_shared<LateRequests>();
  return requests;
}

void LateRequests::Add(PartyQueue& queue, u64 id) {
  m_requests.push_back({&queue, id, false});
  HoldBack(queue);
}

bool LateRequests::Answer(PartyQueue& queue, u64 id) {
  const auto found = std::find_if(m_requests.begin(), m_requests.end(),
                                  [&](const Request& request) { return request.queue == &queue && request.id == id; });
  if (found == m_requests.end()) return true;
  const bool orphaned = found->orphaned;
  Erase(found);
  return !orphaned;
}

void LateRequests::Drop(u64 id) {
  const auto found =
      std::find_if(m_requests.begin(), m_requests.end(), [id](const Request& request) { return request.id == id; });
  if (found != m_requests.end()) Erase(found);
}

void LateRequests::Orphan(const PartyQueue& queue) {
  for (Request& request : m_requests) request.orphaned |= request.queue == &queue;
}

void LateRequests::Forget(const PartyQueue& queue) {
  std::erase_if(m_requests, [&](const Request& request) { return request.queue == &queue; });
}

void LateRequests::Erase(const std::deque<Request>::const_iterator& request) {
  PartyQueue& queue = *request->queue;
  m_requests.erase(request);
  HoldBack(queue);
}

void LateRequests::HoldBack(PartyQueue& queue) const {
  const auto waiting = std::count_if(m_requests.begin(), m_requests.end(),
                                     [&](const Request& request) { return request.queue == &queue; });
  queue.HoldBack(waiting >= kMaxWaiting);
}

}  // namespace messaging
