#include "platform/stunutils/nat_check.h"

namespace stun {
namespace {

constexpr u32 kSends = 4;

}  // namespace

void NatCheck::Begin(u16 port, const Endpoint& server, TimePoint now) {
  m_isDone = m_isUnderWay = true;
  m_port = port;
  m_server = server;
  m_id = NewTransactionId(m_random);
  m_sends = 0;
  m_next = now;
}

void NatCheck::Reset() { m_isDone = m_isUnderWay = false; }

std::optional<Schedule::Order> NatCheck::Advance(TimePoint now, Millis rto) {
  if (!m_isUnderWay || now < m_next) {
    return std::nullopt;
  }
  if (m_sends == kSends) {
    m_isUnderWay = false;
    return std::nullopt;
  }
  m_next = now + rto * (1 << m_sends);
  ++m_sends;
  return Schedule::Order{m_port, m_id};
}

bool NatCheck::Answered(u16 port, const Endpoint& source, const TransactionId& id) {
  if (!m_isUnderWay || port != m_port || source != m_server || id != m_id) {
    return false;
  }
  m_isUnderWay = false;
  return true;
}

}  // namespace stun
