#include "platform/stunutils/nat_check.h"

#include <algorithm>

namespace stun {
namespace {

// The port is kept from its owner for 2.5 s at most, where a request takes it.
constexpr u32 kSends = 3;
constexpr Millis kLongestRto{500};
constexpr u32 kLastWait = 2;  // RTOs
constexpr Millis kAgain{600000};
constexpr Millis kAgainSoon{60000};

}  // namespace

void NatCheck::Reset() {
  m_conclusion = NatMapping::UNKNOWN;
  m_isUnderWay = m_isContradicted = false;
  m_due = m_doubtDue = TimePoint{};
}

void NatCheck::Begin(u16 port, const Endpoint& mapped, const Endpoint& server, TimePoint now) {
  m_isUnderWay = true;
  m_port = port;
  m_mapped = mapped;
  m_server = server;
  m_id = NewTransactionId(m_random);
  m_sends = 0;
  m_next = now;
}

std::optional<Order> NatCheck::Advance(TimePoint now, Millis rto) {
  if (!m_isUnderWay || now < m_next || m_sends == kSends) {
    return std::nullopt;
  }
  const Millis wait = std::min(rto, kLongestRto);
  m_next = now + (m_sends + 1 < kSends ? wait * (1 << m_sends) : wait * kLastWait);
  ++m_sends;
  return Order{m_port, m_id, m_server};
}

bool NatCheck::GiveUp(TimePoint now) {
  if (!m_isUnderWay || m_sends < kSends || now < m_next) {
    return false;
  }
  m_isUnderWay = false;
  m_due = now + kAgainSoon;
  ++m_silences;
  return true;
}

bool NatCheck::IsAwaited(u16 port, const Endpoint& source, const TransactionId& id) const {
  return m_isUnderWay && port == m_port && source == m_server && id == m_id;
}

bool NatCheck::Answered(const Answer& answer, TimePoint now) {
  m_isUnderWay = false;
  m_due = now + kAgain;
  m_doubtDue = now + kAgainSoon;
  if (answer.kind != Answer::Kind::MAPPED) {
    m_due = now + kAgainSoon;
    ++m_silences;
    return false;
  }
  const NatMapping shown = answer.mapped == m_mapped ? NatMapping::SAME : NatMapping::DIFFERENT;
  const bool isOther = shown != m_conclusion;
  if (isOther && m_conclusion != NatMapping::UNKNOWN && !m_isContradicted) {
    m_isContradicted = true;
    m_due = now;
    return false;
  }
  m_isContradicted = false;
  m_conclusion = shown;
  return isOther;
}

}  // namespace stun
