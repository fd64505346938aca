// The choice among the default routes of the main table.

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>

#include "platform/vxnetutils/kernel_routes.h"
#include "platform/vxnetutils/netlink_request.h"
#include "platform/vxnetutils/route_attributes.h"

namespace {

// A listing is begun anew when the table changed in its middle; the feed tells of the change in any case.
constexpr int kListingTries = 3;

bool IsDefaultOfMain(const rtmsg& header, const RouteAttributes& attributes) {
  const u32 table = attributes.Find(RTA_TABLE) != nullptr ? attributes.U32(RTA_TABLE) : header.rtm_table;
  return header.rtm_family == AF_INET && header.rtm_dst_len == 0 && header.rtm_tos == 0 && table == RT_TABLE_MAIN &&
         (header.rtm_flags & RTM_F_CLONED) == 0;
}

}  // namespace

KernelRoutes::Answer KernelRoutes::FindDefault(Route& route) {
  std::optional<std::vector<Candidate>> listed = ListDefaultRoutes();
  if (!listed || !ReplaceObjects(*listed)) {
    return Answer::FAILED;
  }
  // Stable: routes of one metric stand in the order in which the kernel tries them.
  std::stable_sort(listed->begin(), listed->end(),
                   [](const Candidate& a, const Candidate& b) { return a.metric < b.metric; });
  for (const Candidate& candidate : *listed) {
    if (!candidate.unicast) {
      return Answer::NONE;
    }
    if (const Answer answer = Use(candidate, route); answer != Answer::NONE) {
      return answer;
    }
  }
  return Answer::NONE;
}

std::optional<std::vector<KernelRoutes::Candidate>> KernelRoutes::ListDefaultRoutes() {
  for (int i = 0; i < kListingTries; ++i) {
    NetlinkRequest<rtmsg> request(RTM_GETROUTE, NLM_F_DUMP);
    request->rtm_family = AF_INET;
    std::vector<Candidate> listed;
    const int error = Ask(request.Message(), ReadDefaultRoute, &listed);
    if (error == 0) {
      return listed;
    }
    if (error != EINTR) {
      break;
    }
  }
  return std::nullopt;
}

int KernelRoutes::ReadDefaultRoute(const nlmsghdr* message, void* context) {
  const rtmsg* const header = RouteHeader(message);
  if (header == nullptr) {
    return MNL_CB_OK;
  }
  const RouteAttributes attributes = AttributesOf(message);
  if (!IsDefaultOfMain(*header, attributes)) {
    return MNL_CB_OK;
  }
  auto& listed = *static_cast<std::vector<Candidate>*>(context);
  Candidate candidate{.metric = attributes.U32(RTA_PRIORITY),
                      .link = attributes.U32(RTA_OIF),
                      .gateway = attributes.Gateway(kOtherGateway),
                      .address = attributes.U32(RTA_PREFSRC),
                      .dead = (header->rtm_flags & kDeadHop) != 0,
                      .unicast = header->rtm_type == RTN_UNICAST};
  if (candidate.link == 0) {
    candidate.object = attributes.U32(RTA_NH_ID);
  }
  const nlattr* const hops = attributes.Find(RTA_MULTIPATH);
  if (hops == nullptr) {
    listed.push_back(candidate);
    return MNL_CB_OK;
  }
  int left = mnl_attr_get_payload_len(hops);
  for (auto* hop = static_cast<const rtnexthop*>(mnl_attr_get_payload(hops)); RTNH_OK(hop, left);
       left -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len)), hop = RTNH_NEXT(hop)) {
    const RouteAttributes own(RTNH_DATA(hop), hop->rtnh_len - RTNH_LENGTH(0));
    candidate.object = 0;
    candidate.link = static_cast<u32>(hop->rtnh_ifindex);
    candidate.gateway = own.Gateway(kOtherGateway);
    candidate.dead = (hop->rtnh_flags & kDeadHop) != 0;
    listed.push_back(candidate);
  }
  return MNL_CB_OK;
}

KernelRoutes::Answer KernelRoutes::Use(const Candidate& candidate, Route& route) {
  if (candidate.dead) {
    return Answer::NONE;
  }
  if (const Answer answer = LinkUp(candidate.link); answer != Answer::FOUND) {
    return answer;
  }
  Route chosen{candidate.address, candidate.gateway};
  if (chosen.address == 0) {
    // The address that the kernel would leave from toward the gateway; where the next hop has no IPv4 address, the
    // link's own address, which is what it takes for a limited broadcast over that link.
    const bool towardGateway = candidate.gateway != 0 && candidate.gateway != kOtherGateway;
    Route toward;
    const Answer answer = Get(towardGateway ? candidate.gateway : INADDR_BROADCAST, candidate.link, toward);
    if (answer != Answer::FOUND) {
      return answer;
    }
    chosen.address = toward.address;
  }
  route = chosen;
  return Answer::FOUND;
}

KernelRoutes::Answer KernelRoutes::LinkUp(u32 link) {
  NetlinkRequest<ifinfomsg> request(RTM_GETLINK);
  request->ifi_family = AF_UNSPEC;
  request->ifi_index = static_cast<int>(link);
  request.Put(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  unsigned flags = 0;
  const int error = Ask(request.Message(), ReadLink, &flags);
  if (error != 0) {
    return error == ENODEV || error == EINVAL ? Answer::NONE : Answer::FAILED;
  }
  // IFF_RUNNING is the kernel's word for an operational state of up or unknown.
  constexpr unsigned kUp = IFF_UP | IFF_RUNNING;
  return (flags & kUp) == kUp ? Answer::FOUND : Answer::NONE;
}

int KernelRoutes::ReadLink(const nlmsghdr* message, void* context) {
  if (message->nlmsg_type == RTM_NEWLINK && mnl_nlmsg_get_payload_len(message) >= sizeof(ifinfomsg)) {
    *static_cast<unsigned*>(context) = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message))->ifi_flags;
  }
  return MNL_CB_STOP;
}
