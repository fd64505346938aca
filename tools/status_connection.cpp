#include "tools/status_connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/messaging/runtime_dir.h"

bool StatusConnection::Fail(const std::string& what, int error) {
  m_error = what + (error != 0 ? std::string(": ") + std::strerror(error) : "");
  return false;
}

bool StatusConnection::Open(const std::string& runtimeDir) {
  const std::string path = (runtimeDir.empty() ? messaging::RuntimeDir() : runtimeDir) + "/status.sock";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return Fail(path, ENAMETOOLONG);
  }
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  m_fd = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!m_fd || ::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return Fail(path, errno);
  }
  return true;
}

bool StatusConnection::Wait(short events, Clock::time_point deadline, int interrupt, bool& isInterrupted) {
  for (;;) {
    pollfd fds[] = {{m_fd.Get(), events, 0}, {interrupt, POLLIN, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int wait =
        deadline == Clock::time_point::max() ? -1 : static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
    const int ready = ::poll(fds, 2, wait);
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    isInterrupted = ready > 0 && fds[1].revents != 0;
    return ready > 0 && !isInterrupted ? true : ready == 0 || isInterrupted ? false : Fail("poll", errno);
  }
}

bool StatusConnection::Send(const nlohmann::ordered_json& request, Clock::time_point deadline) {
  std::string line = request.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  bool isInterrupted = false;
  while (!line.empty()) {
    const ssize_t written = ::send(m_fd.Get(), line.data(), line.size(), MSG_NOSIGNAL);
    if (written >= 0) {
      line.erase(0, static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      if (!Wait(POLLOUT, deadline, -1, isInterrupted)) {
        return Fail("natagentd does not read", 0);
      }
    } else if (errno != EINTR) {
      return Fail("the connection to natagentd", errno);
    }
  }
  return true;
}

std::optional<nlohmann::ordered_json> StatusConnection::Next(Clock::time_point deadline, int interrupt) {
  std::size_t looked = 0;
  for (;;) {
    const std::size_t end = m_in.find('\n', looked);
    if (end != std::string::npos) {
      auto object =
          nlohmann::ordered_json::parse(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(end), nullptr,
                                        /*allow_exceptions=*/false);
      m_in.erase(0, end + 1);
      if (!object.is_object()) {
        Fail("natagentd gave no JSON object", 0);
        return std::nullopt;
      }
      return object;
    }
    looked = m_in.size();
    bool isInterrupted = false;
    if (!Wait(POLLIN, deadline, interrupt, isInterrupted)) {
      if (!isInterrupted && m_error.empty()) {
        Fail("no answer in time", 0);
      }
      return std::nullopt;
    }
    char block[65536];
    const ssize_t length = ::recv(m_fd.Get(), block, sizeof block, 0);
    if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) {
      Fail("natagentd hung up", length == 0 ? 0 : errno);
      return std::nullopt;
    }
    m_in.append(block, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  }
}
