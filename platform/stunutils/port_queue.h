#pragma once

#include <optional>
#include <set>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "platform/stunutils/port_state.h"
#include "platform/stunutils/random.h"
#include "platform/stunutils/timing.h"
#include "platform/types.h"

namespace stun {

// The ports in their states, those that are DUE in the order in which they ask, those that are RESTING by their turn.
class PortQueue {
 public:
  explicit PortQueue(const Random& random) : m_random(random) {}

  // For ports that rest from then on.
  void SetPeriod(Millis period) { m_period = period; }
  void Add(u16 number, bool isUrgent);
  void Remove(u16 number);
  void Clear();

  // Makes the step and returns its action, of which SEND and NUDGE are the caller's. Of ports that are not there:
  // nothing.
  PortAction Apply(u16 number, PortEvent event, TimePoint now);
  void ApplyToAll(PortEvent event, TimePoint now);
  // A mapping was told for it.
  void SetKnown(u16 number) { m_ports.at(number).isKnown = true; }

  // Of a port that is there: its state, and while it rests when its turn is.
  std::pair<PortState, TimePoint> StateOf(u16 number) const {
    const Port& port = m_ports.at(number);
    return {port.state, port.turn};
  }
  bool IsUrgent(u16 number) const { return m_ports.at(number).isUrgent; }

  bool HasDue() const { return !m_due.empty(); }
  // There is one: the first, and the first that is urgent or not, else the first.
  u16 FirstDue() const { return std::get<u16>(*m_due.begin()); }
  u16 FirstDue(bool isUrgent) const;
  bool IsFirstFresh() const { return HasDue() && std::get<u8>(*m_due.begin()) == 0; }
  // The last in the order, when it has been a canary.
  std::optional<u16> LastPassed() const;

  // When the next turn is; max: never.
  TimePoint NextTurn() const { return m_resting.empty() ? TimePoint::max() : m_resting.begin()->first; }
  // There is one: the port whose turn is next.
  u16 FirstResting() const { return m_resting.begin()->second; }
  std::optional<u16> FirstKnownResting() const;

 private:
  struct Port {
    bool isUrgent = false;
    bool isKnown = false;
    u8 passes = 0;    // times it was a canary for nothing since the server was last heard
    u8 refusals = 0;  // in a row
    PortState state = PortState::DUE;
    TimePoint turn{};   // when its turn is or was; the epoch: first
    TimePoint asked{};  // when it last began to ask
  };
  using DueKey = std::tuple<u8, bool, TimePoint, u16>;  // the longest due first

  static DueKey Key(u16 number, const Port& port) { return {port.passes, !port.isUrgent, port.turn, number}; }
  void Link(u16 number, const Port& port);
  void Unlink(u16 number, const Port& port);
  void Act(u16 number, Port& port, PortAction action, TimePoint now);
  void RestBriefly(u16 number, Port& port, TimePoint now);
  TimePoint MayAskAgain(const Port& port) const;
  TimePoint Place(u16 number, TimePoint now) const { return NextPlace(number, now, m_period, m_random); }

  const Random m_random;
  Millis m_period{Timing{}.period};
  std::unordered_map<u16, Port> m_ports;
  std::set<DueKey> m_due;
  std::set<std::pair<TimePoint, u16>> m_resting;
};

}  // namespace stun
