#pragma once

#include <optional>
#include <vector>

#include "platform/types.h"
#include "platform/vxnetutils/netlink_socket.h"

// A way out of the device; addresses in network byte order.
struct Route {
  u32 address = 0;  // the local address that packets leave from
  u32 gateway = 0;  // 0: attached network; kOtherGateway: a gateway without an IPv4 address
};

inline constexpr u32 kOtherGateway = 0xFFFFFFFF;

// Asks the kernel for routes. One thread at a time.
class KernelRoutes {
 public:
  enum class Answer {
    FOUND,
    NONE,    // the kernel has no way there
    FAILED,  // the kernel could not be asked
  };

  // `route` is only written for FOUND.
  Answer Find(u32 destination, Route& route);

  // The default route of the main table: lowest metric first, the first one whose link is up and which has an address
  // to leave from. The kernel itself cannot be asked for it: toward 0.0.0.0 it answers with loopback.
  Answer FindDefault(Route& route);

  // Number of messages sent to the kernel so far.
  u64 Requests() const { return m_requests; }

 private:
  // One next hop of one default route.
  struct Candidate {
    u32 metric = 0;
    u32 link = 0;
    u32 gateway = 0;
    u32 address = 0;  // 0: the kernel's choice
    bool dead = false;
    bool unicast = true;  // otherwise the route refuses what matches it
    u32 object = 0;       // not 0: stands for the next hop, or group, of this id
  };
  struct Object {
    Candidate hop;
    std::vector<u32> members;  // of a group: the ids of its next hops
  };

  static int ReadRoute(const nlmsghdr* message, void* context);
  static int ReadDefaultRoute(const nlmsghdr* message, void* context);
  static int ReadObject(const nlmsghdr* message, void* context);
  static int ReadLink(const nlmsghdr* message, void* context);

  Answer Get(u32 destination, u32 link, Route& route);
  // Empty optional: the kernel could not be asked.
  std::optional<std::vector<Candidate>> ListDefaultRoutes();
  // False: the kernel could not be asked.
  bool ReplaceObjects(std::vector<Candidate>& candidates);
  bool AddObject(u32 id, const Candidate& route, std::vector<Candidate>& candidates);
  Answer Use(const Candidate& candidate, Route& route);
  Answer LinkUp(u32 link);
  int Ask(nlmsghdr* request, mnl_cb_t each, void* context);

  NetlinkSocket m_socket;
  u64 m_requests = 0;
};
