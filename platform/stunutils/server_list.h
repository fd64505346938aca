#pragma once

#include <algorithm>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/stunutils/diagnosis.h"
#include "platform/stunutils/message.h"
#include "platform/stunutils/stun_manager.h"
#include "platform/stunutils/timing.h"

namespace stun {

// The servers and their addresses, in their order, of which one is asked at a time.
class ServerList {
 public:
  // Addresses beyond are reported and not used. Also as many as a transport listens to.
  static constexpr std::size_t kMost = 32;

  explicit ServerList(Diagnosis& diagnosis) : m_diagnosis(diagnosis) {}

  // Replaces the servers; each text may hold several, see stun_manager.h. What cannot be a server (no name, a port
  // outside 1 to 65535) is reported and left out. Servers that stay keep their addresses; the one being
  // asked stays when it is still among them. False when the same servers were configured before.
  bool Configure(const std::list<StunServInfo>& servers);

  // Begins with the first server, and looks the names up again; a look-up under way is forgotten.
  void Restart();

  bool IsEmpty() const { return m_servers.empty(); }

  // Names to be looked up now, none twice; empty when none is due or a look-up is under way.
  std::vector<std::string> NamesToLookUp(TimePoint now);
  using Addresses = std::map<std::string, std::vector<u32>>;
  // The outcome of the look-up. A name without an address keeps those it had, and a server that is heard is kept until
  // it fails: a name may have other addresses at each look-up.
  void LookedUp(const Addresses& found, TimePoint now);
  TimePoint NextDeadline() const { return m_isLookingUp ? TimePoint::max() : m_nextLookUp; }

  // The server to ask; none while no address is known.
  std::optional<Endpoint> Current() const;
  // Another than the current one, for comparison; with another number another one.
  std::optional<Endpoint> Second(std::size_t number) const;
  const std::vector<Endpoint>& All() const { return m_endpoints; }

  // The current server is of no use: on to the next, round the list.
  void Next();
  // Whether Next leads to one that has not been tried since one of them was heard.
  bool HasUntried() const;
  // Whether the current one is such.
  bool IsUntried() const { return !m_endpoints.empty() && !m_tried.contains(m_endpoints[m_current]); }
  void Heard();
  // The addresses may be out of date: names are looked up again.
  void Refresh(TimePoint now) { m_nextLookUp = std::min(m_nextLookUp, now); }

 private:
  static constexpr Millis kFirstRetry{2000};

  struct Server {
    std::string host;
    u16 port = 0;
    bool isName = false;
    bool isReportedMissing = false;  // that it has no address
    std::vector<u32> addresses;
  };

  void Append(const std::string& text, const std::string& defaultPort);
  void Collect(const std::optional<Endpoint>& kept);

  Diagnosis& m_diagnosis;
  std::optional<std::list<StunServInfo>> m_configured;
  std::vector<Server> m_servers;
  std::vector<Endpoint> m_endpoints;
  std::size_t m_current = 0;
  bool m_isHeard = false;      // the current one, since it became that
  std::set<Endpoint> m_tried;  // in vain, since one was heard
  bool m_isReportedTooMany = false;
  bool m_isLookingUp = false;
  Millis m_retry = kFirstRetry;  // after the next look-up that fails
  TimePoint m_nextLookUp = TimePoint::max();
};

}  // namespace stun
