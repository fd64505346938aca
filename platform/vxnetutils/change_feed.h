#pragma once

#include "platform/unique_fd.h"
#include "platform/vxnetutils/netlink_socket.h"

// Tells whether anything that decides a route has changed since it was last asked: links, IPv4 addresses, routes,
// rules, nexthops, per-link IPv4 settings. One thread at a time.
//
// The kernel queues its message before any route look-up can give another answer, so an answer obtained after a QUIET
// holds as long as the feed stays quiet. It does so before the system call that makes the change returns, and marks
// every epoll instance that watches the socket in the act: whoever sends a message after that call has the change found
// before the message is answered, when Read comes after the receiving.
class ChangeFeed {
 public:
  enum class State {
    QUIET,    // nothing since the last call
    CHANGED,  // something, or the feed was opened just now and what was before is not known
    BLIND,    // the feed cannot be opened or has failed; the next call tries again
  };

  // 0, or the error number. Opened beforehand, the feed misses nothing from here on; otherwise the first Read opens it.
  int Open();
  State Read();
  // Why the last Read was BLIND.
  int Error() const { return m_error; }

  bool IsOpen() const { return m_socket.IsOpen(); }
  // To wait on; only while open.
  int Descriptor() const { return m_socket.Descriptor(); }

 private:
  // Whether nothing is there to be read: half of what a look at the socket itself costs.
  bool IsQuiet() const;

  NetlinkSocket m_socket;
  UniqueFd m_readiness;  // an epoll instance with the socket alone
  int m_error = 0;
};
