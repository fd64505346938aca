#include "platform/stunutils/schedule.h"

#include <algorithm>

// A turn: time-outs, retransmissions, and which ports ask next.

namespace stun {
namespace {

// A transaction sent this often for nothing, with nothing else heard meanwhile, speaks of the server: at 5 % loss each
// way that happens by chance once in a thousand times.
constexpr u32 kDoubtfulSends = 3;

constexpr Millis kScanQuiet{250};
constexpr Millis kShortPause{1000};

// Beside its regular requests a server that is not heard gets two at once and then one a second; one that is heard
// gets 50 times as many. A scan brings a port's request forward to this long after the last.
constexpr Millis kCredit{1000};
constexpr Millis kCostUnheard{1000};
constexpr Millis kCostHeard{20};
constexpr Millis kNudgeGap{400};

}  // namespace

void Schedule::Advance(TimePoint now, Turn& turn) {
  RunScan(now);
  EndRests(now);
  ExpireRequests(now, turn);
  SendNudged(now, turn);
  if (IsServerHeard()) {
    FillWindow(now, turn);
  } else {
    SendCanary(now, turn);
  }
  std::erase_if(turn.sends, [this](const Order& order) { return !IsAwaited(order.port, order.id); });
  turn.ended.insert(turn.ended.end(), m_ended.begin(), m_ended.end());
  m_ended.clear();
}

TimePoint Schedule::NextDeadline() const {
  if (!m_ended.empty()) {
    return TimePoint::min();
  }
  TimePoint next = std::min(m_nextLaunch, m_scanDue);
  for (const auto& [number, flight] : m_flights) {
    next = std::min({next, ExpiryTime(flight), NudgeTime(flight)});
  }
  return std::min(next, m_ports.NextTurn());
}

void Schedule::Scan(TimePoint now) { m_scanDue = std::min(m_scanDue, std::max(now, m_lastScan + kScanQuiet)); }

void Schedule::RunScan(TimePoint now) {
  if (m_scanDue > now) {
    return;
  }
  m_scanDue = TimePoint::max();
  m_lastScan = now;
  for (const auto& [number, flight] : m_flights) {
    Apply(number, PortEvent::SCAN, now);
  }
  m_ports.ApplyToAll(PortEvent::SCAN, now);
  m_pauseEnd = std::min(m_pauseEnd, m_pauseBegan + kShortPause);
}

void Schedule::EndRests(TimePoint now) {
  while (m_ports.NextTurn() <= now) {
    Apply(m_ports.FirstResting(), PortEvent::TURN, now);
  }
}

void Schedule::ExpireRequests(TimePoint now, Turn& turn) {
  std::vector<std::pair<TimePoint, u16>> expired;
  for (const auto& [number, flight] : m_flights) {
    if (flight.next <= now) {
      expired.emplace_back(flight.next, number);
    }
  }
  std::sort(expired.begin(), expired.end());
  for (const auto& [time, number] : expired) {
    const auto flight = m_flights.find(number);
    if (flight != m_flights.end() && ExpiryTime(flight->second) <= now) {
      Expire(number, now, turn);
    }
  }
}

TimePoint Schedule::ExpiryTime(const Flight& flight) const {
  return IsServerHeard() ? std::max(flight.next, m_pace.NextSend()) : flight.next;
}

void Schedule::Expire(u16 number, TimePoint now, Turn& turn) {
  const Flight& flight = m_flights.at(number);
  m_pace.Lost(now);
  const bool isSilentByItself = IsServerHeard() && m_lastAnswer >= flight.first;
  if (flight.sends >= m_timing.sends && isSilentByItself) {
    Apply(number, PortEvent::UNANSWERED, now);
  } else if (flight.sends >= m_timing.sends) {
    Apply(number, PortEvent::PASSED, now);
    Apply(ServerEvent::GIVEN_UP, now);
  } else if (flight.sends == kDoubtfulSends && !isSilentByItself) {
    if (IsServerHeard()) {
      Apply(number, PortEvent::PASSED, now);
    }
    Apply(ServerEvent::UNANSWERED, now);
  }
  const auto left = m_flights.find(number);
  if (left != m_flights.end()) {
    Send(number, left->second, now, turn);
    SendCompanion(now, turn);
  }
}

void Schedule::SendNudged(TimePoint now, Turn& turn) {
  for (auto& [number, flight] : m_flights) {
    if (NudgeTime(flight) <= now) {
      flight.isNudged = false;
      flight.last = now;
      turn.sends.push_back({number, flight.id, {}});
      Spend(now);
    }
  }
}

TimePoint Schedule::NudgeTime(const Flight& flight) const {
  return flight.isNudged ? std::max(flight.last + kNudgeGap, m_spent - kCredit) : TimePoint::max();
}

void Schedule::Spend(TimePoint now) {
  m_spent = std::max(m_spent, now) + (IsServerHeard() ? kCostHeard : kCostUnheard);
}

void Schedule::SendCanary(TimePoint now, Turn& turn) {
  m_nextLaunch = TimePoint::max();
  if (!m_canary && !m_ports.HasDue() && !m_flights.empty()) {  // the canary has gone, its companions have not
    auto& [number, flight] = *m_flights.begin();
    m_canary = number;
    flight.next = flight.last + m_timing.rto;
  }
  if (m_canary || !m_ports.HasDue()) {
    return;
  }
  if (now < m_pauseEnd) {
    m_nextLaunch = m_pauseEnd;
    return;
  }
  m_canary = m_ports.FirstDue();
  Launch(*m_canary, now, turn);
}

// A port that asks once beside the canary: one of the other kind, where there is one, as a network may drop the
// requests of one kind; else any that is due; else one that was answered before.
void Schedule::SendCompanion(TimePoint now, Turn& turn) {
  if (IsServerHeard() || !m_canary) {
    return;
  }
  if (!m_ports.HasDue()) {
    WakeKnownPort(now);
  }
  if (m_ports.HasDue()) {
    const u16 number = m_ports.FirstDue(!m_ports.IsUrgent(*m_canary));
    Launch(number, now, turn);
    m_flights.at(number).next = TimePoint::max();
  }
}

void Schedule::FillWindow(TimePoint now, Turn& turn) {
  m_nextLaunch = TimePoint::max();
  std::size_t fresh = 0;
  TimePoint room = TimePoint::max();
  for (const auto& [number, flight] : m_flights) {
    if (flight.last + kFresh > now) {
      ++fresh;
      room = std::min(room, flight.last + kFresh);
    }
  }
  for (; m_ports.HasDue() && m_flights.size() < m_timing.mostUnderWay; ++fresh) {
    if (fresh >= kWindow || m_pace.NextSend() > now) {
      m_nextLaunch = fresh >= kWindow ? room : m_pace.NextSend();
      return;
    }
    Launch(m_ports.FirstDue(), now, turn);
    room = std::min(room, now + kFresh);
  }
}

void Schedule::Launch(u16 number, TimePoint now, Turn& turn) {
  Apply(number, PortEvent::ROOM, now);
  Flight& flight = m_flights.at(number);
  flight.id = NewTransactionId(m_random);
  flight.first = now;
  Send(number, flight, now, turn);
}

void Schedule::Send(u16 number, Flight& flight, TimePoint now, Turn& turn) {
  flight.next = now + (flight.sends + 1 < m_timing.sends ? m_timing.rto * (1 << flight.sends) : m_timing.lastWait);
  ++flight.sends;
  flight.last = now;
  turn.sends.push_back({number, flight.id, {}});
  if (IsServerHeard()) {
    m_pace.Sent(now);
  } else {
    Spend(now);
  }
}

}  // namespace stun
