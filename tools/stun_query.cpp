#include "tools/stun_query.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "platform/stunutils/random.h"

namespace {

using stun::Clock;
using stun::TimePoint;

sockaddr_in SocketAddress(const stun::Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = endpoint.address;
  address.sin_port = htons(endpoint.port);
  return address;
}

bool IsPassing(int error) { return error == EAGAIN || error == EINTR || error == ENOBUFS; }

void Unreachable(StunOutcome& outcome, int error) {
  outcome.error = "unreachable";
  outcome.text = std::generic_category().message(error);
}

void Heed(const stun::Answer& answer, StunOutcome& outcome) {
  switch (answer.kind) {
    case stun::Answer::Kind::MAPPED:
      outcome.mapped = answer.mapped;
      break;
    case stun::Answer::Kind::REFUSED:
      outcome.error = "refused";
      outcome.text = "error " + std::to_string(answer.errorCode);
      break;
    case stun::Answer::Kind::UNUSABLE:
      outcome.error = "refused";
      outcome.text = "an answer without a usable address";
      break;
  }
}

}  // namespace

int StunQuery::Bind(u16 localPort) {
  m_socket = UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_in local = SocketAddress({INADDR_ANY, localPort});
  const bool isBound =
      m_socket && ::bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
  return isBound ? 0 : errno;
}

StunOutcome StunQuery::Ask(const stun::Endpoint& server, TimePoint deadline) {
  StunOutcome outcome;
  // Connected: other senders' datagrams stay out, refusals by ICMP are heard, and the first server settles the address
  // that all are asked from.
  const sockaddr_in to = SocketAddress(server);
  sockaddr_in local{};
  socklen_t size = sizeof(local);
  if (::connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0 ||
      ::getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&local), &size) != 0) {
    Unreachable(outcome, errno);
    return outcome;
  }
  outcome.local = {local.sin_addr.s_addr, ntohs(local.sin_port)};

  const stun::Timing timing = stun::MakeTiming({}, false);
  const stun::TransactionId id = stun::NewTransactionId(stun::KernelRandom);
  const stun::Request request = stun::BindingRequest(id);
  stun::Millis wait = timing.rto;
  do {
    const TimePoint sent = Clock::now();
    if (::send(m_socket.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0 && !IsPassing(errno)) {
      Unreachable(outcome, errno);
      return outcome;
    }
    ++outcome.sends;
    const auto pause = outcome.sends == timing.sends ? timing.lastWait : wait;
    if (const auto answer = AwaitAnswer(id, std::min(deadline, sent + pause), outcome)) {
      outcome.roundTrip = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - sent);
      Heed(*answer, outcome);
      return outcome;
    }
    wait *= 2;
  } while (outcome.error == nullptr && outcome.sends < timing.sends && Clock::now() < deadline);
  if (outcome.error == nullptr) outcome.error = "timeout";
  return outcome;
}

std::optional<stun::Answer> StunQuery::AwaitAnswer(const stun::TransactionId& id, TimePoint until,
                                                   StunOutcome& outcome) {
  std::array<u8, 2048> datagram;
  for (;;) {
    if (!m_waitReadable(m_socket.Get(), until)) return std::nullopt;
    const ssize_t length = ::recv(m_socket.Get(), datagram.data(), datagram.size(), 0);
    if (length < 0 && !IsPassing(errno)) {
      Unreachable(outcome, errno);
      return std::nullopt;
    }
    const auto answer =
        length < 0 ? std::nullopt : stun::ParseAnswer(std::span(datagram).first(static_cast<std::size_t>(length)));
    if (answer && answer->id == id) return answer;
  }
}
