#pragma once

#include <atomic>
#include <chrono>

#include "platform/unique_fd.h"
#include "platform/vxnetutils/change_feed.h"

// Waits for route changes. Wait: one thread at a time. Stop: any thread.
class RouteWatch {
 public:
  RouteWatch();
  RouteWatch(const RouteWatch&) = delete;
  RouteWatch& operator=(const RouteWatch&) = delete;

  // Returns true after a change and the silence that follows it, or on Stop. False when changes cannot be watched,
  // after a pause. A change while nobody waits, while changes could not be watched, or together with a Stop, is
  // reported by the next Wait.
  bool Wait();

  // Makes the present, or else the next, Wait return. Several before one return are one.
  void Stop();

 private:
  enum class Event { CHANGES, STOPPED, NOTHING };

  // False when Stop ended it.
  bool Settle();
  // Waits for the feed, when `feed` asks for it, or Stop, which is then spent; a negative time waits without end.
  Event WaitFor(bool feed, std::chrono::milliseconds time);
  bool TakeStop();

  ChangeFeed m_changes;
  bool m_toldBlind = false;
  bool m_isChangeDue = false;

  // The flag is the stop; the descriptor only wakes the wait. Without one the flag is looked at in steps.
  std::atomic<bool> m_stop{false};
  const UniqueFd m_wake;
};
