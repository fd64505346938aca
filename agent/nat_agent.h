#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <span>
#include <string>

#include "agent/counters.h"
#include "agent/health.h"
#include "agent/host.h"
#include "agent/nat_log_out.h"
#include "agent/natagent.h"
#include "agent/run_link.h"
#include "agent/settings_lock.h"
#include "nat/nat_config_manager.h"
#include "nat/nat_exc_table.h"
#include "nat/nat_records.h"
#include "nat/qor_mapping_storage.h"
#include "nat/settings_state.h"
#include "platform/vxnetutils/route_helper.h"
#include "platform/vxsysutils/thread_event.h"
#include "platform/vxsysutils/thread_mutex.h"
#include "resolver/name_queue.h"
#include "rtp/reverse_nat_manager.h"
#include "stun/stun_manager_wrapper.h"

class NatAgentMessenger;
class NatCAMessenger;

// The agent: one object, the global _NatAgent, that owns every part and answers every request.
//
// Threads: the agent thread runs Start, the main loop (so every request and periodic check) and Stop. Operations belong
// to the agent thread inside a turn of the main loop, which holds the settings lock, unless their comment says
// otherwise. The members are in the order in which they are made and, backwards, destroyed.
class NATAGENT_EXPORT NatAgent {
 public:
  NatAgent();
  // Ends a running main loop first, then stops and tears down.
  ~NatAgent();
  NatAgent(const NatAgent&) = delete;
  NatAgent& operator=(const NatAgent&) = delete;

  bool Init();
  // Brings the agent up and runs the main loop; returns when the agent has stopped. False when the loop could not run:
  // the journal says why, nothing is left behind, and the next Start tries again.
  bool Start();
  // Takes the agent down. On the agent thread after the main loop, or without one. Always true.
  bool Stop();

  // Ends the main loop; false when there is none. Any thread.
  bool StopMessenger();
  // The same for a loop that may not have begun yet: it then ends at its first turn. Any thread.
  void RequestStop();
  // Takes a request back: the run that it was for has ended.
  void ForgetStopRequest() { m_stopRequested = false; }
  bool IsStopRequested() const { return m_stopRequested; }

  // The uplink's address in network byte order, 0 when unknown; the route is asked when none is stored.
  unsigned long GetUpLinkIp() NAT_REQUIRES(g_settingsLock);
  // True after handling a flagged route change.
  bool CheckIpChanges() NAT_REQUIRES(g_settingsLock);

  // The host's question whether the agent lives, see host.h: asked on any thread (false: no run), answered in a turn.
  bool ReadHealth(NatHostHealth& health);
  void AnswerHealth() NAT_REQUIRES(g_settingsLock);

  // Signalling. GetCSNatSettings: false, with the flag untouched, when it cannot decide.
  bool GetCSNatSettings(const u64& queryId, const u32& destIp, const CA_PROTO& proto, NatSetting& setting,
                        NatFlag& flag) NAT_REQUIRES(g_settingsLock);
  u32 OnRequestCSNatMapping(const u64& queryId, const u32& destIp, const NatItem& item, const CA_PROTO& proto,
                            const NatPortType& portType) NAT_REQUIRES(g_settingsLock);
  u32 OnRequestCSNatMapping(const u64& queryId, const u32& destIp, const std::list<NatItem>& items,
                            const CA_PROTO& proto) NAT_REQUIRES(g_settingsLock);

  // Media. proto is the asking channel's protocol, csProto the call server's; GetGwNatSettings takes the latter.
  // False, with the flag untouched, when the remote address has no route.
  bool GetGwNatSettings(const u64& queryId, const u32& remoteIp, const CA_PROTO& proto, NatSetting& setting,
                        NatFlag& flag) NAT_REQUIRES(g_settingsLock);
  u32 OnRequestRTPNatMapping(const u64& queryId, const u32& remoteIp, const std::list<NatItem>& items,
                             const CA_PROTO& proto, const u32& csProto) NAT_REQUIRES(g_settingsLock);

  // Reverse look-ups, and the end of a query id.
  u32 OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items, const CA_PROTO& proto,
                                    const u32& value);
  bool GetRevGwNatSettings(NatSetting& setting, NatFlag& flag);
  bool CloseRTPNatMapping(const u64& queryId);

  // Requests for a host name wait here until the resolver thread has looked it up.
  bool SetQueryforResolve(const u64& queryId, const std::string& hostName, const std::list<NatItem>& items,
                          const NatPortType& portType, const CA_PROTO& proto, const CA_PROTO& csProto);
  // Has a name looked up that no request waits for. Part of the device's interface: the agent queues its own otherwise.
  bool ResolveHostName(const std::string& hostName);
  // Issues the requests again whose names have been resolved; false when nothing was flagged.
  bool CheckIsResolvedHostName() NAT_REQUIRES(g_settingsLock);

  // The party of a channel is gone, or at the end of a run every party: nobody waits for their names any more.
  void LeaveBehind(const CA_PROTO& proto);
  void LeaveAllBehind();

  // Tells the call agents that the public side of signalling ports changed. Any thread while the agent runs.
  bool NotifyToCSNatChanges(const CA_PROTO& proto);

  // A turn of the main loop, whose messages were received before it: routes are checked for changes once in it.
  void BeginTurn() NAT_REQUIRES(g_settingsLock) { m_routeHelper.BeginTurn(); }
  void EndTurn() NAT_REQUIRES(g_settingsLock) { m_routeHelper.EndTurn(); }

  // What a host reads, see host.h: results as there, each within one short hold of the settings lock. Any thread.
  int ReadStatus(NatHostStatus& status) NAT_EXCLUDES(g_settingsLock);
  int Explain(const NatHostQuestion& question, NatHostExplanation& explanation) NAT_EXCLUDES(g_settingsLock);
  int ListNames(NatHostPlace& place, std::span<NatHostName> rows) NAT_REQUIRES(g_settingsLock);
  const ReverseNatManager& Calls() const NAT_REQUIRES(g_settingsLock) { return m_reverseNat; }
  // From the next start on; empty: where the environment says.
  void UseLogDir(std::string dir) NAT_EXCLUDES(g_settingsLock);

  // The log, or one that writes nowhere while the agent does not run.
  NatLogOut& Log() { return m_log != nullptr ? *m_log : m_noLog; }

 protected:
  bool IsCAOnLine(const CA_PROTO& proto);
  bool IsOnLineCSAgent();
  bool IsCorrectAddInfo(const unsigned long& value);
  bool GetMappedQorPort(NatSetting& setting);

 public:
  // Made by Start, destroyed by Stop, null in between.
  NatConfigManager* m_configManager NAT_GUARDED_BY(g_settingsLock);
  QorMappingStorage* m_qorStorage NAT_GUARDED_BY(g_settingsLock);
  NatLogOut* m_log;  // changed on the agent thread while no other thread of the run exists

  StunManagerWrapper m_stunWrapper;
  NatExcTable m_excTable;
  SettingsState m_settings NAT_GUARDED_BY(g_settingsLock);
  std::atomic<u64> m_changedMappings = 0;  // that STUN told of
  Counters m_counters;                     // turns of the main loop; read under the settings lock
  NatAgentMessenger* m_messenger;          // agent thread; other threads reach it through m_run

 private:
  friend unsigned long IpUpDownInformer(void* run);
  friend unsigned long HostNameResolver(void* run);

  NatCAMessenger* ChannelOf(const CA_PROTO& proto);

  // The decisions alone, with their reasons (NAT_WHY_...): nothing is logged or recorded, and to EXPLAIN nothing is
  // asked of STUN.
  using Purpose = QorMappingStorage::Purpose;
  u32 DecideCS(u32 destIp, CA_PROTO proto, NatSetting& setting, Purpose purpose) NAT_REQUIRES(g_settingsLock);
  u32 DecideGw(u32 remoteIp, CA_PROTO callServer, NatSetting& setting, Purpose purpose) NAT_REQUIRES(g_settingsLock);
  // Why no mapping belongs to a local address.
  u32 WhyNoGw() NAT_REQUIRES(g_settingsLock);
  // Decides, logs and records.
  u32 HandOutGw(u64 queryId, u32 remoteIp, CA_PROTO callServer, NatSetting& setting) NAT_REQUIRES(g_settingsLock);
  // In the journal, once until media settings are loaded again.
  void TellMediaMiss(CA_PROTO party) NAT_REQUIRES(g_settingsLock);

  // Issues a request again, now that its destination is known, whatever is thrown meanwhile.
  void Reissue(const ResolveQuery& query, u32 address) NAT_REQUIRES(g_settingsLock);
  // Queues the list's only name for a channel's party.
  void QueueName(NameList& name, const CA_PROTO& proto);
  // The request waits no more; its name does until its look-up.
  void GiveUpName(const ResolveQuery& query) NAT_REQUIRES(m_resolveEvent);
  // Drops what gone parties left beyond the bounds, the oldest first.
  void DropBeyondBounds() NAT_REQUIRES(m_resolveEvent);
  // Compares the uplink's address with the route's and reacts.
  void FollowUplink() NAT_REQUIRES(g_settingsLock);
  // The current run, or none. Any thread.
  std::shared_ptr<RunLink> CurrentRun();
  // The run's parts, made in order; and destroyed.
  void CreateParts();
  void DestroyParts();
  void StartWorkers();
  // Starts a thread whose argument is the current run; null when there is none.
  void* BeginWorker(unsigned long (*function)(void*));
  void StopWorkers();

  RouteHelper m_routeHelper;
  ThreadMutex m_watchMutex;  // held while route changes are waited for
  ReverseNatManager m_reverseNat;

 public:
  std::atomic<u32> m_upLinkIp;  // network byte order; 0: unknown

 private:
  NameQueue m_namesToResolve NAT_GUARDED_BY(m_resolveEvent);
  ThreadEvent m_resolveEvent;
  void* m_resolverThread;
  void* m_ipWatchThread;
  NameList m_resolvedNames NAT_GUARDED_BY(m_resolvedMutex);  // oldest first
  ThreadMutex m_resolvedMutex;
  std::list<ResolveQuery> m_pendingQueries;  // agent thread only
  std::atomic<bool> m_routeChanged;
  std::atomic<bool> m_namesResolved;
  std::atomic<bool> m_running;

  std::atomic<bool> m_stopRequested = false;
  NatLogOut m_noLog{nullptr};
  Health m_health;
  ThreadMutex m_runMutex;
  std::shared_ptr<RunLink> m_run NAT_GUARDED_BY(m_runMutex);
  u32 m_toldUplink NAT_GUARDED_BY(g_settingsLock) = 0;  // to the host
  std::string m_logDir NAT_GUARDED_BY(g_settingsLock);
  std::int64_t m_startedAt NAT_GUARDED_BY(g_settingsLock) = 0;  // milliseconds since 1970
};

// The worker threads' functions. The argument is the run that the thread was started for (RunLink::Take), and through
// it the agent: a thread whose first step comes after its run has ended must not take part in the next one.
unsigned long IpUpDownInformer(void* run);
unsigned long HostNameResolver(void* run);

extern NATAGENT_EXPORT NatAgent _NatAgent;
