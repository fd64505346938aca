#include "platform/stunutils/schedule.h"

#include <algorithm>

// A turn: time-outs, retransmissions, and which ports ask next.

namespace stun {
namespace {

constexpr Millis kScanQuiet{250};
constexpr Millis kShortPause{1000};

// Beside its regular requests a server that is not heard gets two at once and then one a second; one that is heard
// gets 50 times as many. A scan brings a port's request forward to this long after the last.
constexpr Millis kCredit{1000};
constexpr Millis kCostUnheard{1000};
constexpr Millis kCostHeard{20};
constexpr Millis kNudgeGap{400};

}  // namespace

std::vector<Order> Schedule::Advance(TimePoint now) {
  std::vector<Order> sends;
  RunScan(now);
  EndRests(now);
  ExpireRequests(now, sends);
  SendNudged(now, sends);
  if (IsServerHeard()) {
    FillWindow(now, sends);
  } else {
    SendCanary(now, sends);
  }
  std::erase_if(sends, [this](const Order& order) { return !IsAwaited(order.port, order.id); });
  return sends;
}

TimePoint Schedule::NextDeadline() const {
  TimePoint next = std::min(m_nextLaunch, m_scanDue);
  for (const auto& [number, flight] : m_flights) {
    next = std::min({next, ExpiryTime(number, flight), NudgeTime(flight)});
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

void Schedule::ExpireRequests(TimePoint now, std::vector<Order>& sends) {
  std::vector<std::pair<TimePoint, u16>> expired;
  for (const auto& [number, flight] : m_flights) {
    if (ExpiryTime(number, flight) <= now) {
      expired.emplace_back(flight.next, number);
    }
  }
  std::sort(expired.begin(), expired.end());
  for (const auto& [time, number] : expired) {
    const auto flight = m_flights.find(number);
    if (flight != m_flights.end() && ExpiryTime(number, flight->second) <= now) {
      Expire(number, now, sends);
    }
  }
}

// The end of a request waits for nothing; another sending waits for the pace, and while the server is not heard it is
// the canary's alone.
TimePoint Schedule::ExpiryTime(u16 number, const Flight& flight) const {
  const TimePoint end = flight.first + m_timing.mostHeld;
  if (!MaySend(number)) {
    return end;
  }
  const bool isPaced = IsServerHeard() && flight.sends < m_timing.sends;
  return std::min(end, isPaced ? std::max(flight.next, m_pace.NextSend()) : flight.next);
}

void Schedule::Expire(u16 number, TimePoint now, std::vector<Order>& sends) {
  const Flight& flight = m_flights.at(number);
  const bool isOver = flight.sends >= m_timing.sends || now >= flight.first + m_timing.mostHeld;
  const bool isSilentByItself = IsSilentByItself(flight);
  const bool isTelling = MaySend(number) && !isSilentByItself &&
                         (isOver || flight.sends == (IsServerHeard() ? kDoubtfulSends : kSilentSends));
  if (isOver) {
    Apply(number, isSilentByItself ? PortEvent::UNANSWERED : PortEvent::PASSED, now);
  }
  if (isTelling) {
    Apply(isOver ? ServerEvent::GIVEN_UP : ServerEvent::UNANSWERED, now);
  }
  const auto left = m_flights.find(number);
  if (left != m_flights.end() && MaySend(number)) {
    Send(number, left->second, now, sends);
    SendCompanion(now, sends);
  }
}

void Schedule::SendNudged(TimePoint now, std::vector<Order>& sends) {
  for (auto& [number, flight] : m_flights) {
    if (NudgeTime(flight) <= now) {
      flight.isNudged = false;
      flight.last = now;
      sends.push_back({number, flight.id, {}});
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

void Schedule::SendCanary(TimePoint now, std::vector<Order>& sends) {
  m_nextLaunch = TimePoint::max();
  if (m_canary) {
    return;
  }
  const auto answered = m_ports.FirstAnswered();
  if (!answered && !m_ports.HasDue()) {
    if (!m_flights.empty()) {  // the canary has gone, its companions have not
      m_canary = m_flights.begin()->first;
    }
    return;
  }
  if (now < m_pauseEnd) {
    m_nextLaunch = m_pauseEnd;
    return;
  }
  const u16 number = answered.value_or(m_ports.HasDue() ? m_ports.FirstDue() : u16{0});
  Apply(number, PortEvent::CALLED, now);
  Launch(number, now, sends);
  m_canary = number;
}

// A port that asks once beside the canary: one of the other kind, where there is one, as a network may drop the
// requests of one kind; else any that is due; else one that was answered before.
void Schedule::SendCompanion(TimePoint now, std::vector<Order>& sends) {
  if (!m_canary) {
    return;
  }
  const auto answered = m_ports.HasDue() ? std::nullopt : m_ports.FirstAnswered();
  if (answered) {
    Apply(*answered, PortEvent::TURN, now);
  }
  if (m_ports.HasDue()) {
    Launch(m_ports.FirstDue(!m_ports.IsUrgent(*m_canary)), now, sends);
  }
}

void Schedule::FillWindow(TimePoint now, std::vector<Order>& sends) {
  m_nextLaunch = TimePoint::max();
  std::size_t fresh = 0;
  TimePoint room = TimePoint::max();
  for (const auto& [number, flight] : m_flights) {
    if (flight.last + kFresh > now) {
      ++fresh;
      room = std::min(room, flight.last + kFresh);
    }
  }
  for (; m_ports.HasDue(); ++fresh) {
    if (fresh >= kWindow || m_pace.NextSend() > now) {
      m_nextLaunch = fresh >= kWindow ? room : m_pace.NextSend();
      return;
    }
    if (!MakeRoom(now)) {
      return;
    }
    Launch(m_ports.FirstDue(), now, sends);
    room = std::min(room, now + kFresh);
  }
}

// Where there is none, a port that is silent by itself leaves it to one that has not asked yet.
bool Schedule::MakeRoom(TimePoint now) {
  if (m_flights.size() < m_timing.mostUnderWay) {
    return true;
  }
  const auto silent = std::find_if(m_flights.begin(), m_flights.end(), [this](const auto& flight) {
    return flight.second.sends >= kDoubtfulSends && IsSilentByItself(flight.second);
  });
  if (silent == m_flights.end() || !m_ports.IsFirstFresh()) {
    return false;
  }
  Apply(silent->first, PortEvent::OUTRUN, now);
  return true;
}

void Schedule::Launch(u16 number, TimePoint now, std::vector<Order>& sends) {
  Flight& flight = m_flights[number];
  Apply(number, PortEvent::ROOM, now);
  flight.id = NewTransactionId(m_random);
  flight.first = now;
  Send(number, flight, now, sends);
}

void Schedule::Send(u16 number, Flight& flight, TimePoint now, std::vector<Order>& sends) {
  flight.next = now + (flight.sends + 1 < m_timing.sends ? m_timing.rto * (1 << flight.sends) : m_timing.lastWait);
  ++flight.sends;
  flight.last = now;
  sends.push_back({number, flight.id, {}});
  if (IsServerHeard()) {
    m_pace.Sent(now);
  } else {
    Spend(now);
  }
}

}  // namespace stun
