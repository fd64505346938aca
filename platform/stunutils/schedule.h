#pragma once

#include <map>
#include <set>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/stunutils/message.h"
#include "platform/stunutils/random.h"
#include "platform/stunutils/timing.h"
#include "platform/types.h"

namespace stun {

// Decides which port is asked for when; nothing here reads a clock, sends or knows a mapping.
//
// While the server has not been heard, one port, the canary, is asked for at a time, so that a dead server costs one
// transaction and not one per port. Once it has answered, up to kWindow ports are asked for at a time, urgent ones
// first, and then each port again once a period, at a place in the period that is the port's own: so a device's ports
// are spread over the period. A port that is silent while the server was heard in the meantime is silent by itself and
// waits for its next turn; otherwise another port becomes the canary.
class Schedule {
 public:
  // Each answer is charged 832 bytes of receive buffer, of which there are 212992 by default.
  static constexpr std::size_t kWindow = 64;
  // A request that has not been answered for this long makes room for others: lost ones would fill the window, and all
  // ports behind it would wait for their retransmission.
  static constexpr Millis kFresh{100};

  explicit Schedule(Random random) : m_random(std::move(random)) {}

  void SetTiming(const Timing& timing, TimePoint now);
  void Add(u16 port, bool isUrgent);
  void Remove(u16 port);
  void Clear();
  // All ports are due, the server is to be heard again. Also what a new server asks for.
  void Restart();
  // The server to be asked has changed, the ports' turns have not. One that is fresh is not made to wait for the
  // others' failures.
  void ServerChanged(bool isFresh);
  // Asks for every port now, one that was asked for a moment ago as soon as that is a while ago. A storm of scans is
  // one.
  void Scan(TimePoint now);

  struct Order {
    u16 port = 0;
    TransactionId id{};
  };
  // What is found of a silent server: DOUBTED once, when a canary was sent three times for nothing, GIVEN_UP whenever a
  // canary's time is over.
  enum class Silence { NONE, DOUBTED, GIVEN_UP };
  struct Turn {
    std::vector<Order> sends;
    std::vector<u16> ended;  // ports nothing is awaited for any more; to be heeded before the sends
    Silence silence = Silence::NONE;
  };
  // What is to be done now.
  void Advance(TimePoint now, Turn& turn);
  // When Advance is to be called again at the latest.
  TimePoint NextDeadline() const;

  // REFUSED_FOR_NOW is tried again soon, a few times.
  enum class Outcome { LEARNT, CHECK_AGAIN, REFUSED, REFUSED_FOR_NOW };
  // Whether an answer with this id is awaited for the port.
  bool IsAwaited(u16 port, const TransactionId& id) const;
  // An awaited answer came. CHECK_AGAIN asks for the port once more at once.
  void Answered(u16 port, Outcome outcome, TimePoint now);
  // The port cannot be asked for: it is put off to its next turn.
  void Unavailable(u16 port, TimePoint now);

  bool IsServerHeard() const { return m_isHeard; }
  // Nothing is awaited and nothing due.
  bool IsIdle() const { return m_flights.empty() && m_ready.empty(); }
  std::size_t InFlight() const { return m_flights.size(); }

 private:
  enum class State { READY, WAITING, IN_FLIGHT };
  struct Port {
    bool isUrgent = false;
    bool isKnown = false;
    u8 passes = 0;    // canaries nobody answered, since the server was last heard
    u8 refusals = 0;  // in a row
    State state = State::READY;
    TimePoint due{};    // when its turn is or was; the epoch: at once
    TimePoint asked{};  // when last asked for the first time in a transaction
  };
  struct Flight {
    TransactionId id{};
    u32 sends = 0;
    TimePoint first{};
    TimePoint last{};
    TimePoint next{};
  };
  using Ports = std::unordered_map<u16, Port>;
  using ReadyKey = std::tuple<u8, bool, TimePoint, u16>;  // the longest due first

  static ReadyKey Key(u16 port, const Port& state) { return {state.passes, !state.isUrgent, state.due, port}; }
  void Unlink(u16 port, const Port& state);
  void MakeReady(u16 port, Port& state, u8 passes);
  void MakeWait(u16 port, Port& state, TimePoint due);
  void AbandonFlights();
  void FillWindow(TimePoint now, Turn& turn);
  void Launch(u16 port, TimePoint now, Turn& turn);
  void Send(u16 port, Flight& flight, TimePoint now, Turn& turn);
  void Expire(u16 port, TimePoint now, Turn& turn);
  void GiveUp(u16 port, bool wasServerHeard, TimePoint now, Turn& turn);
  void SeekAnotherCanary(u16 doubted, TimePoint now, Turn& turn);
  void PauseCanary(u16 port, TimePoint now, Millis pause);
  void ServerHeard(TimePoint now);
  TimePoint Place(u16 port, TimePoint now) const { return NextPlace(port, now, m_timing.period, m_random); }

  const Random m_random;
  Timing m_timing;
  Ports m_ports;
  std::set<ReadyKey> m_ready;
  std::set<std::pair<TimePoint, u16>> m_waiting;
  std::map<u16, Flight> m_flights;
  std::vector<u16> m_ended;
  bool m_isHeard = false;
  bool m_isSilent = false;       // a canary has been sent three times for nothing
  bool m_isPortDoubted = false;  // rather than the server: the canary's predecessor was a port it had answered
  bool m_isNudged = false;       // send the canary once more, beside its schedule
  TimePoint m_nextLaunch = TimePoint::max();  // when there is room for ports that are ready
  TimePoint m_lastAnswer{};
  TimePoint m_pauseBegan{};  // of the pause between two canaries
  TimePoint m_pauseEnd{};
  TimePoint m_lastScan{};
};

}  // namespace stun
