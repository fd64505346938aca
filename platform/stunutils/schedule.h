#pragma once

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/stunutils/message.h"
#include "platform/stunutils/pace.h"
#include "platform/stunutils/port_queue.h"
#include "platform/stunutils/random.h"
#include "platform/stunutils/server_state.h"
#include "platform/stunutils/timing.h"
#include "platform/types.h"

namespace stun {

// A request to be sent.
struct Order {
  u16 port = 0;
  TransactionId id{};
  Endpoint server{};
};

// Decides which port asks when; nothing here reads a clock, sends or knows a mapping. port_state.h and server_state.h
// hold every step.
//
// While the server is not heard, one port asks it, the canary; with each of its retransmissions one port more asks
// once. So a dead server costs few requests, and a port that is silent by itself holds nothing up. Once the server is
// heard, a window of ports asks, urgent ones first, and then each port once a period, at its own place in it.
class Schedule {
 public:
  // Each answer is charged 832 bytes of receive buffer, of which there are 212992 by default.
  static constexpr std::size_t kWindow = 64;
  // A request that has not been answered for this long makes room for others: lost ones would fill the window, and all
  // ports behind it would wait for their retransmission.
  static constexpr Millis kFresh{100};

  explicit Schedule(const Random& random) : m_random(random), m_ports(random) {}

  void SetTiming(const Timing& timing, TimePoint now);
  void Add(u16 number, bool isUrgent) { m_ports.Add(number, isUrgent); }
  void Remove(u16 number);
  void Clear();
  // All ports are due, and the server is to be heard again.
  void Restart(TimePoint now);
  // Another server is asked; the ports' turns stay. A fresh one does not wait for the others' pause.
  void SwitchServer(bool isFresh, TimePoint now);
  // Every port asks now, or as soon as it may again: requests under way are sent once more. Scans within a moment of
  // each other are one, at its end.
  void Scan(TimePoint now);

  struct Turn {
    std::vector<Order> sends;  // without the server
    std::vector<u16> ended;    // ports that await nothing any more; to be handled before the sends
  };
  // What is to be done now.
  void Advance(TimePoint now, Turn& turn);
  // When Advance is to be called again at the latest.
  TimePoint NextDeadline() const;
  // TELL, GIVE_UP or LEAVE, once, when that is the owner's to do.
  ServerAction TakeAdvice() { return std::exchange(m_advice, ServerAction::NOTHING); }

  // Whether an answer with this id is awaited for the port. What an awaited one said is then told.
  bool IsAwaited(u16 number, const TransactionId& id) const;
  void Mapped(u16 number, bool isDoubtful, TimePoint now);
  void Refused(u16 number, TimePoint now);
  // The port cannot ask: it waits for its next turn.
  void Unavailable(u16 number, TimePoint now) { Apply(number, PortEvent::UNANSWERED, now); }

  // Takes a resting port out of the schedule until it is returned; false for any other port.
  bool Lend(u16 number, TimePoint now) { return m_ports.Apply(number, PortEvent::LEND, now) == PortAction::HAND_OUT; }
  void Return(u16 number, TimePoint now) { Apply(number, PortEvent::RETURNED, now); }

  ServerState Server() const { return m_server; }
  std::pair<PortState, TimePoint> StateOf(u16 number) const { return m_ports.StateOf(number); }
  bool IsServerHeard() const { return m_server == ServerState::HEARD; }
  // Nothing is awaited and nothing due.
  bool IsIdle() const { return m_flights.empty() && !m_ports.HasDue(); }

 private:
  struct Flight {
    TransactionId id{};
    u32 sends = 0;
    TimePoint first{};
    TimePoint last{};
    TimePoint next{};  // max: not sent again while the server is not heard
    bool isNudged = false;
  };

  void Apply(u16 number, PortEvent event, TimePoint now);
  void EndFlight(u16 number);
  void EndFlights(PortEvent event, TimePoint now);

  void Apply(ServerEvent event, TimePoint now);
  void Open(PortEvent toCanaries, TimePoint now);
  void PauseCanary(Millis pause, TimePoint now);
  void WakeKnownPort(TimePoint now);

  void RunScan(TimePoint now);
  void EndRests(TimePoint now);
  void ExpireRequests(TimePoint now, Turn& turn);
  void Expire(u16 number, TimePoint now, Turn& turn);
  void SendNudged(TimePoint now, Turn& turn);
  void SendCanary(TimePoint now, Turn& turn);
  void SendCompanion(TimePoint now, Turn& turn);
  void FillWindow(TimePoint now, Turn& turn);
  void Launch(u16 number, TimePoint now, Turn& turn);
  void Send(u16 number, Flight& flight, TimePoint now, Turn& turn);
  TimePoint ExpiryTime(const Flight& flight) const;
  TimePoint NudgeTime(const Flight& flight) const;
  void Spend(TimePoint now);

  const Random m_random;
  Timing m_timing;
  PortQueue m_ports;
  std::map<u16, Flight> m_flights;
  std::vector<u16> m_ended;

  ServerState m_server = ServerState::UNHEARD;
  ServerAction m_advice = ServerAction::NOTHING;
  std::optional<u16> m_canary;  // the one with retransmissions
  u32 m_refusals = 0;           // in a row
  Pace m_pace;                  // while it is heard
  TimePoint m_lastAnswer{};
  TimePoint m_pauseBegan{};  // of the pause between two canaries
  TimePoint m_pauseEnd{};
  TimePoint m_nextLaunch = TimePoint::max();  // when there is room for ports that are due
  TimePoint m_lastScan{};
  TimePoint m_scanDue = TimePoint::max();
  TimePoint m_spent{};  // up to here requests beside the regular ones have used their share
};

}  // namespace stun
