#include "platform/vxnetutils/netlink_socket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Whether every message ends inside the packet. libmnl compares lengths as int and would follow one beyond INT_MAX.
bool AreWhole(const unsigned char* packet, std::size_t length) {
  std::size_t at = 0;
  while (length - at >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, packet + at, sizeof(header));
    if (header.nlmsg_len < sizeof(header) || header.nlmsg_len > length - at) {
      return false;
    }
    at = std::min(at + MNL_ALIGN(header.nlmsg_len), length);
  }
  return true;
}

}  // namespace

int NetlinkSocket::Open() {
  Close();
  m_socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
  if (m_socket == nullptr) {
    return errno;
  }
  if (mnl_socket_bind(m_socket, 0, MNL_SOCKET_AUTOPID) != 0) {
    const int error = errno;
    Close();
    return error;
  }
  return 0;
}

void NetlinkSocket::Close() {
  if (m_socket != nullptr) {
    mnl_socket_close(m_socket);
    m_socket = nullptr;
  }
}

int NetlinkSocket::Join(int group) {
  return mnl_socket_setsockopt(m_socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) == 0 ? 0 : errno;
}

int NetlinkSocket::Receive(void* buffer, std::size_t size, std::size_t& length) {
  for (;;) {
    sockaddr_nl sender{};
    socklen_t senderSize = sizeof(sender);
    const ssize_t count = ::recvfrom(Descriptor(), buffer, size, MSG_DONTWAIT | MSG_TRUNC,
                                     reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (count < 0 && errno != EINTR) {
      return errno;
    }
    if (count >= 0 && sender.nl_pid == 0) {
      length = static_cast<std::size_t>(count);
      return 0;
    }
  }
}

int NetlinkSocket::Ask(nlmsghdr* request, mnl_cb_t each, void* context) {
  if (!IsOpen()) {
    if (const int error = Open(); error != 0) {
      return error;
    }
  }
  request->nlmsg_seq = ++m_sequence;
  ssize_t sent = 0;
  do {
    sent = mnl_socket_sendto(m_socket, request, request->nlmsg_len);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    const int error = errno;
    Close();
    return error;
  }
  return ReadAnswer(each, context);
}

// The kernel answers within the sending call, and continues a listing within each receiving one, so nothing here waits:
// an answer that is not there will not come any more.
int NetlinkSocket::ReadAnswer(mnl_cb_t each, void* context) {
  for (;;) {
    std::size_t length = 0;
    if (const int error = Receive(m_answer, sizeof(m_answer), length); error != 0) {
      Close();
      return error;
    }
    if (length > sizeof(m_answer)) {
      Close();
      return EMSGSIZE;
    }
    if (!AreWhole(m_answer, length)) {
      Close();
      return EBADMSG;
    }
    const int result = mnl_cb_run(m_answer, length, m_sequence, mnl_socket_get_portid(m_socket), each, context);
    if (result == MNL_CB_STOP) {
      return 0;
    }
    if (result == MNL_CB_ERROR) {
      const int error = errno;
      // A refusal is the whole answer. A listing that was broken off, or an answer to something else, leaves more
      // behind.
      if (error == EINTR || error == EPROTO || error == ESRCH) {
        Close();
      }
      return error;
    }
  }
}
