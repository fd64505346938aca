#pragma once

#include <optional>

#include "platform/stunutils/schedule.h"

namespace stun {

// Asks a second server for one port, once, to tell a NAT that maps a port the same way for every destination from one
// that does not. Nothing is concluded from silence. As free of clocks and sockets as the schedule.
class NatCheck {
 public:
  explicit NatCheck(Random random) : m_random(std::move(random)) {}

  void Begin(u16 port, const Endpoint& server, TimePoint now);
  // It has been begun since the last Reset, whatever came of it.
  bool IsDone() const { return m_isDone; }
  void Reset();

  // The request to be sent now, if one is.
  std::optional<Schedule::Order> Advance(TimePoint now, Millis rto);
  TimePoint NextDeadline() const { return m_isUnderWay ? m_next : TimePoint::max(); }

  bool IsUnderWay() const { return m_isUnderWay; }
  u16 Port() const { return m_port; }
  const Endpoint& Server() const { return m_server; }
  // Whether an answer is the awaited one; it is then over.
  bool Answered(u16 port, const Endpoint& source, const TransactionId& id);

 private:
  const Random m_random;
  bool m_isDone = false;
  bool m_isUnderWay = false;
  u16 m_port = 0;
  Endpoint m_server;
  TransactionId m_id{};
  u32 m_sends = 0;
  TimePoint m_next{};
};

}  // namespace stun
