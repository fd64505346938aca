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

void LateRequests::Handle(PartyQueue* queue) {
  m_handled = queue;
  m_resumed.reset();
  m_open = queue != nullptr;
}

u64 LateRequests::Keep() {
  // Of the process: a ticket may outlive the queues it was given by.
  static constinit u64 s_lastTicket = 0;
  if (m_handled == nullptr) return 0;
  m_requests.emplace(++s_lastTicket, Request{m_handled, false});
  m_open = false;
  HoldBack(*m_handled);
  return s_lastTicket;
}

void LateRequests::Resume(u64 ticket) {
  if (ticket == 0) {
    return;
  }
  m_resumed = ticket;
  const auto found = m_requests.find(ticket);
  m_open = found != m_requests.end() && !found->second.orphaned;
}

void LateRequests::Finish(u64 ticket) {
  m_resumed.reset();
  m_open = false;
  const auto found = m_requests.find(ticket);
  if (found == m_requests.end()) return;
  PartyQueue& queue = *found->second.queue;
  m_requests.erase(found);
  HoldBack(queue);
}

bool LateRequests::IsForParty(const PartyQueue& queue) const {
  if (!m_resumed) return true;
  const auto found = m_requests.find(*m_resumed);
  return found != m_requests.end() && found->second.queue == &queue && !found->second.orphaned;
}

void LateRequests::Orphan(const PartyQueue& queue) {
  for (auto& [ticket, request] : m_requests) request.orphaned |= request.queue == &queue;
}

void LateRequests::Forget(const PartyQueue& queue) {
  std::erase_if(m_requests, [&](const auto& request) { return request.second.queue == &queue; });
  if (m_handled == &queue) m_handled = nullptr;
}

void LateRequests::HoldBack(PartyQueue& queue) const {
  const auto waiting = std::count_if(m_requests.begin(), m_requests.end(),
                                     [&](const auto& request) { return request.second.queue == &queue; });
  queue.HoldBack(waiting >= kMaxWaiting);
}

}  // namespace messaging
