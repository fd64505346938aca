#include "platform/stunutils/schedule.h"

#include <algorithm>

namespace stun {
namespace {

constexpr u8 kMostRefusals = 3;
constexpr Millis kRefusedPause{5000};
constexpr Millis kScanQuiet{250};
constexpr Millis kUnknownScanGap{1000};
constexpr Millis kShortPause{1000};

}  // namespace

void Schedule::SetTiming(const Timing& timing, TimePoint now) {
  const bool isOther = timing.period != m_timing.period;
  m_timing = timing;
  if (isOther) {
    for (auto& [port, state] : m_ports) {
      if (state.state == State::WAITING) {
        MakeWait(port, state, Place(port, now));
      }
    }
  }
}

void Schedule::Add(u16 port, bool isUrgent) {
  const auto [found, isNew] = m_ports.try_emplace(port);
  Port& state = found->second;
  if (isNew) {
    state.isUrgent = isUrgent;
    m_ready.insert(Key(port, state));
  } else if (state.isUrgent != isUrgent) {
    m_ready.erase(Key(port, state));
    state.isUrgent = isUrgent;
    if (state.state == State::READY) {
      m_ready.insert(Key(port, state));
    }
  }
}

void Schedule::Remove(u16 port) {
  const auto found = m_ports.find(port);
  if (found != m_ports.end()) {
    Unlink(port, found->second);
    m_ports.erase(found);
  }
}

void Schedule::Clear() {
  AbandonFlights();
  m_ready.clear();
  m_waiting.clear();
  m_ports.clear();
}

void Schedule::Restart() {
  AbandonFlights();
  m_ready.clear();
  m_waiting.clear();
  for (auto& [port, state] : m_ports) {
    state.passes = 0;
    state.refusals = 0;
    state.due = TimePoint{};
    state.state = State::READY;
    m_ready.insert(Key(port, state));
  }
  ServerChanged(true);
}

void Schedule::ServerChanged(bool isFresh) {
  AbandonFlights();
  m_isHeard = m_isSilent = m_isPortDoubted = m_isNudged = false;
  if (isFresh) {
    m_pauseEnd = TimePoint{};
  }
}

void Schedule::Scan(TimePoint now) {
  if (now - m_lastScan < kScanQuiet) {
    return;
  }
  m_lastScan = now;
  const Millis knownGap = m_timing.period / 10;
  const Millis unknownGap = std::min(kUnknownScanGap, knownGap);
  for (auto& [port, state] : m_ports) {
    if (state.state != State::WAITING) {
      continue;
    }
    const TimePoint again = state.asked + (state.isKnown ? knownGap : unknownGap);
    if (again <= now) {
      MakeReady(port, state, 0);
    } else if (again < state.due) {
      MakeWait(port, state, again);
    }
  }
  if (!m_isHeard) {
    m_isNudged = !m_flights.empty() && m_flights.begin()->second.last + m_timing.rto <= now;
    m_pauseEnd = std::min(m_pauseEnd, m_pauseBegan + kShortPause);
  }
}

bool Schedule::IsAwaited(u16 port, const TransactionId& id) const {
  const auto flight = m_flights.find(port);
  return flight != m_flights.end() && flight->second.id == id;
}

void Schedule::Answered(u16 port, Outcome outcome, TimePoint now) {
  const auto found = m_ports.find(port);
  if (found == m_ports.end()) {
    return;
  }
  Port& state = found->second;
  const bool isRefused = outcome == Outcome::REFUSED || outcome == Outcome::REFUSED_FOR_NOW;
  m_lastAnswer = now;
  if (isRefused && !m_isHeard) {
    m_isPortDoubted = false;
    PauseCanary(port, now, kRefusedPause);
    return;
  }
  if (isRefused) {
    const bool isSoon = outcome == Outcome::REFUSED_FOR_NOW && state.refusals < kMostRefusals;
    state.refusals = isSoon ? static_cast<u8>(state.refusals + 1) : u8{0};
    MakeWait(port, state, isSoon ? now + (m_timing.rto * (1 << state.refusals)) : Place(port, now));
    return;
  }
  state.isKnown = true;
  state.refusals = 0;
  if (outcome == Outcome::CHECK_AGAIN) {
    state.due = TimePoint{};
    MakeReady(port, state, 0);
  } else {
    MakeWait(port, state, Place(port, now));
  }
  if (!m_isHeard) {
    ServerHeard(now);
  }
}

void Schedule::Unavailable(u16 port, TimePoint now) {
  const auto found = m_ports.find(port);
  if (found != m_ports.end() && found->second.state == State::IN_FLIGHT) {
    MakeWait(port, found->second, Place(port, now));
  }
}

void Schedule::Unlink(u16 port, const Port& state) {
  switch (state.state) {
    case State::READY:
      m_ready.erase(Key(port, state));
      break;
    case State::WAITING:
      m_waiting.erase({state.due, port});
      break;
    case State::IN_FLIGHT:
      m_flights.erase(port);
      m_ended.push_back(port);
      break;
  }
}

void Schedule::MakeReady(u16 port, Port& state, u8 passes) {
  Unlink(port, state);
  state.passes = passes;
  state.state = State::READY;
  m_ready.insert(Key(port, state));
}

void Schedule::MakeWait(u16 port, Port& state, TimePoint due) {
  Unlink(port, state);
  state.passes = 0;
  state.state = State::WAITING;
  state.due = due;
  m_waiting.emplace(due, port);
}

void Schedule::AbandonFlights() {
  while (!m_flights.empty()) {
    const u16 port = m_flights.begin()->first;
    Port& state = m_ports.at(port);
    MakeReady(port, state, state.passes);
  }
}

// The next canary is another port, where there is one.
void Schedule::PauseCanary(u16 port, TimePoint now, Millis pause) {
  Port& state = m_ports.at(port);
  MakeReady(port, state, static_cast<u8>(std::min(state.passes + 1, 255)));
  m_pauseBegan = now;
  m_pauseEnd = now + pause;
}

// Ports that were asked for in vain are due, unless it was they who were silent.
void Schedule::ServerHeard(TimePoint now) {
  m_isHeard = true;
  while (!m_ready.empty() && std::get<u8>(*m_ready.rbegin()) > 0) {
    const u16 port = std::get<u16>(*m_ready.rbegin());
    Port& state = m_ports.at(port);
    if (m_isPortDoubted) {
      MakeWait(port, state, Place(port, now));
    } else {
      MakeReady(port, state, 0);
    }
  }
  m_isSilent = m_isPortDoubted = false;
}

}  // namespace stun
