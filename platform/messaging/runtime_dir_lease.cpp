#include "platform/messaging/runtime_dir_lease.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/journal.h"
#include "platform/messaging/runtime_dir.h"

namespace messaging {
namespace {

void ReportError(const std::string& what, int error) { JournalError(what + ": " + ::strerrordesc_np(error)); }

// Who has written its process id into the lock file; in words, because a holder may not have come so far yet.
std::string HolderText(int file) {
  char digits[16];
  const ssize_t length = ::pread(file, digits, sizeof digits, 0);
  const std::string_view text(digits, length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::string pid(text.substr(0, text.find_first_not_of("0123456789")));
  return pid.empty() ? "another agent" : "another agent, process " + pid;
}

UniqueFd LockFile(const std::string& dir) {
  const std::string path = LockPath(dir);
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file) {
    ReportError("cannot open the lock file " + path, errno);
    return {};
  }
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(file.Get(), F_OFD_SETLK, &whole) != 0) {
    if (errno == EAGAIN || errno == EACCES) {
      JournalError("the runtime directory " + dir + " is in use by " + HolderText(file.Get()));
    } else {
      ReportError("cannot lock " + path, errno);
    }
    return {};
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(file.Get(), 0) != 0 ||
      ::pwrite(file.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The lock counts; the number only serves another agent's error text.
    JournalNotice("cannot write the process id into " + path);
  }
  return file;
}

}  // namespace

RuntimeDirLease::RuntimeDirLease(std::string dir) : m_dir(std::move(dir)) {
  if (::mkdir(m_dir.c_str(), 0755) != 0 && errno != EEXIST) {
    ReportError("cannot create the runtime directory " + m_dir, errno);
    return;
  }
  m_file = LockFile(m_dir);
}

RuntimeDirLease::~RuntimeDirLease() {
  // The file itself stays: removing it would let two agents lock two files of one name.
  if (m_file && ::ftruncate(m_file.Get(), 0) != 0) {
    JournalNotice("cannot clear the lock file in " + m_dir);
  }
}

}  // namespace messaging
