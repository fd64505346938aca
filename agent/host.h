#pragma once

// What a host that loads the library may use beyond natagent.h. C11 and C++11. Nothing throws; the strings that are
// handed over are copied. Each structure begins with its size, so that a later library can tell an older host's.

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NAT_HOST_EXPORT __attribute__((visibility("default")))

// The parties of the queues, as bits.
enum {
  NAT_PARTY_SIP = 1,
  NAT_PARTY_Q113 = 2,
  NAT_PARTY_CM = 4,
  NAT_PARTY_CC = 8,
  NAT_PARTY_CGI = 16,
};

struct NatHostHealth {
  size_t size;            // the caller's sizeof; the library fills no more than that
  uint64_t answers;       // how often the agent thread has answered
  uint32_t parties;       // those connected: NAT_PARTY_...
  uint32_t ports;         // that STUN watches
  uint32_t ports_learnt;  // of these, how many have a known public side
  uint32_t uplink;        // its address in network byte order; 0: none
};

// Gives the agent thread's last answer and asks it again. It answers in its next turn; `answers` that stay the same
// from one call to the next mean a thread that is stuck. Never waits for the agent's work. 1; 0 when no agent runs.
NAT_HOST_EXPORT int NatHostReadHealth(struct NatHostHealth* health);

#ifdef __cplusplus
}
#endif
