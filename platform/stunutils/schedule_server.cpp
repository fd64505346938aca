#include "platform/stunutils/schedule.h"

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
  Answered(number, now);
  m_refusals = 0;
  m_ports.SetAnswered(number);
  Apply(number, isDoubtful ? PortEvent::DOUBTFUL : PortEvent::MAPPED, now);
  Apply(ServerEvent::MAPPED, now);
}

void Schedule::Refused(u16 number, TimePoint now) {
  Answered(number, now);
  if (IsServerHeard() && ++m_refusals < kRefusalsInARow) {
    Apply(number, PortEvent::REFUSED, now);
    return;
  }
  Apply(number, PortEvent::PASSED, now);
  Apply(ServerEvent::REFUSED, now);
}

void Schedule::Answered(u16 number, TimePoint now) {
  m_lastAnswer = now;
  m_pace.Answered(m_flights.at(number).sends - 1 + kDoubtfulSends * m_ports.Passes(number), now);
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
    case ServerAction::ASK_KNOWN:
      m_pauseEnd = TimePoint{};
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

// The server is heard. Ports that asked for nothing are due, or wait for their turn, as the event says; requests under
// way go on.
void Schedule::Open(PortEvent toPassed, TimePoint now) {
  m_refusals = 0;
  m_pace = Pace();
  m_spent = TimePoint{};
  m_canary.reset();
  while (const auto passed = m_ports.LastPassed()) {
    Apply(*passed, toPassed, now);
  }
}

// The next canary is another port, where there is one.
void Schedule::PauseCanary(Millis pause, TimePoint now) {
  EndFlights(PortEvent::PASSED, now);
  m_pauseBegan = now;
  m_pauseEnd = now + pause;
}

}  // namespace stun
