#include "platform/vxnetutils/route_cache.h"

namespace {

// Bounds the memory. A device talks to far fewer remote parties; when there are more, beginning anew is cheap.
constexpr std::size_t kMostKnown = 4096;

}  // namespace

void RouteCache::BeginTurn() {
  m_inTurn = true;
  m_isChecked = false;
}

void RouteCache::EndTurn() {
  m_inTurn = false;
  m_isChecked = false;
}

bool RouteCache::Check() {
  if (!m_isChecked) {
    const ChangeFeed::State changes = m_changes.Read();
    if (changes != ChangeFeed::State::QUIET) {
      m_known.clear();
    }
    m_isBlind = changes == ChangeFeed::State::BLIND;
    m_isChecked = m_inTurn;
  }
  return !m_isBlind;
}

bool RouteCache::LookUp(u32 destination, Route& route) {
  // Before the kernel is asked, so that a change in between is found by the next check.
  const bool isTold = Check();
  if (const auto known = m_known.find(destination); known != m_known.end()) {
    if (known->second.found) {
      route = known->second.route;
    }
    return known->second.found;
  }
  const KernelRoutes::Answer answer =
      destination == 0 ? m_kernel.FindDefault(route) : m_kernel.Find(destination, route);
  const bool found = answer == KernelRoutes::Answer::FOUND;
  if (isTold && answer != KernelRoutes::Answer::FAILED) {
    if (m_known.size() >= kMostKnown) {
      m_known.clear();
    }
    m_known.emplace(destination, Known{found, found ? route : Route{}});
  }
  return found;
}
