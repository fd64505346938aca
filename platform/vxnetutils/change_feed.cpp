#include "platform/vxnetutils/change_feed.h"

#include <linux/rtnetlink.h>
#include <sys/epoll.h>

#include <cerrno>

namespace {

constexpr int kGroups[] = {RTNLGRP_LINK,      RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE,
                           RTNLGRP_IPV4_RULE, RTNLGRP_NEXTHOP,     RTNLGRP_IPV4_NETCONF};

// A storm of changes must not hold a caller here: what is left over is found by the next call.
constexpr int kMostMessages = 256;

}  // namespace

int ChangeFeed::Open() {
  if (const int error = m_socket.Open(); error != 0) {
    return error;
  }
  for (const int group : kGroups) {
    const int error = m_socket.Join(group);
    // Kernels before 5.3 know no nexthop objects, hence no changes of them.
    if (error != 0 && !(error == EINVAL && group == RTNLGRP_NEXTHOP)) {
      m_socket.Close();
      return error;
    }
  }
  // Without it, each Read looks at the socket.
  m_readiness = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
  epoll_event watched{};
  watched.events = EPOLLIN;
  if (m_readiness && ::epoll_ctl(m_readiness.Get(), EPOLL_CTL_ADD, Descriptor(), &watched) != 0) {
    m_readiness.Reset();
  }
  return 0;
}

bool ChangeFeed::IsQuiet() const {
  epoll_event ready;
  return m_readiness && ::epoll_wait(m_readiness.Get(), &ready, 1, 0) == 0;
}

ChangeFeed::State ChangeFeed::Read() {
  if (!IsOpen()) {
    m_error = Open();
    return m_error == 0 ? State::CHANGED : State::BLIND;
  }
  if (IsQuiet()) {
    return State::QUIET;
  }
  State state = State::QUIET;
  for (int i = 0; i < kMostMessages; ++i) {
    unsigned char unread[sizeof(nlmsghdr)];
    std::size_t length = 0;
    const int error = m_socket.Receive(unread, sizeof(unread), length);
    if (error == EAGAIN) {
      return state;
    }
    if (error != 0 && error != ENOBUFS) {
      m_error = error;
      m_socket.Close();
      return State::BLIND;
    }
    state = State::CHANGED;
  }
  return state;
}
