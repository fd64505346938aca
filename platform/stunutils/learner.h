#pragma once

#include <atomic>
#include <optional>
#include <vector>

#include "platform/stunutils/diagnosis.h"
#include "platform/stunutils/name_look_up.h"
#include "platform/stunutils/nat_check.h"
#include "platform/stunutils/port_table.h"
#include "platform/stunutils/schedule.h"
#include "platform/stunutils/server_list.h"
#include "platform/stunutils/timing.h"
#include "platform/stunutils/transport.h"
#include "platform/unique_fd.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace stun {

// What the manager's callers and its thread share. The lock is held briefly, never while anything is
// waited for, sent or called back.
struct Shared {
  Shared();

  ThreadMutex lock;
  PortTable table NAT_GUARDED_BY(lock);
  Schedule schedule NAT_GUARDED_BY(lock);
  Settings settings NAT_GUARDED_BY(lock);
  u32 settingsVersion NAT_GUARDED_BY(lock) = 1;
  StunManager::ChangedPortsCallback callback NAT_GUARDED_BY(lock) = nullptr;
  void* context NAT_GUARDED_BY(lock) = nullptr;
  bool stop NAT_GUARDED_BY(lock) = false;

  std::atomic<bool> scanWanted{false};
  const UniqueFd wake;  // an eventfd

  // The thread looks at all of the above again. Any thread.
  void Wake() const;
};

// Learns from one local address from construction on, on the thread that calls Run. What it is working on is its own;
// ports, mappings and settings are shared and outlive it.
class Learner {
 public:
  Learner(Shared& shared, std::unique_ptr<Transport> transport);

  // Works until `stop` is set.
  void Run();

 private:
  struct Arrival {
    u16 port = 0;
    Endpoint source;
    Answer answer;
  };

  bool TakeTurn();
  void Wait();
  void Receive();
  void TakeSettings();
  void TendServers(TimePoint now);
  void ChooseServer() NAT_REQUIRES(m_shared.lock);
  void HeedAnswer(const Arrival& arrival, TimePoint now) NAT_REQUIRES(m_shared.lock);
  void HeedMapping(const Arrival& arrival, TimePoint now) NAT_REQUIRES(m_shared.lock);
  void HeedRefusal(const Arrival& arrival, TimePoint now) NAT_REQUIRES(m_shared.lock);
  void HeedComparison(const Arrival& arrival) NAT_REQUIRES(m_shared.lock);
  void HeedSilence(TimePoint now);
  void Transmit(TimePoint now);
  void Settle(TimePoint now);
  void ReportChanges();

  Shared& m_shared;
  const std::unique_ptr<Transport> m_transport;
  u32 m_settingsVersion = 0;
  Timing m_timing;
  ServerList m_servers;
  NameLookUp m_lookUp;
  NatCheck m_natCheck;
  Diagnosis m_diagnosis;
  bool m_isStartingOver = true;  // with the next server every port is due
  std::optional<TimePoint> m_changedSince;
  TimePoint m_deadline = TimePoint::min();

  // Of one turn. The server is the one that what is in flight was sent to.
  std::vector<Arrival> m_arrivals;
  Schedule::Turn m_turn;
  std::optional<Endpoint> m_server;
  std::vector<u16> m_refused;
  bool m_isReportDue = false;
};

}  // namespace stun
