#include "bench/delay_relay.h"

#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <deque>
#include <stdexcept>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Frame {
  Clock::time_point due;
  int to;
  std::vector<char> bytes;
};

// All frames that come in on the link. Each has a header that keeps unfinished checksums known as such.
UniqueFd OpenLink(const char* link) {
  UniqueFd fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(::if_nametoindex(link));
  packet_mreq all{address.sll_ifindex, PACKET_MR_PROMISC, 0, {}};
  const int on = 1;
  const int buffer = 1 << 22;
  ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer));
  if (::setsockopt(fd.Get(), SOL_PACKET, PACKET_VNET_HDR, &on, sizeof(on)) != 0 ||
      ::setsockopt(fd.Get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) != 0 ||
      ::setsockopt(fd.Get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &all, sizeof(all)) != 0 ||
      ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error(std::string("cannot open the link ") + link);
  }
  return fd;
}

}  // namespace

DelayRelay::DelayRelay(const std::string& nameSpace, const char* left, const char* right,
                       std::chrono::milliseconds delay)
    : m_end(::eventfd(0, EFD_CLOEXEC)) {
  const UniqueFd home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  const UniqueFd there(::open(("/run/netns/" + nameSpace).c_str(), O_RDONLY | O_CLOEXEC));
  if (!home || !there || ::setns(there.Get(), CLONE_NEWNET) != 0) {
    throw std::runtime_error("cannot enter " + nameSpace);
  }
  m_links[0] = OpenLink(left);
  m_links[1] = OpenLink(right);
  if (::setns(home.Get(), CLONE_NEWNET) != 0) {
    throw std::runtime_error("cannot leave " + nameSpace);
  }
  m_thread = std::thread([this, delay] { Run(delay); });
}

DelayRelay::~DelayRelay() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(m_end.Get(), &one, sizeof(one));
  m_thread.join();
}

void DelayRelay::Run(std::chrono::milliseconds delay) {
  std::deque<Frame> waiting;  // in the order in which they are due, as all wait equally long
  std::array<pollfd, 3> events{pollfd{m_links[0].Get(), POLLIN, 0}, pollfd{m_links[1].Get(), POLLIN, 0},
                               pollfd{m_end.Get(), POLLIN, 0}};
  std::array<char, 65536> buffer;
  while (events[2].revents == 0) {
    const auto left =
        waiting.empty() ? -1 : std::chrono::ceil<std::chrono::milliseconds>(waiting.front().due - Clock::now()).count();
    ::poll(events.data(), events.size(), waiting.empty() ? -1 : static_cast<int>(std::max<long>(left, 0)));
    for (int from = 0; from < 2; ++from) {
      ssize_t size = 0;
      while ((size = ::recv(m_links[from].Get(), buffer.data(), buffer.size(), 0)) > 0) {
        waiting.push_back({Clock::now() + delay, 1 - from, {buffer.data(), buffer.data() + size}});
      }
    }
    for (; !waiting.empty() && waiting.front().due <= Clock::now(); waiting.pop_front()) {
      const Frame& frame = waiting.front();
      // A frame that the link does not take is lost, as on any network.
      [[maybe_unused]] const ssize_t sent = ::send(m_links[frame.to].Get(), frame.bytes.data(), frame.bytes.size(), 0);
    }
  }
}
