#include "platform/messaging/runtime_dir_lease.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/journal.h"
#include "platform/messaging/file_id.h"
#include "platform/messaging/runtime_dir.h"

namespace messaging {
namespace {

constexpr mode_t kDirMode = 0755;
constexpr mode_t kLockMode = 0600;  // whoever may read it may keep every agent out
constexpr int kAttempts = 3;        // a lock file that was exchanged in between is tried again

struct flock WholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

// An agent locks for writing. Of others' locks only those for reading are found when there is none.
bool IsAgentsLock(int file) {
  struct flock lock = WholeFile(F_RDLCK);
  return ::fcntl(file, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

// In words, because a holder may not have come so far as to write its process id.
std::string HolderText(int file) {
  char digits[16];
  const ssize_t length = ::pread(file, digits, sizeof digits, 0);
  const std::string_view text(digits, length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::string pid(text.substr(0, text.find_first_not_of("0123456789")));
  return pid.empty() ? "another process" : "process " + pid;
}

// What keeps a file from being the lock file; empty when nothing does.
std::string FaultOf(const struct stat& file) {
  if (!S_ISREG(file.st_mode)) {
    return "is not a regular file";
  }
  if (file.st_uid != ::geteuid()) {
    return "belongs to user " + std::to_string(file.st_uid) + ", not to user " + std::to_string(::geteuid()) +
           ", who runs this agent";
  }
  return file.st_nlink > 1 ? "has a second name elsewhere" : "";
}

}  // namespace

RuntimeDirLease::RuntimeDirLease(std::string dir) : m_dir(std::move(dir)) {
  if (MakeDir() && OpenDir()) {
    Take();
  }
}

RuntimeDirLease::RuntimeDirLease(std::string dir, int lock) : m_dir(std::move(dir)) {
  if (!OpenDir()) {
    return;
  }
  m_lock = UniqueFd(::fcntl(lock, F_DUPFD_CLOEXEC, 0));
  if (!m_lock) {
    FailWith("cannot share the lock of " + m_dir, errno);
  } else if (std::string loss = Loss(); !loss.empty()) {
    Fail(std::move(loss));
  }
}

RuntimeDirLease::~RuntimeDirLease() {
  // The file itself stays: removing it would let two agents lock two files of one name.
  if (m_taken && ::ftruncate(m_lock.Get(), 0) != 0) {
    JournalNotice("cannot clear the lock file in " + m_dir);
  }
}

std::string RuntimeDirLease::Loss() const {
  struct stat found {};
  if (::stat(m_dir.c_str(), &found) != 0 || IdOf(found) != IdOf(m_dirFd.Get())) {
    return "the runtime directory " + m_dir + " was removed, renamed or replaced";
  }
  if (FindFile(m_dirFd.Get(), kLockFile) != IdOf(m_lock.Get())) {
    return LockPath(m_dir) + " was removed or replaced";
  }
  return {};
}

bool RuntimeDirLease::MakeDir() {
  const std::size_t longest = QueuePath(m_dir, kQueues[0].number).size();
  if (longest >= sizeof(sockaddr_un::sun_path)) {
    return Fail("the runtime directory's name is too long for the sockets in it: " + m_dir);
  }
  if (::mkdir(m_dir.c_str(), kDirMode) != 0) {
    return errno == EEXIST || FailWith("cannot create the runtime directory " + m_dir, errno);
  }
  // The umask has narrowed the mode.
  return ::chmod(m_dir.c_str(), kDirMode) == 0 || FailWith("cannot set the mode of " + m_dir, errno);
}

bool RuntimeDirLease::OpenDir() {
  m_dirFd = UniqueFd(::open(m_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return m_dirFd || FailWith("cannot open the runtime directory " + m_dir, errno);
}

void RuntimeDirLease::Take() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    UniqueFd file = OpenLockFile();
    if (!file) {
      return;
    }
    struct flock lock = WholeFile(F_WRLCK);
    const bool locked = ::fcntl(file.Get(), F_OFD_SETLK, &lock) == 0;
    if (!locked && errno != EAGAIN && errno != EACCES) {
      FailWith("cannot lock " + LockPath(m_dir), errno);
      return;
    }
    if (!locked && IsAgentsLock(file.Get())) {
      Fail("the runtime directory " + m_dir + " is in use by " + HolderText(file.Get()));
      return;
    }
    if (FindFile(m_dirFd.Get(), kLockFile) != IdOf(file.Get())) {
      continue;
    }
    if (locked) {
      m_lock = std::move(file);
      m_taken = true;
      WritePid();
      return;
    }
    // Somebody opened it when it was readable, and has locked it for reading to keep agents out. The next file is not
    // readable. A second agent that does the same at this moment is noticed by Loss.
    JournalNotice(LockPath(m_dir) + " is locked by a process that is no agent; it is replaced");
    if (::unlinkat(m_dirFd.Get(), kLockFile, 0) != 0) {
      FailWith("cannot replace " + LockPath(m_dir), errno);
      return;
    }
  }
  Fail(LockPath(m_dir) + " is replaced over and over");
}

UniqueFd RuntimeDirLease::OpenLockFile() {
  const std::string path = LockPath(m_dir);
  UniqueFd file(
      ::openat(m_dirFd.Get(), kLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kLockMode));
  const int error = errno;
  struct stat found {};
  const bool looked =
      file ? ::fstat(file.Get(), &found) == 0 : ::fstatat(m_dirFd.Get(), kLockFile, &found, AT_SYMLINK_NOFOLLOW) == 0;
  if (const std::string fault = looked ? FaultOf(found) : ""; !fault.empty()) {
    Fail("the lock file " + path + " " + fault);
    return {};
  }
  if (!file || !looked) {
    FailWith("cannot open the lock file " + path, file ? errno : error);
    return {};
  }
  if ((found.st_mode & 07777) != kLockMode && ::fchmod(file.Get(), kLockMode) != 0) {
    FailWith("cannot set the mode of " + path, errno);
    return {};
  }
  return file;
}

void RuntimeDirLease::WritePid() const {
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(m_lock.Get(), 0) != 0 ||
      ::pwrite(m_lock.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The lock counts; the number only serves another agent's error text.
    JournalNotice("cannot write the process id into " + LockPath(m_dir));
  }
}

bool RuntimeDirLease::Fail(std::string fault) {
  m_fault = std::move(fault);
  m_lock.Reset();
  return false;
}

bool RuntimeDirLease::FailWith(const std::string& what, int error) {
  return Fail(what + ": " + ::strerrordesc_np(error));
}

}  // namespace messaging
