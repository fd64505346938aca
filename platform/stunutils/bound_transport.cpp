#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <map>

#include "platform/stunutils/transport.h"
#include "platform/unique_fd.h"

namespace stun {
namespace {

constexpr std::size_t kLargestAnswer = 2048;

sockaddr_in SocketAddress(const Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = endpoint.address;
  address.sin_port = htons(endpoint.port);
  return address;
}

class BoundTransport : public Transport {
 public:
  BoundTransport(UniqueFd poller, u32 localAddress) : m_poller(std::move(poller)), m_localAddress(localAddress) {}

  int ListenTo(std::span<const Endpoint>) override { return 0; }  // each socket is connected to its server

  int Send(u16 localPort, const Endpoint& server, std::span<const u8> message) override {
    auto found = m_sockets.find(localPort);
    if (found == m_sockets.end()) {
      UniqueFd socket = Bind(localPort);
      if (!socket) {
        return errno;
      }
      found = m_sockets.emplace(localPort, std::move(socket)).first;
    }
    const int socket = found->second.Get();
    const sockaddr_in to = SocketAddress(server);
    if ((::connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0 ||
         ::send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) &&
        errno != EAGAIN && errno != ENOBUFS && errno != ECONNREFUSED) {
      m_error = errno;
    }
    return 0;
  }

  void Release(u16 localPort) override { m_sockets.erase(localPort); }
  void ReleaseAll() override { m_sockets.clear(); }

  bool Receive(Datagram& datagram) override {
    epoll_event event{};
    if (::epoll_wait(m_poller.Get(), &event, 1, 0) != 1) {
      return false;
    }
    const auto localPort = static_cast<u16>(event.data.u32);
    const auto found = m_sockets.find(localPort);
    datagram.payload.clear();
    if (found != m_sockets.end()) {
      ReceiveFrom(found->second.Get(), localPort, datagram);
    }
    return true;
  }

  int PollFd() const override { return m_poller.Get(); }
  bool TakesPorts() const override { return true; }

 private:
  // The specific address and no sharing: an owner of the port, on this address or on all, makes it fail, and an owner
  // that comes meanwhile is told that the port is in use instead of losing datagrams to this socket.
  UniqueFd Bind(u16 localPort) {
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in local = SocketAddress({m_localAddress, localPort});
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = localPort;
    if (!socket || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        ::epoll_ctl(m_poller.Get(), EPOLL_CTL_ADD, socket.Get(), &event) != 0) {
      const int error = errno;
      socket.Reset();
      errno = error;
    }
    return socket;
  }

  static void ReceiveFrom(int socket, u16 localPort, Datagram& datagram) {
    std::array<u8, kLargestAnswer> payload;
    sockaddr_in from{};
    socklen_t size = sizeof(from);
    const ssize_t length = ::recvfrom(socket, payload.data(), payload.size(), MSG_DONTWAIT | MSG_TRUNC,
                                      reinterpret_cast<sockaddr*>(&from), &size);
    const bool isWhole = length >= 0 && static_cast<std::size_t>(length) <= payload.size();  // no refusal by ICMP
    datagram.localPort = localPort;
    datagram.source = {from.sin_addr.s_addr, ntohs(from.sin_port)};
    datagram.payload.assign(payload.begin(), payload.begin() + (isWhole ? length : 0));
  }

  const UniqueFd m_poller;
  const u32 m_localAddress;
  std::map<u16, UniqueFd> m_sockets;
};

}  // namespace

std::unique_ptr<Transport> OpenBoundTransport(u32 localAddress) {
  UniqueFd poller(::epoll_create1(EPOLL_CLOEXEC));
  const UniqueFd trial(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in local = SocketAddress({localAddress, 0});
  if (!poller || !trial || ::bind(trial.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
    return nullptr;
  }
  return std::make_unique<BoundTransport>(std::move(poller), localAddress);
}

}  // namespace stun
