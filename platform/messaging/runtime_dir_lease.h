#pragma once

#include <string>

#include "platform/unique_fd.h"

namespace messaging {

// This process's right to serve a runtime directory: an open file description lock on its lock file, which the kernel
// gives back when the process dies. Whoever holds it may replace the sockets that a crashed agent left behind.
class RuntimeDirLease {
 public:
  // Creates the directory when only it is missing, and takes the lock. A failure is reported in the journal here, once.
  explicit RuntimeDirLease(std::string dir);
  ~RuntimeDirLease();
  RuntimeDirLease(const RuntimeDirLease&) = delete;
  RuntimeDirLease& operator=(const RuntimeDirLease&) = delete;

  bool IsHeld() const { return static_cast<bool>(m_file); }
  const std::string& Dir() const { return m_dir; }

 private:
  const std::string m_dir;
  UniqueFd m_file;
};

}  // namespace messaging
