#pragma once

#include <chrono>

// How long natctl waits. `--timeout` sets both.
struct Timeouts {
  // For an answer or a look-up: longer than the system's resolver needs to give up on a name, which with its usual
  // settings (resolv.conf(5): 5 s, two attempts) is 10 s with one silent name server and 28 s with three.
  std::chrono::milliseconds answer{30'000};
  // For the agent's welcome, and for a STUN server.
  std::chrono::milliseconds contact{5'000};
};
