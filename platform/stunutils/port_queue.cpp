#include "platform/stunutils/port_queue.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace stun {
namespace {

constexpr u8 kMostBriefRests = 3;
constexpr Millis kBriefRest{500};
constexpr Millis kShortGap{1000};

}  // namespace

void PortQueue::Add(u16 number, bool isUrgent) {
  const auto [at, isNew] = m_ports.try_emplace(number);
  if (isNew) {
    try {
      m_order.insert(KeyOf(number, at->second));
    } catch (...) {
      m_ports.erase(at);
      throw;
    }
  }
  Reorder(number, at->second, [isUrgent](Port& port) { port.isUrgent = isUrgent; });
}

void PortQueue::Remove(u16 number) {
  const auto found = m_ports.find(number);
  if (found != m_ports.end()) {
    m_order.erase(KeyOf(number, found->second));
    m_ports.erase(found);
  }
}

void PortQueue::Clear() {
  m_ports.clear();
  m_order.clear();
}

PortQueue::Key PortQueue::KeyOf(u16 number, const Port& port) {
  const bool isDue = port.state == PortState::DUE;
  return {port.state, isDue ? port.passes : u8{0}, isDue && !port.isUrgent, port.turn, number};
}

// The port's node of the order is used again: no memory is needed.
template <class Change>
void PortQueue::Reorder(u16 number, Port& port, Change change) {
  auto node = m_order.extract(KeyOf(number, port));
  change(port);
  node.value() = KeyOf(number, port);
  m_order.insert(std::move(node));
}

PortAction PortQueue::Apply(u16 number, PortEvent event, TimePoint now) {
  const auto found = m_ports.find(number);
  if (found == m_ports.end()) {
    return PortAction::NOTHING;
  }
  const PortStep step = After(kPortSteps, found->second.state, event);
  if (step.action != PortAction::NOTHING) {
    Reorder(number, found->second, [&](Port& port) {
      port.state = step.to;
      Act(number, port, step.action, now);
    });
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
  const auto end = Begin(PortState::LENT);
  const Key from{PortState::RESTING, u8{0}, false, m_lastPrompted.first, m_lastPrompted.second};
  for (auto at = m_order.upper_bound(from); at != end && next.size() < count; ++at) {
    const u16 number = std::get<u16>(*at);
    m_lastPrompted = {std::get<TimePoint>(*at), number};
    if (m_ports.at(number).asked < since) {
      next.push_back(number);
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
    case PortAction::LAPSE:
      port.isAnswered = false;
      [[fallthrough]];
    case PortAction::REST:
      port.turn = Place(number, now);
      port.passes = port.refusals = 0;
      break;
    case PortAction::BRIEFLY:
      RestBriefly(number, port, now);
      break;
    case PortAction::HASTEN:
      port.turn = std::min(port.turn, std::max(now, port.asked + (port.isAnswered ? Gap() : ShortGap())));
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
  const auto end = Begin(PortState::RESTING);
  const auto found =
      std::find_if(m_order.begin(), end, [&](const Key& key) { return std::get<bool>(key) != isUrgent; });
  return found == end ? FirstDue() : std::get<u16>(*found);
}

std::optional<u16> PortQueue::LastPassed() const {
  if (!HasDue()) {
    return std::nullopt;
  }
  const Key& last = *std::prev(Begin(PortState::RESTING));
  return std::get<u8>(last) == 0 ? std::nullopt : std::optional(std::get<u16>(last));
}

TimePoint PortQueue::NextTurn() const {
  const auto next = Begin(PortState::RESTING);
  return next == Begin(PortState::ASKED) ? TimePoint::max() : std::get<TimePoint>(*next);
}

std::optional<u16> PortQueue::FirstAnswered() const {
  const auto end = Begin(PortState::LENT);
  const auto found = std::find_if(m_order.begin(), end, [this](const Key& key) {
    return std::get<u8>(key) == 0 && m_ports.at(std::get<u16>(key)).isAnswered;
  });
  return found == end ? std::nullopt : std::optional(std::get<u16>(*found));
}

}  // namespace stun
