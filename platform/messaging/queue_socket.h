#pragma once

#include <optional>
#include <string>

#include "platform/messaging/file_id.h"
#include "platform/messaging/runtime_dir_lease.h"
#include "platform/unique_fd.h"

namespace messaging {

// The listening socket of one queue, mode 0660 whatever the umask, in a runtime directory that this process has the
// lease of. Its file is removed with it, but only when it is still this socket's own.
class QueueSocket {
 public:
  // Failures are reported in the journal; the socket is then not open. The lease must outlive it.
  QueueSocket(const RuntimeDirLease& lease, int queue);
  ~QueueSocket();
  QueueSocket(const QueueSocket&) = delete;
  QueueSocket& operator=(const QueueSocket&) = delete;

  bool IsOpen() const { return static_cast<bool>(m_listener); }
  int Get() const { return m_listener.Get(); }

  // While open: what the queue's name leads to as long as parties find this socket.
  FileId File() const { return *m_file; }

  // The next peer that connected, or none. Out of descriptors it hangs up on the peer, so that the peer does not keep
  // the socket readable.
  UniqueFd Accept();

  // Whether the last Accept could not even do that: the socket stays readable until descriptors are free again.
  bool IsExhausted() const { return m_exhausted; }

 private:
  UniqueFd Listen();
  bool RemoveStale() const;
  bool Bind(int listener);
  void RemoveOwn();
  UniqueFd AcceptNext() const;
  bool HangUpOnNext();
  void ReportError(const char* what, int error) const;

  const RuntimeDirLease& m_lease;
  const std::string m_name;
  std::optional<FileId> m_file;
  UniqueFd m_listener;
  UniqueFd m_spare;  // given up for a moment to take in, and hang up on, a peer there is no descriptor for
  bool m_exhausted = false;
  bool m_refusalReported = false;  // since the last peer that was taken in
};

}  // namespace messaging
