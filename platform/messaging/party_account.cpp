#include "platform/messaging/party_account.h"

#include <array>
#include <utility>

#include "platform/messaging/late_request.h"
#include "platform/messaging/party_queue.h"

namespace messaging {

PartyAccount::PartyAccount(PartyQueue& queue) : m_queue(&queue), m_left(Left(queue.Number())) {}

PartyAccount::LeftBehind& PartyAccount::Left(int queue) {
  // The call agents' four queues have successive numbers. The CGI party's updates never wait.
  static constinit std::array<LeftBehind, 4> s_left;
  return s_left[static_cast<std::size_t>(queue) % s_left.size()];
}

void PartyAccount::Sum::Add(std::size_t moreRequests, std::size_t moreBytes) {
  requests += moreRequests;
  bytes += moreBytes;
}

void PartyAccount::Change(std::ptrdiff_t requests, std::ptrdiff_t bytes) {
  // A negative number wraps around to the right sum.
  Sum& sum = m_queue != nullptr ? m_waiting : m_left.sum;
  sum.Add(static_cast<std::size_t>(requests), static_cast<std::size_t>(bytes));
  if (m_queue != nullptr) {
    m_queue->HoldBack(sum.requests >= LateRequest::kMaxRequests || sum.bytes >= LateRequest::kMaxBytes);
  }
}

void PartyAccount::Orphan() {
  if (PartyQueue* const queue = std::exchange(m_queue, nullptr)) {
    m_left.sum.Add(m_waiting.requests, m_waiting.bytes);
    queue->HoldBack(false);
  }
}

bool PartyAccount::Drops() {
  const Sum& left = m_left.sum;
  if (m_queue != nullptr || (left.requests <= LateRequest::kMaxRequests && left.bytes <= LateRequest::kMaxBytes)) {
    return false;
  }
  ++m_left.dropped;
  return true;
}

std::size_t PartyAccount::TakeDropped(int queue) { return std::exchange(Left(queue).dropped, 0); }

}  // namespace messaging
