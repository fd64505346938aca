#include "host/status_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "host/explain.h"
#include "host/status_client.h"
#include "platform/journal.h"
#include "platform/messaging/file_id.h"

namespace {

using namespace std::chrono_literals;

using Json = nlohmann::ordered_json;

constexpr mode_t kMode = 0660;
constexpr int kBacklog = 128;
constexpr auto kRest = 250ms;
constexpr auto kLookUpStep = 20ms;
constexpr auto kLookUpLimit = 8s;
constexpr std::uint32_t kEvents = NAT_EVENT_READY | NAT_EVENT_FAILED | NAT_EVENT_CONNECTED | NAT_EVENT_HUNG_UP |
                                  NAT_EVENT_REFUSED | NAT_EVENT_LOADED | NAT_EVENT_UPLINK | NAT_EVENT_MAPPING |
                                  NAT_EVENT_NOTICE | NAT_EVENT_STOPPED;

std::string Reason(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

StatusServer::StatusServer(const messaging::RuntimeDirLease& lease, const AgentLibrary& library)
    : m_lease(lease), m_library(library), m_wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  std::string fault = m_wake && m_feed.Fd() >= 0 ? Listen() : Reason("cannot make an eventfd");
  if (fault.empty()) {
    try {
      m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error& error) {
      fault = std::string("cannot start a thread: ") + error.what();
    }
  }
  if (!fault.empty()) {
    m_listener.Reset();
    JournalError("natagentd: " + m_lease.Dir() + "/" + kSocket + " is not served: " + fault);
  }
}

StatusServer::~StatusServer() {
  m_stop = true;
  ::eventfd_write(m_wake.Get(), 1);
  if (m_thread.joinable()) {
    m_thread.join();
  }
  m_library.listen(0, nullptr, nullptr);
  if (m_listener) {
    ::unlinkat(m_lease.DirFd(), kSocket, 0);
  }
}

// The directory is ours as long as the lease is held, so that a socket there is one that a crashed daemon left.
std::string StatusServer::Listen() {
  struct stat found {};
  if (::fstatat(m_lease.DirFd(), kSocket, &found, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISSOCK(found.st_mode)) {
    return "it is there and is no socket";
  }
  ::unlinkat(m_lease.DirFd(), kSocket, 0);
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = messaging::PathOf(m_lease.DirFd()) + "/" + kSocket;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  // The file is never wider than it will be: it gets the socket's mode less the umask, which is undone then.
  if (!listener || ::fchmod(listener.Get(), kMode) != 0 ||
      ::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), kMode) != 0 || ::listen(listener.Get(), kBacklog) != 0) {
    return Reason("cannot open the socket");
  }
  m_listener = std::move(listener);
  return {};
}

void StatusServer::SetGroup(std::optional<gid_t> group) {
  if (!m_listener || group == m_group) {
    return;
  }
  const gid_t wanted = group ? *group : ::getegid();
  if (::fchownat(m_lease.DirFd(), kSocket, static_cast<uid_t>(-1), wanted, AT_SYMLINK_NOFOLLOW) != 0) {
    return JournalError("natagentd: " + Reason("cannot give status.sock to access.status_group") +
                        "; the daemon's user must be in that group, and its sandbox allow fchownat");
  }
  m_group = group;
}

void StatusServer::SetConfig(Json config) {
  const std::lock_guard lock(m_factsMutex);
  m_facts.config = std::move(config);
}

HostFacts StatusServer::Facts() {
  const std::lock_guard lock(m_factsMutex);
  return m_facts;
}

void StatusServer::Run() {
  while (!m_stop) {
    try {
      Turn();
    } catch (const std::exception& error) {
      JournalError(std::string("natagentd: a turn of the status thread was not finished: ") + error.what());
      m_clients.clear();  // whoever wants something asks anew
    }
  }
}

StatusServer::Clock::time_point StatusServer::NextDeadline() const {
  Clock::time_point next = m_restEnd > Clock::now() ? m_restEnd : Clock::time_point::max();
  for (const auto& client : m_clients) {
    next = std::min(next, client->HasLine()            ? Clock::time_point{}
                          : client->waiting != nullptr ? Clock::now() + kLookUpStep
                                                       : client->Deadline());
  }
  return next;
}

void StatusServer::Turn() {
  std::vector<pollfd> fds;
  fds.push_back({m_wake.Get(), POLLIN, 0});
  fds.push_back({m_feed.Fd(), POLLIN, 0});
  const bool isResting = m_restEnd > Clock::now();
  fds.push_back({m_listener.Get(), static_cast<short>(isResting ? 0 : POLLIN), 0});
  for (const auto& client : m_clients) {
    fds.push_back({client->Fd(), client->Events(), 0});
  }
  const Clock::time_point deadline = NextDeadline();
  const auto left =
      deadline == Clock::time_point::max()
          ? -1
          : std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count());
  if (::poll(fds.data(), fds.size(), static_cast<int>(left)) < 0 || m_stop) {
    return;
  }
  for (std::size_t i = 0; i < m_clients.size(); ++i) {
    StatusClient& client = *m_clients[i];
    const short ready = fds[3 + i].revents;
    if ((ready & POLLIN) != 0) {
      client.Read();
    } else if ((ready & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
      client.Close();
    }
    if ((ready & POLLOUT) != 0) {
      client.Write();
    }
    Serve(client);
    if (client.waiting == nullptr && client.Deadline() <= Clock::now()) {
      client.Close();
    }
  }
  if (fds[1].revents != 0) {
    TellEvents();
  }
  std::erase_if(m_clients, [](const auto& client) { return client->IsGone(); });
  if (!isResting && fds[2].revents != 0) {
    Accept();
  }
  ListenToAgent();
}

void StatusServer::Accept() {
  UniqueFd fd(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!fd) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      m_restEnd = Clock::now() + kRest;
    }
    return;
  }
  if (m_clients.size() < kMaxClients) {
    m_clients.push_back(std::make_unique<StatusClient>(std::move(fd)));
    return;
  }
  StatusClient refused(std::move(fd));
  refused.Send(StatusError("there are " + std::to_string(kMaxClients) + " readers already; try again later"));
  refused.Write();
}

// One request a turn, so that readers take turns.
void StatusServer::Serve(StatusClient& client) {
  if (client.waiting != nullptr) {
    std::uint32_t address = 0;
    if (client.waiting->lookUp.IsDone(address)) {
      client.Send(Explain(m_library, client.waiting->request, address));
    } else if (client.waiting->end <= Clock::now()) {
      client.Send(StatusError("the look-up of the destination's name did not end in time"));
    } else {
      return;
    }
    client.waiting.reset();
    client.Write();
    return;
  }
  std::string line;
  if (client.TakeLine(line)) {
    Answer(client, line);
    client.Write();
  }
}

void StatusServer::Answer(StatusClient& client, const std::string& line) {
  StatusRequestResult result = ParseStatusRequest(line);
  if (!result.request) {
    return client.Send(StatusError(result.error));
  }
  StatusRequest& request = *result.request;
  switch (request.kind) {
    case StatusRequest::Kind::GET:
      return client.Send(Report(m_library, Facts(), request));
    case StatusRequest::Kind::MONITOR:
      client.isMonitor = true;
      client.withLog = request.withLog;
      ListenToAgent();  // before the reader hears that it will be told
      return client.Send(Json{{"monitor", true}});
    case StatusRequest::Kind::EXPLAIN:
      break;
  }
  std::uint32_t address = 0;
  if (::inet_aton(request.destination.c_str(), reinterpret_cast<in_addr*>(&address)) != 0) {
    return client.Send(Explain(m_library, request, address));
  }
  client.waiting.reset(
      new StatusClient::Waiting{request, PendingLookUp(request.destination), Clock::now() + kLookUpLimit});
}

void StatusServer::ListenToAgent() {
  std::uint32_t kinds = 0;
  for (const auto& client : m_clients) {
    kinds |= client->isMonitor ? kEvents : 0U;
    kinds |= client->isMonitor && client->withLog ? std::uint32_t{NAT_EVENT_LOG} : 0U;
  }
  if (kinds != m_kinds) {
    m_kinds = kinds;
    m_library.listen(kinds, EventFeed::Hear, &m_feed);
  }
}

void StatusServer::TellEvents() {
  std::uint64_t dropped = 0;
  const std::vector<EventFeed::Entry> entries = m_feed.Take(dropped);
  const auto tell = [this](const Json& object, bool isLog) {
    for (const auto& client : m_clients) {
      if (client->isMonitor && (!isLog || client->withLog)) {
        client->SendEvent(object);
      }
    }
  };
  if (dropped > 0) {
    tell(Json{{"event", "lost"}, {"count", dropped}}, false);
  }
  for (const EventFeed::Entry& entry : entries) {
    if (entry.event.kind != NAT_EVENT_LOG) {
      tell(EventObject(entry), false);
      continue;
    }
    for (const Json& line : m_logLines.Take(entry)) {
      tell(line, true);
    }
  }
  for (const auto& client : m_clients) {
    client->Write();
  }
}
