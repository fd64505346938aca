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
  void Report(std::string line) { m_lines.push_back(std::move(line)); }
  // Reported once until it clears: a mapping was learnt and the problem has not come up for ten seconds.
  void Problem(const std::string& text, TimePoint now) { Problem({text, std::nullopt}, now); }

  // Between two probes of a port. What comes and goes from probe to probe clears after some periods without it.
  void SetPeriod(Millis period) { m_period = period; }
  // What was reported of other servers than these is over.
  void Configured(const std::vector<Endpoint>& servers);

  void Silent(const Endpoint& server);
  void Refused(const Endpoint& server, const Answer& answer, TimePoint now);
  void Mapped(u16 port, const Endpoint& server, TimePoint now);
  // What the comparison of the port's mapping with another server's answer showed.
  void NatMaps(NatMapping how, const Endpoint& mapped, const Endpoint& server, const Arrival& other);
  // A mapping came: the port whose mapping does not settle, if there is one.
  void Unsettled(std::optional<u16> port, TimePoint now);

  // The port cannot be used, an errno. Reported together with others that are found within a moment, or when
  // `isComplete`.
  void Unavailable(u16 port, int error, TimePoint now);
  void ReportUnavailable(TimePoint now, bool isComplete);
  TimePoint NextDeadline() const;

  std::vector<std::string> TakeLines() { return std::exchange(m_lines, {}); }

 private:
  static constexpr int kFirstCalm = 8;

  // Its text, and whose answer it is, where it is one: it clears by a mapping of the same server.
  using ProblemKey = std::pair<std::string, std::optional<Endpoint>>;

  void Problem(const ProblemKey& problem, TimePoint now);
  void Fails(const Endpoint& server) { m_asked = m_asked.value_or(server); }

  std::vector<std::string> m_lines;
  Millis m_period{Timing{}.period};
  std::map<ProblemKey, TimePoint> m_problems;  // when they last came up
  std::set<Endpoint> m_silent;                 // reported, and not heard since
  std::optional<Endpoint> m_asked;             // the one that a reader of the lines takes for the one asked
  bool m_isReportedDifferent = false;
  std::optional<TimePoint> m_lastUnsettled;  // since it was reported
  int m_calmPeriods = kFirstCalm;            // until mappings are reported to settle; longer each time
  std::map<u16, int> m_reportedUnavailable;
  std::map<int, std::set<u16>> m_unavailable;  // yet to be reported
  std::optional<TimePoint> m_unavailableSince;
};

}  // namespace stun
