#include "platform/stunutils/timing.h"

#include <algorithm>

namespace stun {
namespace {

constexpr u32 kBoundSends = 3;
constexpr Millis kLongestBoundRto{500};

// 0 stands for the default, and what makes no sense for the nearest that does.
u32 InReason(u32 value, u32 standard, u32 least, u32 most) {
  return value == 0 ? standard : std::clamp(value, least, most);
}

}  // namespace

Timing MakeTiming(const Settings& settings, bool takesPorts) {
  Timing timing;
  timing.period = Millis{1000LL * InReason(settings.periodSeconds, 25, 1, 86400)};
  timing.rto = Millis{InReason(settings.rtoMs, 500, 10, 60000)};
  timing.sends = InReason(settings.sends, 7, 2, 16);
  timing.lastWait = timing.rto * 16;  // RFC 8489, 6.2.1: Rm
  if (takesPorts) {
    timing.rto = std::min(timing.rto, kLongestBoundRto);
    timing.sends = std::min(timing.sends, kBoundSends);
    timing.lastWait = timing.rto * 2;
    timing.mostHeld = kMostHeld;
    timing.canaryPause = timing.period;
    timing.mostUnderWay = 60;
  }
  return timing;
}

// Neighbours have places far from each other (multiplicative hashing), and a jitter so
// that devices switched on together do not stay in step. A place that is nearly due now is skipped.
TimePoint NextPlace(u16 port, TimePoint now, Millis period, const Random& random) {
  const auto hash = static_cast<u16>(port * 40503U);
  const Millis place = period * hash / 65536;
  const Millis earliest = std::chrono::duration_cast<Millis>(now.time_since_epoch()) + Millis{1} + period / 8;
  Millis next = earliest - earliest % period + place;
  if (next < earliest) {
    next += period;
  }
  const auto jitter = Millis{random() % (static_cast<u32>(period.count() / 16) + 1)};
  return TimePoint{next + jitter};
}

}  // namespace stun
