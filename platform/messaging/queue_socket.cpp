#include "platform/messaging/queue_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/journal.h"
#include "platform/messaging/runtime_dir.h"

namespace messaging {
namespace {

constexpr int kBacklog = 128;   // peers that connect while a handler runs
constexpr mode_t kMode = 0660;  // the device's call agents share the agent's group

UniqueFd OpenSpare() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

// An address in the very directory of the descriptor, whatever its path leads to by now.
sockaddr_un AddressIn(int dir, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = PathOf(dir) + "/" + name;
  std::copy_n(path.data(), std::min(path.size(), sizeof address.sun_path - 1), address.sun_path);
  return address;
}

}  // namespace

QueueSocket::QueueSocket(const RuntimeDirLease& lease, int queue)
    : m_lease(lease), m_name(QueueFile(queue)), m_listener(Listen()), m_spare(OpenSpare()) {}

QueueSocket::~QueueSocket() { RemoveOwn(); }

// Removes the socket that a crashed agent left. Anything else of that name belongs to somebody.
bool QueueSocket::RemoveStale() const {
  struct stat found {};
  if (::fstatat(m_lease.DirFd(), m_name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) {
      ReportError("cannot look at", errno);
    }
    return errno == ENOENT;
  }
  if (!S_ISSOCK(found.st_mode)) {
    JournalError(m_lease.Dir() + "/" + m_name +
                 " is there and is no socket; it is left alone and the queue stays closed");
    return false;
  }
  if (::unlinkat(m_lease.DirFd(), m_name.c_str(), 0) != 0) {
    ReportError("cannot remove the old socket", errno);
    return false;
  }
  return true;
}

UniqueFd QueueSocket::Listen() {
  if (!RemoveStale()) {
    return {};
  }
  UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener) {
    ReportError("cannot make a socket for", errno);
    return {};
  }
  if (!Bind(listener.Get()) || ::listen(listener.Get(), kBacklog) != 0) {
    ReportError("cannot open", errno);
    RemoveOwn();
    return {};
  }
  return listener;
}

// The file gets the socket's mode less the umask, so it is never wider than it will be; then the umask is undone.
bool QueueSocket::Bind(int listener) {
  const sockaddr_un address = AddressIn(m_lease.DirFd(), m_name);
  if (::fchmod(listener, kMode) != 0 ||
      ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  const UniqueFd file(::openat(m_lease.DirFd(), m_name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  m_file = file ? IdOf(file.Get()) : FindFile(m_lease.DirFd(), m_name.c_str());
  return file && ::chmod(PathOf(file.Get()).c_str(), kMode) == 0;
}

// No other agent is in the directory while the lease is held, so the name does not change hands between the two calls.
void QueueSocket::RemoveOwn() {
  if (m_file && FindFile(m_lease.DirFd(), m_name.c_str()) == m_file) {
    ::unlinkat(m_lease.DirFd(), m_name.c_str(), 0);
  }
  m_file.reset();
}

UniqueFd QueueSocket::Accept() {
  UniqueFd peer = AcceptNext();
  m_exhausted = false;
  if (peer) {
    m_refusalReported = false;
    if (!m_spare) {
      m_spare = OpenSpare();
    }
    return peer;
  }
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) {
    return {};
  }
  if (!std::exchange(m_refusalReported, true)) {
    ReportError("cannot take in a peer at", errno);
  }
  m_exhausted = !HangUpOnNext();
  return {};
}

UniqueFd QueueSocket::AcceptNext() const {
  return UniqueFd(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

bool QueueSocket::HangUpOnNext() {
  m_spare.Reset();
  UniqueFd peer = AcceptNext();
  const bool done = peer || errno == EAGAIN || errno == ECONNABORTED;
  peer.Reset();
  m_spare = OpenSpare();
  return done;
}

void QueueSocket::ReportError(const char* what, int error) const {
  JournalError(std::string(what) + " " + m_lease.Dir() + "/" + m_name + ": " + ::strerrordesc_np(error));
}

}  // namespace messaging
