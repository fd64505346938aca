#pragma once

#include <chrono>
#include <list>

#include "platform/stunutils/random.h"
#include "platform/stunutils/stun_manager.h"

namespace stun {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Millis = std::chrono::milliseconds;

// The timing of probes. A transaction is sent `sends` times, `rto`, 2 rto, 4 rto, ... apart, and given up `lastWait`
// after the last (RFC 8489, 6.2.1).
struct Timing {
  Millis period{25000};  // between two probes of a port; NATs forget a mapping after 30 s and more
  Millis rto{500};
  u32 sends = 7;
  Millis lastWait{8000};
  Millis mostHeld{std::chrono::hours{24}};  // a transaction is over then, however often it was sent
  Millis canaryPause{1000};                 // from a canary nobody answered to the next
  // Transactions: if all were answered at once, with 16 of a canary and its companions, the answers would still fit.
  std::size_t mostUnderWay = 240;
};

// What UpdateSettings was last given.
struct Settings {
  std::list<StunServInfo> servers;
  u32 periodSeconds = 0;
  u32 sends = 0;
  u32 rtoMs = 0;
};

// The longest that a transaction keeps a port from its owner, where it does.
inline constexpr Millis kMostHeld{2500};

// The timing they ask for. When a transaction takes the port from its owner, a silent server is asked rarely.
Timing MakeTiming(const Settings& settings, bool takesPorts);

// When a port that was asked for about now is to be asked for again: each port has its own place in the period.
TimePoint NextPlace(u16 port, TimePoint now, Millis period, const Random& random);

}  // namespace stun
