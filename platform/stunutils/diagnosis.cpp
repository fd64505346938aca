#include "platform/stunutils/diagnosis.h"

#include <system_error>

#include "platform/stunutils/diagnostics.h"

namespace stun {
namespace {

constexpr Millis kTogether{1000};

}  // namespace

void Diagnosis::Silent(const Endpoint& server) {
  if (!m_isToldSilent) {
    m_isToldSilent = true;
    m_lines.push_back("server " + EndpointText(server) + " does not answer; known mappings are kept");
  }
}

void Diagnosis::Refused(const Endpoint& server, const Answer& answer) {
  if (!m_isToldRefused) {
    m_isToldRefused = true;
    m_lines.push_back("server " + EndpointText(server) +
                      (answer.kind == Answer::Kind::REFUSED ? " refuses with error " + std::to_string(answer.errorCode)
                                                            : " answers without a usable address"));
  }
}

void Diagnosis::Mapped(u16 port, const Endpoint& server) {
  m_toldUnavailable.erase(port);
  m_toldError = 0;
  if (m_isToldSilent) {
    m_isToldSilent = false;
    m_lines.push_back("server " + EndpointText(server) + " answers again");
  }
}

void Diagnosis::SendFailed(int error) {
  if (error != m_toldError) {
    m_toldError = error;
    m_lines.push_back("cannot send: " + std::generic_category().message(error));
  }
}

void Diagnosis::Differs(u16 port, const Endpoint& mapped, const Endpoint& server, const Endpoint& otherMapped,
                        const Endpoint& otherServer) {
  if (!m_isToldDifferent) {
    m_isToldDifferent = true;
    m_lines.push_back("the NAT maps port " + std::to_string(port) + " differently for each destination: " +
                      EndpointText(mapped) + " toward " + EndpointText(server) + ", " + EndpointText(otherMapped) +
                      " toward " + EndpointText(otherServer) + "; what is learnt holds for the server alone");
  }
}

void Diagnosis::Unavailable(u16 port, TimePoint now) {
  if (m_toldUnavailable.insert(port).second) {
    m_unavailable.insert(port);
    m_unavailableSince = m_unavailableSince.value_or(now);
  }
}

void Diagnosis::TellUnavailable(TimePoint now, bool isComplete) {
  if (!m_unavailableSince || (!isComplete && now - *m_unavailableSince < kTogether)) {
    return;
  }
  std::string text = "these ports are in use and cannot be learnt without CAP_NET_RAW:";
  for (auto at = m_unavailable.begin(); at != m_unavailable.end();) {
    const u16 first = *at;
    u16 last = first;
    while (++at != m_unavailable.end() && *at == last + 1) {
      last = *at;
    }
    text += " " + std::to_string(first);
    if (last != first) {
      text += "-" + std::to_string(last);
    }
  }
  m_lines.push_back(std::move(text));
  m_unavailable.clear();
  m_unavailableSince.reset();
}

TimePoint Diagnosis::NextDeadline() const {
  return m_unavailableSince ? *m_unavailableSince + kTogether : TimePoint::max();
}

void Diagnosis::Write() {
  for (const std::string& line : m_lines) {
    Notice(line);
  }
  m_lines.clear();
}

}  // namespace stun
