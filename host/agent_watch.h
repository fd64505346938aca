#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "host/agent_library.h"

// Looks at the running agent about once a second and tells the service manager: that it is alive, as often as that is
// wanted and only when the agent thread has answered since the last look, and its status when that has changed.
class AgentWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // The library is loaded and outlives the watch.
  explicit AgentWatch(const AgentLibrary& library);

  // Whether the loaded library's agent runs.
  static bool Runs(const AgentLibrary& library);

  // How long until Look has something to do.
  Clock::duration UntilNext() const;

  // False when the agent does not run any more.
  bool Look();

 private:
  void TellStatus(const NatHostHealth& health, Clock::time_point now);

  const AgentLibrary& m_library;
  const Clock::duration m_aliveEvery;  // 0: never
  const Clock::duration m_lookEvery;
  Clock::time_point m_nextLook;
  Clock::time_point m_nextAlive;
  std::uint64_t m_answers = 0;
  std::string m_status;
  Clock::time_point m_nextStatus;
};

// The status in words: "parties: sip cm; STUN: 12 of 200 ports learnt; uplink: 10.77.0.2".
std::string DescribeHealth(const NatHostHealth& health);
