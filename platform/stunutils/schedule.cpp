#include "platform/stunutils/schedule.h"

#include <algorithm>

// The ports: their steps, and where they are linked.

namespace stun {
namespace {

constexpr u8 kMostBriefRests = 3;
constexpr Millis kBriefRest{500};
constexpr Millis kUnknownScanGap{1000};

}  // namespace

void Schedule::SetTiming(const Timing& timing, TimePoint now) {
  const bool isOther = timing.period != m_timing.period;
  m_timing = timing;
  for (const auto& [number, port] : m_ports) {
    if (isOther) {
      Apply(number, PortEvent::PERIOD, now);
    }
  }
}

void Schedule::Add(u16 number, bool isUrgent) {
  const auto [found, isNew] = m_ports.try_emplace(number);
  Port& port = found->second;
  if (!isNew && port.state == PortState::DUE) {
    m_due.erase(Key(number, port));
  }
  port.isUrgent = isUrgent;
  if (port.state == PortState::DUE) {
    m_due.insert(Key(number, port));
  }
}

void Schedule::Remove(u16 number) {
  const auto found = m_ports.find(number);
  if (found != m_ports.end()) {
    Unlink(number, found->second);
    m_ports.erase(found);
  }
}

void Schedule::Clear() {
  while (!m_ports.empty()) {
    Remove(m_ports.begin()->first);
  }
}

void Schedule::Restart(TimePoint now) {
  for (const auto& [number, port] : m_ports) {
    Apply(number, PortEvent::RESTART, now);
  }
  SwitchServer(true, now);
}

bool Schedule::Lend(u16 number, TimePoint now) {
  Apply(number, PortEvent::LEND, now);
  const auto found = m_ports.find(number);
  return found != m_ports.end() && found->second.state == PortState::LENT;
}

bool Schedule::IsAwaited(u16 number, const TransactionId& id) const {
  const auto flight = m_flights.find(number);
  return flight != m_flights.end() && flight->second.id == id;
}

void Schedule::Link(u16 number, const Port& port) {
  switch (port.state) {
    case PortState::DUE:
      m_due.insert(Key(number, port));
      break;
    case PortState::RESTING:
      m_resting.emplace(port.turn, number);
      break;
    case PortState::ASKED:
      m_flights.try_emplace(number);
      break;
    case PortState::LENT:
      break;
  }
}

void Schedule::Unlink(u16 number, const Port& port) {
  switch (port.state) {
    case PortState::DUE:
      m_due.erase(Key(number, port));
      break;
    case PortState::RESTING:
      m_resting.erase({port.turn, number});
      break;
    case PortState::ASKED:
      m_flights.erase(number);
      m_ended.push_back(number);
      if (m_canary == number) {
        m_canary.reset();
      }
      break;
    case PortState::LENT:
      break;
  }
}

void Schedule::Apply(u16 number, PortEvent event, TimePoint now) {
  const auto found = m_ports.find(number);
  if (found == m_ports.end()) {
    return;
  }
  Port& port = found->second;
  const PortStep step = After(port.state, event);
  if (step.action == PortAction::NUDGE) {
    Flight& flight = m_flights.at(number);
    flight.isNudged = flight.next != TimePoint::max();
  } else if (step.action != PortAction::NOTHING) {
    Unlink(number, port);
    port.state = step.to;
    Act(number, port, step.action, now);
    Link(number, port);
  }
}

void Schedule::Act(u16 number, Port& port, PortAction action, TimePoint now) {
  switch (action) {
    case PortAction::SEND:
      port.asked = now;
      break;
    case PortAction::FIRST:
      port.turn = TimePoint{};
      port.passes = port.refusals = 0;
      break;
    case PortAction::BEHIND:
      port.passes = static_cast<u8>(std::min(port.passes + 1, 255));
      break;
    case PortAction::REST:
      port.turn = Place(number, now);
      port.passes = port.refusals = 0;
      break;
    case PortAction::BRIEFLY:
      RestBriefly(number, port, now);
      break;
    case PortAction::HASTEN:
      port.turn = std::min(port.turn, std::max(now, MayAskAgain(port)));
      break;
    case PortAction::NOTHING:
    case PortAction::NUDGE:
    case PortAction::AGAIN:
    case PortAction::HAND_OUT:
      break;
  }
}

void Schedule::RestBriefly(u16 number, Port& port, TimePoint now) {
  if (port.refusals < kMostBriefRests) {
    port.turn = now + kBriefRest * (1 << port.refusals);
    ++port.refusals;
  } else {
    port.turn = Place(number, now);
    port.refusals = 0;
  }
}

TimePoint Schedule::MayAskAgain(const Port& port) const {
  const Millis gap = m_timing.period / 10;
  return port.asked + (port.isKnown ? gap : std::min(kUnknownScanGap, gap));
}

}  // namespace stun
