#pragma once

#include <unordered_map>

#include "platform/types.h"
#include "platform/vxnetutils/change_feed.h"
#include "platform/vxnetutils/kernel_routes.h"

// Answers of the kernel, kept until something changes that could make one different. One thread at a time.
class RouteCache {
 public:
  // False when there is no route, or none can be asked for; `route` is then unchanged. Destination 0 asks for the
  // default route.
  bool LookUp(u32 destination, Route& route);

  // Number of messages sent to the kernel so far.
  u64 Requests() const { return m_kernel.Requests(); }

 private:
  struct Known {
    bool found = false;
    Route route;
  };

  ChangeFeed m_changes;
  KernelRoutes m_kernel;
  std::unordered_map<u32, Known> m_known;
};
