#include "platform/stunutils/schedule.h"

#include <algorithm>

// What a turn does: time-outs, retransmissions, and which ports are asked for next.

namespace stun {
namespace {

// A transaction sent this often for nothing, with nothing else heard meanwhile, speaks of the server: at 5 % loss each
// way that happens by chance once in a thousand times.
constexpr u32 kDoubtfulSends = 3;

}  // namespace

void Schedule::Advance(TimePoint now, Turn& turn) {
  while (!m_waiting.empty() && m_waiting.begin()->first <= now) {
    const u16 port = m_waiting.begin()->second;
    MakeReady(port, m_ports.at(port), 0);
  }
  std::vector<u16> expired;
  for (const auto& [port, flight] : m_flights) {
    if (flight.next <= now) {
      expired.push_back(port);
    }
  }
  for (const u16 port : expired) {
    if (m_flights.contains(port)) {
      Expire(port, now, turn);
    }
  }
  if (m_isNudged && !m_isHeard && !m_flights.empty() && turn.sends.empty()) {
    auto& [port, flight] = *m_flights.begin();
    turn.sends.push_back({port, flight.id});
    flight.last = now;
  }
  m_isNudged = false;
  FillWindow(now, turn);
  turn.ended.insert(turn.ended.end(), m_ended.begin(), m_ended.end());
  m_ended.clear();
}

void Schedule::FillWindow(TimePoint now, Turn& turn) {
  m_nextLaunch = TimePoint::max();
  if (!m_isHeard) {
    if (m_flights.empty() && !m_ready.empty() && now >= m_pauseEnd) {
      Launch(std::get<u16>(*m_ready.begin()), now, turn);
    } else if (m_flights.empty() && !m_ready.empty()) {
      m_nextLaunch = m_pauseEnd;
    }
    return;
  }
  std::size_t fresh = 0;
  TimePoint room = TimePoint::max();
  for (const auto& [port, flight] : m_flights) {
    if (flight.last + kFresh > now) {
      ++fresh;
      room = std::min(room, flight.last + kFresh);
    }
  }
  for (; !m_ready.empty() && m_flights.size() < m_timing.mostUnderWay; ++fresh) {
    if (fresh >= kWindow) {
      m_nextLaunch = room;
      return;
    }
    Launch(std::get<u16>(*m_ready.begin()), now, turn);
    room = std::min(room, now + kFresh);
  }
}

TimePoint Schedule::NextDeadline() const {
  if (!m_ended.empty() || m_isNudged) {
    return TimePoint::min();
  }
  TimePoint next = m_nextLaunch;
  for (const auto& [port, flight] : m_flights) {
    next = std::min(next, flight.next);
  }
  if (!m_waiting.empty()) {
    next = std::min(next, m_waiting.begin()->first);
  }
  return next;
}

void Schedule::Launch(u16 port, TimePoint now, Turn& turn) {
  Port& state = m_ports.at(port);
  Unlink(port, state);
  state.state = State::IN_FLIGHT;
  state.asked = now;
  Flight& flight = m_flights[port];
  flight.id = NewTransactionId(m_random);
  flight.first = now;
  Send(port, flight, now, turn);
}

void Schedule::Send(u16 port, Flight& flight, TimePoint now, Turn& turn) {
  flight.next = now + (flight.sends + 1 < m_timing.sends ? m_timing.rto * (1 << flight.sends) : m_timing.lastWait);
  ++flight.sends;
  flight.last = now;
  turn.sends.push_back({port, flight.id});
}

void Schedule::Expire(u16 port, TimePoint now, Turn& turn) {
  Flight& flight = m_flights.at(port);
  const bool wasServerHeard = m_isHeard && m_lastAnswer >= flight.first;
  if (flight.sends >= m_timing.sends) {
    GiveUp(port, wasServerHeard, now, turn);
    return;
  }
  if (flight.sends == kDoubtfulSends && !wasServerHeard) {
    if (m_isHeard) {
      SeekAnotherCanary(port, now, turn);
      return;
    }
    if (!m_isSilent) {
      m_isSilent = true;
      m_isPortDoubted = false;
      turn.silence = Silence::DOUBTED;
    }
  }
  Send(port, flight, now, turn);
}

void Schedule::GiveUp(u16 port, bool wasServerHeard, TimePoint now, Turn& turn) {
  if (wasServerHeard) {
    MakeWait(port, m_ports.at(port), Place(port, now));
  } else if (m_isHeard) {
    SeekAnotherCanary(port, now, turn);
  } else {
    m_isSilent = true;
    m_isPortDoubted = false;
    turn.silence = Silence::GIVEN_UP;
    PauseCanary(port, now, m_timing.canaryPause);
  }
}

// A port that was answered before tells the server's silence from the doubted port's own.
void Schedule::SeekAnotherCanary(u16 doubted, TimePoint now, Turn& turn) {
  AbandonFlights();
  turn.sends.clear();
  m_isHeard = m_isSilent = false;
  m_isPortDoubted = true;
  PauseCanary(doubted, now, Millis{0});
  if (std::get<u8>(*m_ready.begin()) > 0) {
    const auto known = std::find_if(m_waiting.begin(), m_waiting.end(),
                                    [this](const auto& entry) { return m_ports.at(entry.second).isKnown; });
    if (known != m_waiting.end()) {
      const u16 port = known->second;
      MakeReady(port, m_ports.at(port), 0);
    }
  }
}

}  // namespace stun
