#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/stunutils/message.h"
#include "platform/stunutils/timing.h"

namespace stun {

// What the journal is told of one run: each trouble once and again only after it had gone, a refusal and a NAT's
// different mappings once in all. Lines are collected and written by Write, so that nothing is written while a lock is
// held. One thread.
class Diagnosis {
 public:
  void NoServer() { m_lines.emplace_back("there is no server to ask"); }
  void Silent(const Endpoint& server);
  void Refused(const Endpoint& server, const Answer& answer);
  void Mapped(u16 port, const Endpoint& server);
  void SendFailed(int error);
  // The same port has two mappings, toward two servers.
  void Differs(u16 port, const Endpoint& mapped, const Endpoint& server, const Endpoint& otherMapped,
               const Endpoint& otherServer);

  // The port is in use. Told together with others that are found within a moment, or when `isComplete`.
  void Unavailable(u16 port, TimePoint now);
  void TellUnavailable(TimePoint now, bool isComplete);
  TimePoint NextDeadline() const;

  void Write();

 private:
  std::vector<std::string> m_lines;
  bool m_isToldSilent = false;
  bool m_isToldRefused = false;
  bool m_isToldDifferent = false;
  int m_toldError = 0;
  std::set<u16> m_toldUnavailable;
  std::set<u16> m_unavailable;  // yet to be told
  std::optional<TimePoint> m_unavailableSince;
};

}  // namespace stun
