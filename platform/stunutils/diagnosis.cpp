#include "platform/stunutils/diagnosis.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/stunutils/diagnostics.h"

namespace stun {
namespace {

constexpr Millis kTogether{1000};
constexpr Millis kCalm{10000};
constexpr int kRefusalCalm = 10;  // periods
constexpr int kLongestCalm = 512;
constexpr u16 kTryAlternate = 300;  // RFC 8489, 14.8

// "5060 10000-10199"
std::string Ranges(const std::set<u16>& ports) {
  std::string text;
  for (auto at = ports.begin(); at != ports.end();) {
    const u16 first = *at;
    u16 last = first;
    while (++at != ports.end() && *at == last + 1) {
      last = *at;
    }
    text += (text.empty() ? "" : " ") + std::to_string(first);
    if (last != first) {
      text += "-" + std::to_string(last);
    }
  }
  return text;
}

}  // namespace

void Diagnosis::Problem(const ProblemKey& problem, TimePoint now) {
  if (m_problems.insert_or_assign(problem, now).second) {
    Report(problem.first);
  }
}

void Diagnosis::Configured(const std::vector<Endpoint>& servers) {
  const auto isGone = [&servers](const std::optional<Endpoint>& server) {
    return server && std::find(servers.begin(), servers.end(), *server) == servers.end();
  };
  std::erase_if(m_silent, isGone);
  std::erase_if(m_problems, [&isGone](const auto& problem) { return isGone(problem.first.second); });
  if (isGone(m_asked)) {
    m_asked.reset();
  }
}

void Diagnosis::Silent(const Endpoint& server) {
  Fails(server);
  if (m_silent.insert(server).second) {
    Report("server " + EndpointText(server) + " does not answer; known mappings are kept");
  }
}

// Error 300 names another server. It is not followed: without authentication anybody on the way could send the device's
// requests, and with them its mappings, wherever he likes.
void Diagnosis::Refused(const Endpoint& server, const Answer& answer, TimePoint now) {
  std::string text = "server " + EndpointText(server);
  if (answer.kind != Answer::Kind::REFUSED) {
    text += " answers without a usable address";
  } else if (answer.errorCode == kTryAlternate) {
    text += " refers to another server (error 300), which is not followed: configure that server instead";
  } else {
    text += " refuses with error " + std::to_string(answer.errorCode);
  }
  Fails(server);
  Problem({text, server}, now);
}

void Diagnosis::Mapped(u16 port, const Endpoint& server, TimePoint now) {
  m_reportedUnavailable.erase(port);
  std::erase_if(m_problems, [&](const auto& problem) {
    const std::optional<Endpoint>& refuser = problem.first.second;
    return refuser ? *refuser == server && problem.second + kRefusalCalm * m_period <= now
                   : problem.second + kCalm <= now;
  });
  if (m_silent.erase(server) != 0) {
    Report("server " + EndpointText(server) + " answers again");
  } else if (m_asked && *m_asked != server) {
    Report("server " + EndpointText(server) + " is asked instead");
  }
  m_asked = server;
}

void Diagnosis::NatMaps(NatMapping how, const Endpoint& mapped, const Endpoint& server, const Arrival& other) {
  const bool isDifferent = how == NatMapping::DIFFERENT;
  const std::string port = "the NAT maps port " + std::to_string(other.port);
  if (isDifferent && !m_isReportedDifferent) {
    Report(port + " differently for each destination: " + EndpointText(mapped) + " toward " + EndpointText(server) +
           ", " + EndpointText(other.answer.mapped) + " toward " + EndpointText(other.source) +
           "; what is learnt holds for the server alone");
  } else if (!isDifferent && m_isReportedDifferent) {
    Report(port + " the same way for each destination: what is learnt holds for others than the server again");
  }
  m_isReportedDifferent = isDifferent;
}

void Diagnosis::Unsettled(std::optional<u16> port, TimePoint now) {
  if (port && !m_lastUnsettled) {
    Report("the mapping of port " + std::to_string(*port) +
           " does not settle: nearly each answer shows another; the last that was seen twice in a row is used");
  }
  if (port) {
    m_lastUnsettled = now;
  } else if (m_lastUnsettled && *m_lastUnsettled + m_calmPeriods * m_period <= now) {
    m_lastUnsettled.reset();
    m_calmPeriods = std::min(2 * m_calmPeriods, kLongestCalm);
    Report("mappings settle again");
  }
}

void Diagnosis::Unavailable(u16 port, int error, TimePoint now) {
  const auto reported = m_reportedUnavailable.find(port);
  if (reported == m_reportedUnavailable.end() || reported->second != error) {
    m_reportedUnavailable[port] = error;
    m_unavailable[error].insert(port);
    m_unavailableSince = m_unavailableSince.value_or(now);
  }
}

void Diagnosis::ReportUnavailable(TimePoint now, bool isComplete) {
  if (!m_unavailableSince || (!isComplete && now - *m_unavailableSince < kTogether)) {
    return;
  }
  for (const auto& [error, ports] : m_unavailable) {
    Report(error == EADDRINUSE
               ? "these ports are in use and cannot be learnt without CAP_NET_RAW: " + Ranges(ports)
               : "these ports cannot be bound (" + std::generic_category().message(error) + "): " + Ranges(ports));
  }
  m_unavailable.clear();
  m_unavailableSince.reset();
}

TimePoint Diagnosis::NextDeadline() const {
  return m_unavailableSince ? *m_unavailableSince + kTogether : TimePoint::max();
}

}  // namespace stun
