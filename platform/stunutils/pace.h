#pragma once

#include "platform/stunutils/timing.h"

namespace stun {

// How fast requests may follow each other. Usually at once, as many as the window holds; on a network that loses more
// than half of them, evenly spaced, a little faster than answers come, so that a rate limit is met and not overrun.
class Pace {
 public:
  // When the next request may go; the epoch: at once.
  TimePoint NextSend() const { return m_window < kMost ? m_next : TimePoint{}; }
  void Sent(TimePoint now);
  // A request was answered, and so often it was lost before. One that is never answered says nothing of the network:
  // the port may be silent by itself.
  void Answered(u32 lost, TimePoint now);

 private:
  static constexpr double kMost = 64;
  static constexpr double kLeast = 2;

  double m_window = kMost;  // requests in kUnit
  TimePoint m_next{};
  TimePoint m_begin{};  // of the time that the two counts are of
  u32 m_answered = 0;
  u32 m_lost = 0;
};

}  // namespace stun
