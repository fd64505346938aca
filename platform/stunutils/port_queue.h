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
// Only Add needs memory; when it finds none, nothing has changed.
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
  // Applies CHANGE to so many more of the ports that have not asked since then, in the order of their turns.
  void PromptNext(std::size_t count, TimePoint since, TimePoint now);
  // A mapping was told for it.
  void SetAnswered(u16 number) { m_ports.at(number).isAnswered = true; }

  // How often it has asked for nothing since it last rested.
  u32 Passes(u16 number) const { return m_ports.at(number).passes; }
  // Of a port that is there: its state, and while it rests when its turn is.
  std::pair<PortState, TimePoint> StateOf(u16 number) const {
    const Port& port = m_ports.at(number);
    return {port.state, port.turn};
  }
  bool IsUrgent(u16 number) const { return m_ports.at(number).isUrgent; }

  bool HasDue() const { return m_order.begin() != Begin(PortState::RESTING); }
  // There is one: the first, and the first that is urgent or not, else the first.
  u16 FirstDue() const { return std::get<u16>(*m_order.begin()); }
  u16 FirstDue(bool isUrgent) const;
  bool IsFirstFresh() const { return HasDue() && std::get<u8>(*m_order.begin()) == 0; }
  // The last in the order, when it has asked for nothing.
  std::optional<u16> LastPassed() const;

  // When the next turn is; max: never.
  TimePoint NextTurn() const;
  // There is one: the port whose turn is next.
  u16 FirstResting() const { return std::get<u16>(*Begin(PortState::RESTING)); }

  // A port that was answered when it last asked, if it is not LENT; one that is ASKED when there is no other.
  std::optional<u16> FirstAnswered() const;

 private:
  struct Port {
    bool isUrgent = false;
    bool isAnswered = false;
    u8 passes = 0;
    u8 refusals = 0;  // in a row
    PortState state = PortState::DUE;
    TimePoint turn{};   // when its turn is or was; the epoch: first
    TimePoint asked{};  // when it last began to ask
  };
  // Passes and urgency of those that are DUE only; then the longest due first.
  using Key = std::tuple<PortState, u8, bool, TimePoint, u16>;
  using Order = std::set<Key>;

  static Key KeyOf(u16 number, const Port& port);
  Order::const_iterator Begin(PortState state) const {
    return m_order.lower_bound({state, u8{0}, false, TimePoint::min(), u16{0}});
  }
  template <class Change>
  void Reorder(u16 number, Port& port, Change change);
  void Act(u16 number, Port& port, PortAction action, TimePoint now);
  void RestBriefly(u16 number, Port& port, TimePoint now);
  Millis Gap() const { return m_period / 10; }
  Millis ShortGap() const;
  TimePoint Place(u16 number, TimePoint now) const { return NextPlace(number, now, m_period, m_random); }

  const Random m_random;
  Millis m_period{Timing{}.period};
  std::unordered_map<u16, Port> m_ports;
  Order m_order;
  TimePoint m_promptedSince{};
  std::pair<TimePoint, u16> m_lastPrompted;
};

}  // namespace stun
