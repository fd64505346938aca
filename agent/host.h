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

// The queues' runtime directory, of which the process holds the lease already: `lock` is open on `agent.lock` in it and
// has an open file description lock on the whole file, for writing. Before NatMain; `lock` stays the host's and open
// until StopNatMain has returned. Without this call, or with a negative `lock`, the library takes the lease of
// $NATAGENT_RUNTIME_DIR, or of /run/natagent, itself. Returns 0 or an errno value.
NAT_HOST_EXPORT int NatHostUseRuntimeDir(const char* dir, int lock);

enum { NAT_HOST_MAX_USERS = 64 };
#define NAT_HOST_EVERYONE ((size_t)-1)

// Limits a queue (102, 112 to 115) to `count` users, or to none, from the next connection on and on top of its socket's
// mode; the superuser is no exception. NAT_HOST_EVERYONE: no limit, as at first. Any thread. Returns 0 or an errno
// value.
NAT_HOST_EXPORT int NatHostLimitQueue(int queue, const uid_t* users, size_t count);

enum {
  NAT_HOST_QUEUES_OPENING = 0,  // not all are there yet, or the agent is not running
  NAT_HOST_QUEUES_OPEN = 1,
  NAT_HOST_QUEUES_LOST = 2  // one could not be opened, or its socket, the lock file or their directory was replaced
};

// Whether parties can reach the agent. `why`, of `size` bytes, gets a text when the queues are lost, else an empty one.
// Any thread; a few system calls.
NAT_HOST_EXPORT int NatHostCheckQueues(char* why, size_t size);

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
