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
// While the server is not heard, one port asks it, the canary: one that was answered before, where there is one. With
// each of its retransmissions one port more asks once. So a dead server costs few requests, and a port that is silent
// by itself says nothing of the server. Once the server is heard, a window of ports asks, urgent ones first, and then
// each port once a period, at its own place in it.
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

  // So many more of the ports that have not asked since then ask now, or a second after they last asked.
  void PromptNext(std::size_t count, TimePoint since, TimePoint now) { m_ports.PromptNext(count, since, now); }

  // What is to be sent now, without the server.
  std::vector<Order> Advance(TimePoint now);
  // When Advance is to be called again at the latest.
  TimePoint NextDeadline() const;
  // Ports that await nothing any more, since the last call; to be handled before what is to be sent. A port may be
  // under way again.
  bool HasEnded() const { return !m_ended.empty(); }
  std::vector<u16> TakeEnded();
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
  // A transaction sent this often for nothing, with nothing else heard meanwhile, may speak of the server, and the
  // canary's does. At 5 % loss each way both together happen by chance once in a hundred thousand times.
  static constexpr u32 kDoubtfulSends = 2;
  static constexpr u32 kSilentSends = 3;

  struct Flight {
    TransactionId id{};
    u32 sends = 0;
    TimePoint first{};
    TimePoint last{};
    TimePoint next{};
    bool isNudged = false;
  };

  using Flights = std::map<u16, Flight>;

  void Apply(u16 number, PortEvent event, TimePoint now);
  void EndFlight(u16 number);
  void EndFlights(PortEvent event, TimePoint now);

  void Apply(ServerEvent event, TimePoint now);
  void Answered(u16 number, TimePoint now);
  void Open(PortEvent toPassed, TimePoint now);
  void PauseCanary(Millis pause, TimePoint now);

  void RunScan(TimePoint now);
  void EndRests(TimePoint now);
  void ExpireRequests(TimePoint now, std::vector<Order>& sends);
  void Expire(u16 number, TimePoint now, std::vector<Order>& sends);
  void SendNudged(TimePoint now, std::vector<Order>& sends);
  void SendCanary(TimePoint now, std::vector<Order>& sends);
  void SendCompanion(TimePoint now, std::vector<Order>& sends);
  void FillWindow(TimePoint now, std::vector<Order>& sends);
  bool MakeRoom(TimePoint now);
  void Launch(u16 number, TimePoint now, std::vector<Order>& sends);
  void Send(u16 number, Flight& flight, TimePoint now, std::vector<Order>& sends);
  bool MaySend(u16 number) const { return IsServerHeard() || m_canary == number; }
  // The server answered another port since it was first sent.
  bool IsSilentByItself(const Flight& flight) const { return IsServerHeard() && m_lastAnswer >= flight.first; }
  TimePoint ExpiryTime(u16 number, const Flight& flight) const;
  TimePoint NudgeTime(const Flight& flight) const;
  void Spend(TimePoint now);

  const Random m_random;
  Timing m_timing;
  PortQueue m_ports;
  Flights m_flights;
  Flights m_ended;  // yet to be told; kept whole, as the end of a request must not need memory

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
