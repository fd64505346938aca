#include "platform/messaging/queue_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/journal.h"
#include "platform/messaging/runtime_dir.h"

namespace messaging {
namespace {

constexpr int kBacklog = 16;    // peers that connect while a handler runs
constexpr mode_t kMode = 0660;  // the device's call agents share the agent's group

void ReportError(const char* what, const std::string& path, int error) {
  JournalError(std::string(what) + " " + path + ": " + ::strerrordesc_np(error));
}

UniqueFd OpenSpare() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

// Removes the socket that a crashed agent left. Anything else of that name belongs to somebody.
bool RemoveStale(const std::string& path) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) != 0) {
    if (errno == ENOENT) return true;
    ReportError("cannot look at", path, errno);
    return false;
  }
  if (!S_ISSOCK(found.st_mode)) {
    JournalError(path + " is there and is no socket; it is left alone and the queue stays closed");
    return false;
  }
  if (::unlink(path.c_str()) == 0) return true;
  ReportError("cannot remove the old socket", path, errno);
  return false;
}

UniqueFd Listen(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    JournalError("the path of the queue's socket is too long (" + std::to_string(path.size()) + " bytes, at most " +
                 std::to_string(sizeof address.sun_path - 1) + "): " + path);
    return {};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  if (!RemoveStale(path)) return {};

  UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener) {
    ReportError("cannot make a socket for", path, errno);
    return {};
  }
  if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ReportError("cannot bind", path, errno);
    return {};
  }
  // Nobody can connect before listen, so the mode that bind gave is never used.
  if (::chmod(path.c_str(), kMode) != 0 || ::listen(listener.Get(), kBacklog) != 0) {
    ReportError("cannot open", path, errno);
    ::unlink(path.c_str());
    return {};
  }
  return listener;
}

}  // namespace

QueueSocket::QueueSocket(const RuntimeDirLease& lease, int queue)
    : m_path(QueuePath(lease.Dir(), queue)), m_listener(Listen(m_path)), m_spare(OpenSpare()) {}

QueueSocket::~QueueSocket() {
  if (m_listener) ::unlink(m_path.c_str());
}

UniqueFd QueueSocket::Accept() {
  UniqueFd peer(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (peer || errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return peer;
  ReportError("cannot take in a peer at", m_path, errno);
  m_spare.Reset();
  UniqueFd(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)).Reset();
  m_spare = OpenSpare();
  return {};
}

}  // namespace messaging
