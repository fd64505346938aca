#include "platform/vxnetutils/kernel_routes.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <cerrno>

#include "platform/vxnetutils/netlink_request.h"
#include "platform/vxnetutils/route_attributes.h"

namespace {

struct Reply {
  bool usable = false;
  Route route;
};

bool LeadsSomewhere(u8 type) {
  return type == RTN_UNICAST || type == RTN_LOCAL || type == RTN_BROADCAST || type == RTN_MULTICAST;
}

// The refusals that are an answer: no route (ENETUNREACH, ESRCH), and what a route of type unreachable (EHOSTUNREACH),
// prohibit (EACCES) or blackhole (EINVAL) says. ENODEV: the link asked for has gone.
bool MeansNone(int error) {
  switch (error) {
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EACCES:
    case EINVAL:
    case ESRCH:
    case ENODEV:
      return true;
    default:
      return false;
  }
}

}  // namespace

KernelRoutes::Answer KernelRoutes::Find(u32 destination, Route& route) { return Get(destination, 0, route); }

// The kernel's own choice of way, and of address, toward the destination; over the link when it is not 0.
KernelRoutes::Answer KernelRoutes::Get(u32 destination, u32 link, Route& route) {
  NetlinkRequest<rtmsg> request(RTM_GETROUTE);
  request->rtm_family = AF_INET;
  request->rtm_dst_len = 32;
  request.Put(RTA_DST, destination);
  if (link != 0) {
    request.Put(RTA_OIF, link);
  }
  Reply reply;
  const int error = Ask(request.Message(), ReadRoute, &reply);
  if (error != 0) {
    return MeansNone(error) ? Answer::NONE : Answer::FAILED;
  }
  if (!reply.usable) {
    return Answer::NONE;
  }
  route = reply.route;
  return Answer::FOUND;
}

int KernelRoutes::ReadRoute(const nlmsghdr* message, void* context) {
  const rtmsg* const header = RouteHeader(message);
  if (header == nullptr) {
    return MNL_CB_OK;
  }
  const RouteAttributes attributes = AttributesOf(message);
  auto& reply = *static_cast<Reply*>(context);
  reply.route.address = attributes.U32(RTA_PREFSRC);
  reply.route.gateway = attributes.Gateway(kOtherGateway);
  // Without any address on the device nothing can be sent that could be answered.
  reply.usable = LeadsSomewhere(header->rtm_type) && reply.route.address != 0;
  return MNL_CB_STOP;
}

int KernelRoutes::Ask(nlmsghdr* request, mnl_cb_t each, void* context) {
  ++m_requests;
  return m_socket.Ask(request, each, context);
}
