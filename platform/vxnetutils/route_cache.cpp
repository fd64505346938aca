#include "platform/vxnetutils/route_cache.h"

namespace {

// Bounds the memory. A device talks to far fewer remote parties; when there are more, beginning anew is cheap.
constexpr std::size_t kMostKnown = 4096;

}  // namespace

bool RouteCache::LookUp(u32 destination, Route& route) {
  // Read before the kernel is asked, so that a change in between is found by the next look-up.
  const ChangeFeed::State changes = m_changes.Read();
  if (changes != ChangeFeed::State::QUIET) {
    m_known.clear();
  } else if (const auto known = m_known.find(destination); known != m_known.end()) {
    if (known->second.found) {
      route = known->second.route;
    }
    return known->second.found;
  }
  const KernelRoutes::Answer answer =
      destination == 0 ? m_kernel.FindDefault(route) : m_kernel.Find(destination, route);
  const bool found = answer == KernelRoutes::Answer::FOUND;
  // Without the feed nothing would tell when the answer ceases to hold.
  if (changes != ChangeFeed::State::BLIND && answer != KernelRoutes::Answer::FAILED) {
    if (m_known.size() >= kMostKnown) {
      m_known.clear();
    }
    m_known.emplace(destination, Known{found, found ? route : Route{}});
  }
  return found;
}
