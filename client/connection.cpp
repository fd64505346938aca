#include "client/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "platform/messaging/runtime_dir.h"

namespace natclient_detail {
namespace {

long long Now() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// The kernel makes connect wait for a place in the queue's backlog for as long as a send may take.
bool LimitConnect(int fd, const Deadline& deadline) {
  const int left = std::max(deadline.Left(), 1);  // 0 would be without limit
  const timeval limit{left / 1000, left % 1000 * 1000L};
  return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

}  // namespace

Deadline::Deadline(int milliseconds) : m_never(milliseconds < 0), m_end(Now() + milliseconds) {}

int Deadline::Left() const { return m_never ? -1 : static_cast<int>(std::clamp<long long>(m_end - Now(), 0, INT_MAX)); }

int WaitFor(int fd, short events, const Deadline& deadline) {
  for (;;) {
    pollfd asked{fd, events, 0};
    const int ready = ::poll(&asked, 1, deadline.Left());
    if (ready >= 0) return ready;
    if (errno != EINTR) return -errno;
  }
}

int Connect(natclient& client, const char* runtimeDir, int waitMs, const Deadline& deadline) {
  const std::string path =
      messaging::QueuePath(runtimeDir != nullptr ? runtimeDir : messaging::RuntimeDir(), client.party);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -ENAMETOOLONG;
  std::memcpy(address.sun_path, path.data(), path.size());

  const int nonBlocking = waitMs == 0 ? SOCK_NONBLOCK : 0;
  client.fd = UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | nonBlocking, 0));
  if (!client.fd || (waitMs > 0 && !LimitConnect(client.fd.Get(), deadline))) return -errno;
  while (::connect(client.fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == EAGAIN && waitMs > 0) return -ETIMEDOUT;
    if (errno != EINTR) return -errno;
  }
  return 0;
}

int AwaitWelcome(natclient& client, const Deadline& deadline) {
  const int ready = WaitFor(client.fd.Get(), POLLIN, deadline);
  if (ready <= 0) return ready == 0 ? -ETIMEDOUT : ready;
  const ssize_t got = ::recv(client.fd.Get(), client.incoming.data(), client.incoming.size(), MSG_PEEK | MSG_DONTWAIT);
  if (got <= 0) return got == 0 || errno == ECONNRESET ? -ECONNRESET : -errno;
  messaging::FrameFault fault;
  const std::string_view packet(client.incoming.data(), static_cast<std::size_t>(got));
  if (!messaging::DecodeFrame(packet, messaging::FrameWay::TO_PARTY, client.received, fault)) return -EPROTO;
  if (client.received.kind == messaging::FrameKind::WELCOME) return 0;
  if (client.received.kind != messaging::FrameKind::REFUSED) {
    return -EPROTO;
  }
  switch (static_cast<messaging::RefusalReason>(client.received.value)) {
    case messaging::RefusalReason::QUEUE_TAKEN:
      return -EBUSY;
    case messaging::RefusalReason::NOT_ALLOWED:
      return -EPERM;
    default:
      return -EPROTO;
  }
}

}  // namespace natclient_detail
