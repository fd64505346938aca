#include "host/status_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "host/status_report.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kIdle = 60s;               // between two requests
constexpr auto kMoving = 10s;             // within a line, either way
constexpr std::size_t kMaxOut = 1 << 18;  // bytes that wait, beyond which a monitor loses events

}  // namespace

bool PendingLookUp::IsDone(std::uint32_t& address) {
  address = 0;
  if (m_query == nullptr) {
    return true;
  }
  if (!sockets::AwaitQuery(m_query, 0ms)) {
    return false;
  }
  const std::vector<u32> found = sockets::FinishQuery(std::exchange(m_query, nullptr));
  const auto usable = std::find_if(found.begin(), found.end(), [](u32 each) { return each != 0; });
  address = usable == found.end() ? 0 : *usable;
  return true;
}

StatusClient::StatusClient(UniqueFd fd) : m_fd(std::move(fd)) { SetDeadline(); }

short StatusClient::Events() const {
  if (!m_out.empty()) {
    return POLLOUT;
  }
  // Lines that have come are answered before others are read, so that they do not pile up.
  return waiting != nullptr || m_hasEnded || HasLine() ? 0 : POLLIN;
}

bool StatusClient::IsGone() const {
  return m_isGone || (m_hasEnded && m_out.empty() && waiting == nullptr && !HasLine());
}

void StatusClient::SetDeadline() {
  const bool isMoving = !m_out.empty() || !m_in.empty() || waiting != nullptr;
  m_deadline = isMonitor && m_out.empty() ? Clock::time_point::max() : Clock::now() + (isMoving ? kMoving : kIdle);
}

void StatusClient::Read() {
  char block[StatusRequest::kMaxLine];
  const ssize_t length = ::recv(m_fd.Get(), block, sizeof block, MSG_DONTWAIT);
  if (length < 0) {
    m_isGone = errno != EAGAIN && errno != EINTR;
    return;
  }
  if (length == 0) {
    m_hasEnded = true;
    return;
  }
  const bool wasEmpty = m_in.empty();
  m_in.append(block, static_cast<std::size_t>(length));
  if (wasEmpty) {
    SetDeadline();  // a line has so long in all
  }
}

bool StatusClient::TakeLine(std::string& line) {
  if (!m_out.empty() || waiting != nullptr || m_isClosing || m_isGone) {
    return false;
  }
  const std::size_t end = m_in.find('\n');
  if (std::min(end, m_in.size()) > StatusRequest::kMaxLine) {
    Send(StatusError("a line has more than " + std::to_string(StatusRequest::kMaxLine) + " bytes"));
    m_isClosing = true;
    Write();
    return false;
  }
  if (end == std::string::npos) {
    return false;
  }
  line = m_in.substr(0, end);
  m_in.erase(0, end + 1);
  return true;
}

void StatusClient::Send(const nlohmann::ordered_json& object) {
  m_out += object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  m_out += '\n';
  SetDeadline();
}

void StatusClient::SendEvent(const nlohmann::ordered_json& object) {
  if (m_out.size() > kMaxOut) {
    ++m_lost;
    return;
  }
  const bool wasEmpty = m_out.empty();
  const auto before = m_deadline;
  if (m_lost > 0) {
    Send({{"event", "lost"}, {"count", std::exchange(m_lost, 0)}});
  }
  Send(object);
  if (!wasEmpty) {
    m_deadline = before;  // of the reader's last progress
  }
}

void StatusClient::Write() {
  while (!m_out.empty()) {
    const ssize_t written = ::send(m_fd.Get(), m_out.data(), m_out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (written < 0) {
      m_isGone = m_isGone || (errno != EAGAIN && errno != EINTR);
      return;
    }
    m_out.erase(0, static_cast<std::size_t>(written));
    SetDeadline();
  }
  m_isGone = m_isGone || m_isClosing;
}
