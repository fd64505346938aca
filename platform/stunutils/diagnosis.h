#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/stunutils/message.h"
#include "platform/stunutils/stun_manager.h"
#include "platform/stunutils/timing.h"

namespace stun {

// The lines for the journal: each problem once until it clears, however often learning is begun anew. They are
// collected for TakeLines.
class Diagnosis {
 public:
  void Say(std::string line) { m_lines.push_back(std::move(line)); }
  // Said once until it clears: a mapping was learnt and the problem has not come up for ten seconds.
  void Problem(const std::string& text, TimePoint now);

  void Silent(const Endpoint& server);
  void Refused(const Endpoint& server, const Answer& answer, TimePoint now);
  void Mapped(u16 port, const Endpoint& server, TimePoint now);
  // What the comparison of the port's mapping with another server's answer showed.
  void NatMaps(NatMapping how, const Endpoint& mapped, const Endpoint& server, const Arrival& other);
  // Of the mapping that does not settle, if there is one.
  void Unsettled(std::optional<u16> port);

  // The port cannot be used, an errno. Told together with others that are found within a moment, or when `isComplete`.
  void Unavailable(u16 port, int error, TimePoint now);
  void TellUnavailable(TimePoint now, bool isComplete);
  TimePoint NextDeadline() const;

  std::vector<std::string> TakeLines() { return std::exchange(m_lines, {}); }

 private:
  std::vector<std::string> m_lines;
  std::map<std::string, TimePoint> m_problems;  // when they last came up
  bool m_isToldSilent = false;
  bool m_isToldDifferent = false;
  bool m_isToldUnsettled = false;
  std::map<u16, int> m_toldUnavailable;
  std::map<int, std::set<u16>> m_unavailable;  // yet to be told
  std::optional<TimePoint> m_unavailableSince;
};

}  // namespace stun
