#include "platform/stunutils/schedule.h"

// The ports: which of them have a request under way.

namespace stun {

void Schedule::SetTiming(const Timing& timing, TimePoint now) {
  const bool isOther = timing.period != m_timing.period;
  m_timing = timing;
  m_ports.SetPeriod(timing.period);
  if (isOther) {
    m_ports.ApplyToAll(PortEvent::PERIOD, now);
  }
}

void Schedule::Remove(u16 number) {
  m_ports.Remove(number);
  EndFlight(number);
}

void Schedule::Clear() {
  m_ports.Clear();
  while (!m_flights.empty()) {
    EndFlight(m_flights.begin()->first);
  }
}

void Schedule::Restart(TimePoint now) {
  EndFlights(PortEvent::RESTART, now);
  m_ports.ApplyToAll(PortEvent::RESTART, now);
  SwitchServer(true, now);
}

bool Schedule::IsAwaited(u16 number, const TransactionId& id) const {
  const auto flight = m_flights.find(number);
  return flight != m_flights.end() && flight->second.id == id;
}

void Schedule::Apply(u16 number, PortEvent event, TimePoint now) {
  const PortAction action = m_ports.Apply(number, event, now);
  if (action == PortAction::NUDGE) {
    m_flights.at(number).isNudged = MaySend(number);
  } else if (action != PortAction::NOTHING && action != PortAction::SEND) {
    EndFlight(number);
  }
}

void Schedule::EndFlight(u16 number) {
  if (auto flight = m_flights.extract(number)) {
    m_ended.insert(std::move(flight));
  }
  if (m_canary == number) {
    m_canary.reset();
  }
}

void Schedule::EndFlights(PortEvent event, TimePoint now) {
  while (!m_flights.empty()) {
    const u16 number = m_flights.begin()->first;
    Apply(number, event, now);
    EndFlight(number);
  }
}

std::vector<u16> Schedule::TakeEnded() {
  std::vector<u16> ended;
  ended.reserve(m_ended.size());
  for (const auto& [number, flight] : m_ended) {
    ended.push_back(number);
  }
  m_ended.clear();
  return ended;
}

}  // namespace stun
