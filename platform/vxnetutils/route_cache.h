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

  // As those of RouteHelper.
  void BeginTurn();
  void EndTurn();

  // Number of messages sent to the kernel so far.
  u64 Requests() const { return m_kernel.Requests(); }

 private:
  struct Known {
    bool found = false;
    Route route;
  };

  // Forgets what may not hold any more. False when nothing would tell when an answer ceases to hold.
  bool Check();

  ChangeFeed m_changes;
  KernelRoutes m_kernel;
  std::unordered_map<u32, Known> m_known;
  bool m_inTurn = false;
  bool m_isChecked = false;  // in this turn
  bool m_isBlind = false;    // found by the last check
};
