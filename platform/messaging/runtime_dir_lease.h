#pragma once

#include <string>

#include "platform/unique_fd.h"

namespace messaging {

// The right to serve a runtime directory: an open file description lock on its lock file, which the kernel gives back
// when the last process that shares it dies. Whoever holds it may replace the sockets that a crashed agent left behind.
class RuntimeDirLease {
 public:
  // Takes the lease; creates the directory when only it is missing.
  explicit RuntimeDirLease(std::string dir);

  // Shares the lease of this process that `lock` belongs to, as of Lock(). That descriptor stays the caller's.
  RuntimeDirLease(std::string dir, int lock);

  ~RuntimeDirLease();
  RuntimeDirLease(const RuntimeDirLease&) = delete;
  RuntimeDirLease& operator=(const RuntimeDirLease&) = delete;

  bool IsHeld() const { return static_cast<bool>(m_lock); }

  // Why the lease is not held; empty when it is.
  const std::string& Fault() const { return m_fault; }

  const std::string& Dir() const { return m_dir; }

  // While held. What is done in the directory is done relative to DirFd (O_PATH), wherever it has been moved to.
  int DirFd() const { return m_dirFd.Get(); }
  int Lock() const { return m_lock.Get(); }

  // While held: why nobody finds the directory under its path any more, or finds another lock file in it; else empty.
  std::string Loss() const;

 private:
  bool MakeDir();
  bool OpenDir();
  void Take();
  UniqueFd OpenLockFile();
  void WritePid() const;
  bool Fail(std::string fault);
  bool FailWith(const std::string& what, int error);

  const std::string m_dir;
  std::string m_fault;
  UniqueFd m_dirFd;
  UniqueFd m_lock;
  bool m_taken = false;  // here, not by whom it is shared with
};

}  // namespace messaging
