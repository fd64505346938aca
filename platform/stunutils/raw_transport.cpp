#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/stunutils/transport.h"
#include "platform/unique_fd.h"

namespace stun {
namespace {

constexpr std::size_t kLargestPacket = 2048;  // an answer is far smaller

sock_filter Statement(int code, u32 k) { return {static_cast<u16>(code), 0, 0, k}; }
sock_filter UnlessEqual(u32 k, std::size_t skip) { return {BPF_JMP | BPF_JEQ | BPF_K, 0, static_cast<u8>(skip), k}; }

// Lets through answers (RFC 8489, 5) of the servers: an RTP stream to the device must not wake anybody. The packet
// begins with the IPv4 header; X holds its length.
std::vector<sock_filter> AnswersOf(std::span<const Endpoint> servers) {
  std::vector<sock_filter> program;
  program.push_back(Statement(BPF_LDX | BPF_B | BPF_MSH, 0));
  program.push_back(Statement(BPF_LD | BPF_H | BPF_IND, 8));
  program.push_back({BPF_JMP | BPF_JEQ | BPF_K, 2, 0, kSuccessType});
  program.push_back({BPF_JMP | BPF_JEQ | BPF_K, 1, 0, kErrorType});
  program.push_back(Statement(BPF_RET | BPF_K, 0));
  program.push_back(Statement(BPF_LD | BPF_W | BPF_IND, 12));
  program.push_back({BPF_JMP | BPF_JEQ | BPF_K, 1, 0, kMagicCookie});
  program.push_back(Statement(BPF_RET | BPF_K, 0));
  for (const Endpoint& server : servers) {
    program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, 12));
    program.push_back(UnlessEqual(ntohl(server.address), 3));
    program.push_back(Statement(BPF_LD | BPF_H | BPF_IND, 0));
    program.push_back(UnlessEqual(server.port, 1));
    program.push_back(Statement(BPF_RET | BPF_K, kLargestPacket));
  }
  program.push_back(Statement(BPF_RET | BPF_K, 0));
  return program;
}

class RawTransport : public Transport {
 public:
  RawTransport(UniqueFd socket, u32 localAddress) : m_socket(std::move(socket)), m_localAddress(localAddress) {}

  int ListenTo(std::span<const Endpoint> servers) override {
    std::vector<sock_filter> program = AnswersOf(servers);
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::setsockopt(m_socket.Get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) == 0) {
      return 0;
    }
    // The old filter, which would hide a new server, must go, at the price of more wake-ups: answers are told from the
    // rest later as well.
    const int error = errno;
    ::setsockopt(m_socket.Get(), SOL_SOCKET, SO_DETACH_FILTER, nullptr, 0);
    return error;
  }

  int Send(u16 localPort, const Endpoint& server, std::span<const u8> message) override {
    const auto datagram = UdpDatagram(m_localAddress, localPort, server, message);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = server.address;
    if (::sendto(m_socket.Get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0 &&
        errno != EAGAIN && errno != ENOBUFS) {
      m_error = errno;
    }
    return 0;
  }

  void Release(u16) override {}
  void ReleaseAll() override {}

  bool Receive(Datagram& datagram) override {
    std::array<u8, kLargestPacket> packet;
    const ssize_t size = ::recv(m_socket.Get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0) {
      return false;
    }
    if (static_cast<std::size_t>(size) > packet.size() ||
        !ReadUdpPacket(std::span(packet).first(static_cast<std::size_t>(size)), datagram)) {
      datagram.payload.clear();
    }
    return true;
  }

  int PollFd() const override { return m_socket.Get(); }
  bool TakesPorts() const override { return false; }

 private:
  const UniqueFd m_socket;
  const u32 m_localAddress;
};

}  // namespace

std::unique_ptr<Transport> OpenRawTransport(u32 localAddress) {
  UniqueFd socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_UDP));
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = localAddress;
  if (!socket || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
    return nullptr;
  }
  auto transport = std::make_unique<RawTransport>(std::move(socket), localAddress);
  transport->ListenTo({});  // a failure is told when the servers are known
  return transport;
}

}  // namespace stun
