#pragma once

#include "platform/messaging/runtime_dir_lease.h"
#include "platform/unique_fd.h"

namespace messaging {

// The listening socket of one queue, mode 0660, in a runtime directory this process has the lease of. Its file is
// removed with it.
class QueueSocket {
 public:
  // Failures are reported in the journal; the socket is then not open.
  QueueSocket(const RuntimeDirLease& lease, int queue);
  ~QueueSocket();
  QueueSocket(const QueueSocket&) = delete;
  QueueSocket& operator=(const QueueSocket&) = delete;

  bool IsOpen() const { return static_cast<bool>(m_listener); }
  int Get() const { return m_listener.Get(); }

  // The next peer that connected, or none. A peer that finds the process out of descriptors is hung up on, so that it
  // does not keep the socket readable for ever.
  UniqueFd Accept();

 private:
  const std::string m_path;
  UniqueFd m_listener;
  UniqueFd m_spare;  // given up for a moment to take in, and hang up on, a peer there is no descriptor for
};

}  // namespace messaging
