// What the kernel answers when it is asked for routes, links and next hops. The functions of libmnl that open a socket
// and send on it are made here a second time: each request is answered by the next packets of the input.

#include <libmnl/libmnl.h>
#include <sys/socket.h>

#include "platform/unique_fd.h"
#include "platform/vxnetutils/kernel_routes.h"
#include "tests/fuzz/fuzz.h"

namespace {

std::string_view s_input;
UniqueFd s_kernel;  // the far end of the one socket

}  // namespace

mnl_socket* mnl_socket_open2(int, int) {
  int ends[2];
  fuzz::Require(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0, "a pair of sockets");
  s_kernel = UniqueFd(ends[1]);
  return mnl_socket_fdopen(ends[0]);
}

int mnl_socket_bind(mnl_socket*, unsigned, pid_t) { return 0; }

unsigned mnl_socket_get_portid(const mnl_socket*) { return 0; }

ssize_t mnl_socket_sendto(const mnl_socket*, const void*, std::size_t length) {
  while (const auto packet = fuzz::TakePacket(s_input)) {
    ::send(s_kernel.Get(), packet->bytes.data(), packet->bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (packet->isLast) {
      break;
    }
  }
  return static_cast<ssize_t>(length);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  s_input = fuzz::Text(data, size);
  KernelRoutes routes;
  Route route;
  const auto check = [&route](KernelRoutes::Answer answer) {
    fuzz::Require(answer != KernelRoutes::Answer::FOUND || route.address != 0, "a route has an address to leave from");
    fuzz::Require(answer == KernelRoutes::Answer::FOUND || route.address == 0, "the route is written when it is found");
    route = {};
  };
  check(routes.FindDefault(route));
  check(routes.Find(0x096433C6, route));
  s_kernel = {};
  return 0;
}
