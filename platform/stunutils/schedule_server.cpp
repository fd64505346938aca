#include "platform/stunutils/schedule.h"

#include <algorithm>

// The server: its steps, and the answers that lead to them.

namespace stun {
namespace {

constexpr u32 kRefusalsInARow = 3;
constexpr Millis kCheckPause{500};
constexpr Millis kRefusedPause{5000};

}  // namespace

void Schedule::SwitchServer(bool isFresh, TimePoint now) {
  Apply(ServerEvent::SWITCHED, now);
  if (isFresh) {
    m_pauseEnd = TimePoint{};
  }
}

void Schedule::Mapped(u16 number, bool isDoubtful, TimePoint now) {
  m_lastAnswer = now;
  m_refusals = 0;
  m_pace.Answered(now);
  m_ports.SetKnown(number);
  Apply(number, isDoubtful ? PortEvent::DOUBTFUL : PortEvent::MAPPED, now);
  Apply(ServerEvent::MAPPED, now);
}

void Schedule::Refused(u16 number, TimePoint now) {
  m_lastAnswer = now;
  m_pace.Answered(now);
  if (IsServerHeard() && ++m_refusals < kRefusalsInARow) {
    Apply(number, PortEvent::REFUSED, now);
    return;
  }
  Apply(number, PortEvent::PASSED, now);
  Apply(ServerEvent::REFUSED, now);
}

void Schedule::Apply(ServerEvent event, TimePoint now) {
  const ServerStep step = After(kServerSteps, m_server, event);
  m_server = step.to;
  switch (step.action) {
    case ServerAction::NOTHING:
      break;
    case ServerAction::ASK_ALL:
      Open(PortEvent::RENEWED, now);
      break;
    case ServerAction::ASK_THE_REST:
      Open(PortEvent::SPARED, now);
      break;
    case ServerAction::ASK_OTHERS:
      EndFlights(PortEvent::PUT_BACK, now);
      WakeKnownPort(now);
      break;
    case ServerAction::ASK_ONE:
      PauseCanary(kCheckPause, now);
      break;
    case ServerAction::TELL:
      m_advice = step.action;
      break;
    case ServerAction::GIVE_UP:
      PauseCanary(m_timing.canaryPause, now);
      m_advice = step.action;
      break;
    case ServerAction::LEAVE:
      PauseCanary(kRefusedPause, now);
      m_advice = step.action;
      break;
    case ServerAction::BEGIN:
      EndFlights(PortEvent::PUT_BACK, now);
      m_refusals = 0;
      break;
  }
}

// The server is heard. Canaries are due, or wait for their turn, as the event says; requests under way go on.
void Schedule::Open(PortEvent toCanaries, TimePoint now) {
  m_refusals = 0;
  m_pace = Pace();
  m_spent = TimePoint{};
  m_canary.reset();
  for (auto& [number, flight] : m_flights) {
    if (flight.next == TimePoint::max()) {
      flight.next = std::max(now, flight.last + m_timing.rto);
    }
  }
  while (const auto canary = m_ports.LastPassed()) {
    Apply(*canary, toCanaries, now);
  }
}

// The next canary is another port, where there is one.
void Schedule::PauseCanary(Millis pause, TimePoint now) {
  EndFlights(PortEvent::PASSED, now);
  m_pauseBegan = now;
  m_pauseEnd = now + pause;
}

// A port that was answered before tells the server's silence from the doubted port's own.
void Schedule::WakeKnownPort(TimePoint now) {
  m_pauseEnd = TimePoint{};
  const auto known = m_ports.IsFirstFresh() ? std::nullopt : m_ports.FirstKnownResting();
  if (known) {
    Apply(*known, PortEvent::TURN, now);
  }
}

}  // namespace stun
