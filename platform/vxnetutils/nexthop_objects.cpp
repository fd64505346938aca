// Next hops that are objects of their own. A route names one by its id, and tells no more of it where the kernel keeps
// it short (net.ipv4.nexthop_compat_mode 0).

#include <linux/nexthop.h>
#include <netinet/in.h>

#include <cerrno>
#include <utility>

#include "platform/vxnetutils/kernel_routes.h"
#include "platform/vxnetutils/netlink_request.h"
#include "platform/vxnetutils/route_attributes.h"

bool KernelRoutes::ReplaceObjects(std::vector<Candidate>& candidates) {
  std::vector<Candidate> replaced;
  for (const Candidate& candidate : candidates) {
    if (candidate.object == 0 || !candidate.unicast) {
      replaced.push_back(candidate);
    } else if (!AddObject(candidate.object, candidate, replaced)) {
      return false;
    }
  }
  candidates = std::move(replaced);
  return true;
}

// The next hop of that id, or those of the group, as hops of the route. One that has gone is none.
bool KernelRoutes::AddObject(u32 id, const Candidate& route, std::vector<Candidate>& candidates) {
  NetlinkRequest<nhmsg> request(RTM_GETNEXTHOP);
  request.Put(NHA_ID, id);
  Object object;
  object.hop = route;
  if (const int error = Ask(request.Message(), ReadObject, &object); error != 0) {
    return error == ENOENT;
  }
  if (object.members.empty()) {
    candidates.push_back(object.hop);
  }
  // A group has no groups in it.
  for (const u32 member : object.members) {
    if (!AddObject(member, route, candidates)) {
      return false;
    }
  }
  return true;
}

int KernelRoutes::ReadObject(const nlmsghdr* message, void* context) {
  if (message->nlmsg_type != RTM_NEWNEXTHOP || mnl_nlmsg_get_payload_len(message) < sizeof(nhmsg)) {
    return MNL_CB_STOP;
  }
  const auto* const header = static_cast<const nhmsg*>(mnl_nlmsg_get_payload(message));
  // Numbered by NHA_..., which are fewer than a route's attributes.
  const RouteAttributes attributes(mnl_nlmsg_get_payload_offset(message, sizeof(nhmsg)),
                                   mnl_nlmsg_get_payload_len(message) - sizeof(nhmsg));
  auto& object = *static_cast<Object*>(context);
  object.hop.link = attributes.U32(NHA_OIF);
  object.hop.dead = (header->nh_flags & kDeadHop) != 0;
  if (attributes.Find(NHA_GATEWAY) != nullptr) {
    object.hop.gateway = header->nh_family == AF_INET ? attributes.U32(NHA_GATEWAY) : kOtherGateway;
  }
  if (const nlattr* const group = attributes.Find(NHA_GROUP)) {
    const auto* const members = static_cast<const nexthop_grp*>(mnl_attr_get_payload(group));
    for (std::size_t i = 0; i < mnl_attr_get_payload_len(group) / sizeof(nexthop_grp); ++i) {
      object.members.push_back(members[i].id);
    }
  }
  return MNL_CB_STOP;
}
