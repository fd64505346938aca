#pragma once

#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/stunutils/diagnosis.h"
#include "platform/stunutils/nat_check.h"
#include "platform/stunutils/port_table.h"
#include "platform/stunutils/schedule.h"
#include "platform/stunutils/server_list.h"
#include "platform/stunutils/timing.h"

namespace stun {

// Learns the mappings of the registered ports: it knows what to send, what an answer means and what to report. It reads
// no clock and has no thread, lock or socket. Ports, mappings and problems survive a new Begin.
class Learner {
 public:
  explicit Learner(const Random& random) : m_schedule(random), m_servers(m_diagnosis), m_natCheck(random) {}
  Learner(const Learner&) = delete;
  Learner& operator=(const Learner&) = delete;

  void AddPort(u16 port, u8 owner, bool isMedia);
  void RemovePort(u16 port);
  void RemoveAllPorts();
  Mapping Find(u16 port) const { return m_table.Find(port); }
  // What was answered of a registered port before the present mapping, if anything.
  std::optional<Endpoint> Before(u16 port) const;
  bool Has(u16 port) const { return m_table.Has(port); }
  std::size_t Size() const { return m_table.Size(); }
  std::size_t KnownSize() const { return m_table.KnownSize(); }
  // Fills what is known of the registered port of this number, or of the next one above; false beyond the last.
  bool Describe(u32 port, StunPort& description, TimePoint now) const;
  // The server that is asked, if any, and how it stands.
  std::pair<std::optional<Endpoint>, ServerState> Server() const { return {m_server, m_schedule.Server()}; }
  NatMapping Nat() const { return m_natCheck.Conclusion(); }

  // Starts learning over a new transport, or over a turn that found no memory. From another local address than before,
  // known mappings are only kept to be compared with the next ones.
  void Begin(bool takesPorts, bool isElsewhere, TimePoint now);
  // Other servers and numbers.
  void Configure(const Settings& settings, TimePoint now);

  void Scan(TimePoint now) { m_schedule.Scan(now); }
  void LookedUp(const ServerList::Addresses& found, TimePoint now);
  void Handle(const Arrival& arrival, TimePoint now);

  // What is to be done now, in this order.
  struct Turn {
    bool areServersNew = false;      // datagrams of Servers() are of interest, others are not
    std::vector<std::string> names;  // to be looked up
    std::vector<u16> ended;          // ports that await nothing any more
    std::vector<Order> sends;
  };
  Turn Advance(TimePoint now);
  const std::vector<Endpoint>& Servers() const { return m_servers.All(); }
  // What came of the sends: the port cannot be used, an errno; the network refused datagrams, an errno.
  void Unavailable(u16 port, int error, TimePoint now);
  void SendFailed(int error, TimePoint now);
  // Learning cannot begin.
  void Problem(const std::string& text, TimePoint now) { m_diagnosis.Problem(text, now); }

  // What there is to report once the sends are done.
  std::list<std::pair<u16, u16>> TakeChanges(TimePoint now);
  std::vector<std::string> TakeLines(TimePoint now);
  // When to call Advance again at the latest.
  TimePoint NextDeadline() const;

 private:
  void StartOver(TimePoint now);
  void ChooseServer(TimePoint now);
  void FollowAdvice(TimePoint now);
  void HandleMapping(const Arrival& arrival, TimePoint now);
  void HandleComparison(const Arrival& arrival, TimePoint now);
  void SpreadDoubt(TimePoint now);
  void BeginComparison(u16 port, TimePoint now);
  void EndComparison(TimePoint now);
  bool IsReportDue(TimePoint now) const;

  Diagnosis m_diagnosis;
  PortTable m_table;
  Schedule m_schedule;
  ServerList m_servers;
  NatCheck m_natCheck;
  Settings m_settings;
  Timing m_timing;
  bool m_takesPorts = false;
  bool m_areServersNew = true;
  std::optional<Endpoint> m_server;  // in-flight requests were sent to it
  std::optional<TimePoint> m_changedSince;
  TimePoint m_lastReport{};
  TimePoint m_doubtSince{};  // of other ports' mappings
  std::vector<u16> m_ended;
};

}  // namespace stun
