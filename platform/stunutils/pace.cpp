#include "platform/stunutils/pace.h"

#include <algorithm>

namespace stun {
namespace {

constexpr Millis kUnit{100};
constexpr Millis kJudged{500};
constexpr u32 kEnough = 16;  // of fewer requests nothing is concluded
constexpr double kFaster = 1.25;

}  // namespace

void Pace::Sent(TimePoint now) {
  const auto gap = std::chrono::duration_cast<Clock::duration>(kUnit / m_window);
  m_next = std::max(now, m_next) + (m_window < kMost ? gap : Clock::duration{0});
}

void Pace::Answered(u32 lost, TimePoint now) {
  const auto time = now - m_begin;
  if (time >= kJudged) {
    const bool isOverrun = m_lost > m_answered && m_lost + m_answered >= kEnough && time < 2 * kJudged;
    const double answeredInUnit = m_answered / (std::chrono::duration<double, std::milli>(time) / kUnit);
    m_window = std::clamp(kFaster * (isOverrun ? answeredInUnit : m_window), kLeast, kMost);
    m_begin = now;
    m_answered = m_lost = 0;
  }
  ++m_answered;
  m_lost += lost;
}

}  // namespace stun
