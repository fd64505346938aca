#include "platform/vxnetutils/route_watch.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "platform/journal.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A link that comes up, or a DHCP client at work, makes several changes within a few milliseconds.
constexpr milliseconds kSilence(50);
// Changes without a pause must not hide themselves for ever.
constexpr milliseconds kLongestBurst(500);
constexpr milliseconds kBlindPause(2000);
constexpr milliseconds kStep(100);

}  // namespace

RouteWatch::RouteWatch() : m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  // From here on nothing is missed. A failure is met again, and reported, by the first Wait.
  m_changes.Open();
}

bool RouteWatch::Wait() {
  // A stop first: it is of this wait, while changes keep.
  if (TakeStop() || std::exchange(m_isChangeDue, false)) {
    return true;
  }
  for (;;) {
    switch (m_changes.Read()) {
      case ChangeFeed::State::CHANGED:
        m_toldBlind = false;
        m_isChangeDue = !Settle();
        return true;
      case ChangeFeed::State::BLIND:
        if (!std::exchange(m_toldBlind, true)) {
          JournalError("route changes cannot be watched: " + std::generic_category().message(m_changes.Error()) +
                       "; tried again every two seconds");
        }
        WaitFor(false, kBlindPause);
        return false;
      case ChangeFeed::State::QUIET:
        break;
    }
    if (WaitFor(true, milliseconds(-1)) == Event::STOPPED) {
      return true;
    }
  }
}

void RouteWatch::Stop() {
  m_stop.store(true);
  if (m_wake) {
    // Cannot fail but by an overflowing count, and then the wait is awake already.
    ::eventfd_write(m_wake.Get(), 1);
  }
}

bool RouteWatch::Settle() {
  const Clock::time_point latest = Clock::now() + kLongestBurst;
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(latest - Clock::now());
    const Event event = left > milliseconds(0) ? WaitFor(true, std::min(left, kSilence)) : Event::NOTHING;
    if (event != Event::CHANGES || m_changes.Read() == ChangeFeed::State::BLIND) {
      return event != Event::STOPPED;
    }
  }
}

RouteWatch::Event RouteWatch::WaitFor(bool feed, milliseconds time) {
  const bool endless = time < milliseconds(0);
  const Clock::time_point end = Clock::now() + time;
  for (;;) {
    if (TakeStop()) {
      return Event::STOPPED;
    }
    milliseconds left = std::chrono::ceil<milliseconds>(end - Clock::now());
    if (!endless && left <= milliseconds(0)) {
      return Event::NOTHING;
    }
    if (!m_wake) {
      left = endless ? kStep : std::min(left, kStep);
    } else if (endless) {
      left = milliseconds(-1);
    }
    // poll passes over a negative descriptor.
    pollfd ready[] = {{m_wake.Get(), POLLIN, 0}, {feed ? m_changes.Descriptor() : -1, POLLIN, 0}};
    if (::poll(ready, std::size(ready), static_cast<int>(left.count())) > 0 && ready[1].revents != 0) {
      return TakeStop() ? Event::STOPPED : Event::CHANGES;
    }
  }
}

bool RouteWatch::TakeStop() {
  if (m_wake) {
    eventfd_t ignored = 0;
    ::eventfd_read(m_wake.Get(), &ignored);
  }
  return m_stop.exchange(false);
}
