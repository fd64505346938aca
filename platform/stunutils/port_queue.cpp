#include "platform/stunutils/port_queue.h"

#include <algorithm>
#include <vector>

namespace stun {
namespace {

constexpr u8 kMostBriefRests = 3;
constexpr Millis kBriefRest{500};
constexpr Millis kShortGap{1000};

}  // namespace

void PortQueue::Add(u16 number, bool isUrgent) {
  Port& port = m_ports[number];
  Unlink(number, port);
  port.isUrgent = isUrgent;
  Link(number, port);
}

void PortQueue::Remove(u16 number) {
  const auto found = m_ports.find(number);
  if (found != m_ports.end()) {
    Unlink(number, found->second);
    m_ports.erase(found);
  }
}

void PortQueue::Clear() {
  m_ports.clear();
  m_due.clear();
  m_resting.clear();
}

void PortQueue::Link(u16 number, const Port& port) {
  if (port.state == PortState::DUE) {
    m_due.insert(Key(number, port));
  } else if (port.state == PortState::RESTING) {
    m_resting.emplace(port.turn, number);
  }
}

void PortQueue::Unlink(u16 number, const Port& port) {
  if (port.state == PortState::DUE) {
    m_due.erase(Key(number, port));
  } else if (port.state == PortState::RESTING) {
    m_resting.erase({port.turn, number});
  }
}

PortAction PortQueue::Apply(u16 number, PortEvent event, TimePoint now) {
  const auto found = m_ports.find(number);
  if (found == m_ports.end()) {
    return PortAction::NOTHING;
  }
  Port& port = found->second;
  const PortStep step = After(kPortSteps, port.state, event);
  if (step.action != PortAction::NOTHING) {
    Unlink(number, port);
    port.state = step.to;
    Act(number, port, step.action, now);
    Link(number, port);
  }
  return step.action;
}

void PortQueue::ApplyToAll(PortEvent event, TimePoint now) {
  for (const auto& [number, port] : m_ports) {
    Apply(number, event, now);
  }
}

void PortQueue::PromptNext(std::size_t count, TimePoint since, TimePoint now) {
  if (m_promptedSince != since) {
    m_promptedSince = since;
    m_lastPrompted = {now, u16{0}};
  }
  std::vector<u16> next;
  for (auto at = m_resting.upper_bound(m_lastPrompted); at != m_resting.end() && next.size() < count; ++at) {
    m_lastPrompted = *at;
    if (m_ports.at(at->second).asked < since) {
      next.push_back(at->second);
    }
  }
  for (const u16 number : next) {
    Apply(number, PortEvent::CHANGE, now);
  }
}

void PortQueue::Act(u16 number, Port& port, PortAction action, TimePoint now) {
  switch (action) {
    case PortAction::SEND:
      port.asked = now;
      break;
    case PortAction::FIRST:
      port.turn = TimePoint{};
      port.passes = port.refusals = 0;
      break;
    case PortAction::BEHIND:
      port.passes = static_cast<u8>(std::min(port.passes + 1, 255));
      break;
    case PortAction::REST:
      port.turn = Place(number, now);
      port.passes = port.refusals = 0;
      break;
    case PortAction::BRIEFLY:
      RestBriefly(number, port, now);
      break;
    case PortAction::HASTEN:
      port.turn = std::min(port.turn, std::max(now, port.asked + (port.isKnown ? Gap() : ShortGap())));
      break;
    case PortAction::PROMPT:
      port.turn = std::min(port.turn, std::max(now, port.asked + ShortGap()));
      break;
    case PortAction::NOTHING:
    case PortAction::NUDGE:
    case PortAction::AGAIN:
    case PortAction::HAND_OUT:
      break;
  }
}

void PortQueue::RestBriefly(u16 number, Port& port, TimePoint now) {
  if (port.refusals < kMostBriefRests) {
    port.turn = now + kBriefRest * (1 << port.refusals);
    ++port.refusals;
  } else {
    port.turn = Place(number, now);
    port.refusals = 0;
  }
}

Millis PortQueue::ShortGap() const { return std::min(kShortGap, Gap()); }

u16 PortQueue::FirstDue(bool isUrgent) const {
  const auto found =
      std::find_if(m_due.begin(), m_due.end(), [&](const DueKey& key) { return std::get<bool>(key) != isUrgent; });
  return std::get<u16>(found == m_due.end() ? *m_due.begin() : *found);
}

std::optional<u16> PortQueue::LastPassed() const {
  return m_due.empty() || std::get<u8>(*m_due.rbegin()) == 0 ? std::nullopt
                                                             : std::optional(std::get<u16>(*m_due.rbegin()));
}

std::optional<u16> PortQueue::FirstKnownResting() const {
  const auto known = std::find_if(m_resting.begin(), m_resting.end(),
                                  [this](const auto& entry) { return m_ports.at(entry.second).isKnown; });
  return known == m_resting.end() ? std::nullopt : std::optional(known->second);
}

}  // namespace stun
