#pragma once

#include <algorithm>
#include <optional>

#include "platform/stunutils/schedule.h"
#include "platform/stunutils/stun_manager.h"

namespace stun {

// Asks a second server for one port, from time to time, to tell a NAT that maps a port the same way for every
// destination from one that does not. Nothing is concluded from silence. As free of clocks and sockets as the schedule.
class NatCheck {
 public:
  explicit NatCheck(Random random) : m_random(std::move(random)) {}

  // Nothing is known, the next comparison is due, none is under way any more.
  void Reset();
  // What is known may not hold any more: the next comparison is due a minute after the last.
  void Doubt() { m_due = std::min(m_due, m_doubtDue); }

  bool IsDue(TimePoint now) const { return !m_isUnderWay && now >= m_due; }
  // `server` is not the one that told `mapped`.
  void Begin(u16 port, const Endpoint& mapped, const Endpoint& server, TimePoint now);
  // The request to be sent now, if one is.
  std::optional<Order> Advance(TimePoint now, Millis rto);
  TimePoint NextDeadline() const { return m_isUnderWay ? m_next : TimePoint::max(); }

  bool IsUnderWay() const { return m_isUnderWay; }
  u16 Port() const { return m_port; }
  const Endpoint& Mapped() const { return m_mapped; }
  // Ends it without a conclusion when it has lasted long enough, or at once.
  bool GiveUp(TimePoint now);
  void Cancel() { m_isUnderWay = false; }

  bool IsAwaited(u16 port, const Endpoint& source, const TransactionId& id) const;
  // The awaited answer: it is over. Whether the conclusion differs from the one before, which takes two answers.
  bool Answered(const Answer& answer, TimePoint now);

  NatMapping Conclusion() const { return m_conclusion; }
  // How many comparisons were answered by nobody.
  std::size_t Silences() const { return m_silences; }

 private:
  const Random m_random;
  NatMapping m_conclusion = NatMapping::UNKNOWN;
  std::size_t m_silences = 0;
  TimePoint m_due{};
  TimePoint m_doubtDue{};
  bool m_isContradicted = false;  // the conclusion, by the last answer
  // Of the comparison under way.
  bool m_isUnderWay = false;
  u16 m_port = 0;
  Endpoint m_mapped;
  Endpoint m_server;
  TransactionId m_id{};
  u32 m_sends = 0;
  TimePoint m_next{};
};

}  // namespace stun
