// What a host reads of the running agent. Each call copies a bounded number of rows under one hold of the settings
// lock.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "agent/library_state.h"
#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"
#include "nat/reasons.h"
#include "platform/messaging/runtime_dir.h"

namespace {

// Rows copied in one hold. A row of the RTP table costs a search in it, others a step or a search in a small table.
constexpr std::size_t kCallRows = 8;
constexpr std::size_t kRows = 16;
// Requests that wait for names form a list, which is walked from its beginning.
constexpr u64 kMaxNames = 512;

// The settings lock, taken without standing in the way of the agent or of a reload, which are not delayed by one that
// waits so; and given up on, so that a hung agent holds nobody else.
class BriefLock {
 public:
  BriefLock() NAT_NO_THREAD_SAFETY_ANALYSIS {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (!(m_isHeld = g_settingsLock.TryLock()) && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
  ~BriefLock() NAT_NO_THREAD_SAFETY_ANALYSIS {
    if (m_isHeld) {
      g_settingsLock.Unlock();
    }
  }
  BriefLock(const BriefLock&) = delete;
  BriefLock& operator=(const BriefLock&) = delete;

  bool IsHeld() const { return m_isHeld; }

 private:
  bool m_isHeld = false;
};

// Runs `read` with the lock, while the agent runs. What it returns, or a negative errno value.
template <class Read>
int WithAgent(Read read) noexcept NAT_NO_THREAD_SAFETY_ANALYSIS {
  try {
    const BriefLock lock;
    if (!lock.IsHeld()) {
      return -EBUSY;
    }
    return _NatAgent.m_qorStorage == nullptr ? -ESRCH : read();
  } catch (...) {
    return -ENOMEM;
  }
}

// Copies as much of a structure as its caller knows. The size stays.
template <class Row>
void Give(Row& to, const Row& from) {
  std::memcpy(reinterpret_cast<char*>(&to) + sizeof(size_t), reinterpret_cast<const char*>(&from) + sizeof(size_t),
              std::min(to.size, sizeof(Row)) - sizeof(size_t));
}

// Lists at most kMost rows of the library's own size by `fill(place, rows)`, and hands them to the caller's, which may
// be smaller or larger.
template <std::size_t kMost, class Row, class Fill>
int List(NatHostPlace* place, Row* rows, std::size_t count, Fill fill) {
  if (place == nullptr || rows == nullptr || count == 0 || rows[0].size < sizeof(size_t)) {
    return -EINVAL;
  }
  const std::size_t size = rows[0].size;
  Row found[kMost] = {};
  const std::span<Row> wanted(found, std::min(count, kMost));
  const int result = WithAgent([&] { return static_cast<int>(fill(*place, wanted)); });
  for (int i = 0; i < result; ++i) {
    Row& row = *reinterpret_cast<Row*>(reinterpret_cast<char*>(rows) + static_cast<std::size_t>(i) * size);
    row.size = size;
    Give(row, found[i]);
  }
  return result;
}

// The same for tables that are read by number, one row after the other.
template <class Row, class Fill>
int ListByNumber(NatHostPlace* place, Row* rows, std::size_t count, Fill fill) {
  return List<kRows>(place, rows, count, [&fill](NatHostPlace& at, std::span<Row> to) {
    std::size_t done = 0;
    while (done < to.size() && fill(at.at, to[done])) {
      ++at.at;
      ++done;
    }
    return done;
  });
}

template <class Struct, class Read>
int ReadOne(Struct* to, Read read) {
  if (to == nullptr || to->size < sizeof(size_t)) {
    return -EINVAL;
  }
  Struct found{};
  const int result = WithAgent([&] { return read(found); });
  if (result == 0) {
    Give(*to, found);
  }
  return result;
}

void Describe(const StunPort& port, NatHostPort& row) {
  row.port = port.port;
  row.is_media = port.isMedia ? 1 : 0;
  row.is_unsettled = port.isUnsettled ? 1 : 0;
  row.mapped = {port.mappedIp, port.mappedPort};
  row.server = {port.serverIp, port.serverPort};
  row.age = port.ageMs;
  row.next = port.nextMs;
}

std::size_t ListPorts(NatHostPlace& place, std::span<NatHostPort> rows) NAT_REQUIRES(g_settingsLock) {
  StunManager* const manager = _NatAgent.m_stunWrapper.Manager();
  StunPort ports[kRows];
  const auto from = static_cast<u32>(std::min<u64>(place.at, UINT16_MAX + 1U));
  const std::size_t count =
      manager == nullptr ? 0 : manager->ListPorts(from, {ports, std::min(rows.size(), std::size(ports))});
  for (std::size_t i = 0; i < count; ++i) {
    Describe(ports[i], rows[i]);
    place.at = ports[i].port + 1U;
  }
  return count;
}

CA_PROTO ProtocolOf(int queue) {
  constexpr u32 kProtocols[] = {CA_PROTO_SIP, 2, CA_PROTO_CM, CA_PROTO_CC};
  return static_cast<CA_PROTO>(kProtocols[queue - 112]);
}

// Every counter has a number.
struct CounterCell {
  u32 what = 0;
  int queue = 0;
  u32 kind = 0;
  u32 reason = 0;
};

u64 ValueOf(const CounterCell& cell, const messaging::QueueState& queue) NAT_REQUIRES(g_settingsLock) {
  const Counters& counters = _NatAgent.m_counters;
  const bool isCgi = cell.queue == 102;
  switch (cell.what) {
    case NAT_COUNT_REQUESTS:
      if (isCgi) {
        return cell.kind == KIND_UPDATE ? counters.updates : 0;
      }
      return counters.requests[ProtocolOf(cell.queue)][cell.kind];
    case NAT_COUNT_ITEMS:
      return isCgi ? 0 : counters.items[ProtocolOf(cell.queue)][cell.kind][cell.reason];
    case NAT_COUNT_REFUSALS:
      return queue.refusals[cell.reason];
    case NAT_COUNT_UNDELIVERED:
      return queue.undelivered;
    case NAT_COUNT_DROPPED:
      return queue.dropped;
    default:
      return 0;
  }
}

// The non-zero counters of one queue, from the place's number within on.
std::size_t ListOfQueue(int number, u64& within, std::span<NatHostCounter> rows) NAT_REQUIRES(g_settingsLock) {
  constexpr struct {
    u32 what;
    u32 kinds;
    u32 reasons;
  } kBlocks[] = {{NAT_COUNT_REQUESTS, Counters::kKinds, 1},
                 {NAT_COUNT_ITEMS, Counters::kKinds, NAT_HOST_MAX_WHY},
                 {NAT_COUNT_REFUSALS, 1, messaging::QueueState::kReasons},
                 {NAT_COUNT_UNDELIVERED, 1, 1},
                 {NAT_COUNT_DROPPED, 1, 1}};
  messaging::QueueState queue;
  _NatAgent.m_messenger->ReadQueue(number, queue);
  std::size_t count = 0;
  u64 begin = 0;
  for (const auto& block : kBlocks) {
    const u64 end = begin + u64{block.kinds} * block.reasons;
    for (; within < end && count < rows.size(); ++within) {
      if (within < begin) {
        within = begin;
      }
      const u32 cell = static_cast<u32>(within - begin);
      const CounterCell which{block.what, number, cell / block.reasons, cell % block.reasons};
      if (const u64 value = ValueOf(which, queue)) {
        rows[count++] = {sizeof(NatHostCounter), which.what, number, which.kind, which.reason, value};
      }
    }
    begin = end;
  }
  return count;
}

std::size_t ListCounters(NatHostPlace& place, std::span<NatHostCounter> rows) NAT_REQUIRES(g_settingsLock) {
  std::size_t count = 0;
  for (; place.at < std::size(messaging::kQueues); ++place.at, place.within = 0) {
    count += ListOfQueue(messaging::kQueues[place.at].number, place.within, rows.subspan(count));
    if (count == rows.size()) {
      return count;
    }
  }
  const NatHostCounter others[] = {
      {sizeof(NatHostCounter), NAT_COUNT_NAMES, 0, 0, 0, _NatAgent.m_counters.names[0]},
      {sizeof(NatHostCounter), NAT_COUNT_NAMES, 0, 0, 1, _NatAgent.m_counters.names[1]},
      {sizeof(NatHostCounter), NAT_COUNT_CHANGES, 0, 0, 0, _NatAgent.m_changedMappings},
  };
  for (; place.at < std::size(messaging::kQueues) + std::size(others) && count < rows.size(); ++place.at) {
    const NatHostCounter& other = others[place.at - std::size(messaging::kQueues)];
    if (other.value != 0) {
      rows[count++] = other;
    }
  }
  return count;
}

}  // namespace

int NatAgent::ReadStatus(NatHostStatus& status) {
  return WithAgent([&]() NAT_NO_THREAD_SAFETY_ANALYSIS {
    u32 address = 0;
    u32 gateway = 0;
    if (m_routeHelper.GetOutInterface(0, address, gateway)) {
      status.uplink_ip = address;
      status.uplink_gateway = gateway;
    }
    status.started = m_startedAt;
    status.signalling = m_settings.signalling.state;
    status.signalling_since = m_settings.signalling.since;
    status.media = m_settings.media.state;
    status.media_since = m_settings.media.since;
    status.exclusions_since = m_settings.exclusionsSince;
    status.calls = m_reverseNat.OpenIds();
    status.exclusions = m_excTable.Size();
    status.names = m_pendingQueries.size();
    if (StunManager* const manager = m_stunWrapper.Manager()) {
      const StunServerState server = manager->GetServer();
      status.stun_state = static_cast<u32>(server.state) + 1;
      status.stun_server = {server.ip, server.port};
      status.stun_nat = static_cast<u32>(manager->GetNatMapping());
      manager->CountPorts(status.stun_ports, status.stun_ports_learnt);
    }
    return 0;
  });
}

int NatAgent::ListNames(NatHostPlace& place, std::span<NatHostName> rows) {
  constexpr int kQueues[] = {114, 112, 113, 115};  // by protocol
  auto query = std::next(m_pendingQueries.begin(),
                         static_cast<std::ptrdiff_t>(std::min<u64>({place.at, m_pendingQueries.size(), kMaxNames})));
  std::size_t count = 0;
  for (; query != m_pendingQueries.end() && count < rows.size() && place.at < kMaxNames; ++query, ++place.at) {
    NatHostName& row = rows[count++];
    row.id = query->queryId;
    row.queue = kQueues[query->proto & 3U];
    row.items = static_cast<u32>(query->items.size());
    row.is_left = query->name->request.HasParty() ? 0 : 1;
    query->hostName.copy(row.name, sizeof row.name - 1);
  }
  return static_cast<int>(count);
}

void NatAgent::UseLogDir(std::string dir) {
  ScopedLock lock(g_settingsLock);
  m_logDir = std::move(dir);
}

int NatHostUseLogDir(const char* dir) {
  try {
    _NatAgent.UseLogDir(dir != nullptr ? dir : "");
    return 0;
  } catch (...) {
    return ENOMEM;
  }
}

int NatHostReadStatus(NatHostStatus* status) {
  if (status == nullptr || status->size < sizeof(size_t)) {
    return -EINVAL;
  }
  NatHostStatus found{};
  const int result = _NatAgent.ReadStatus(found);
  if (result == 0) {
    Give(*status, found);
  }
  return result;
}

int NatHostReadParty(int queue, NatHostParty* party) {
  return ReadOne(party, [queue](NatHostParty& found) NAT_NO_THREAD_SAFETY_ANALYSIS {
    messaging::QueueState state;
    if (!_NatAgent.m_messenger->ReadQueue(queue, state)) {
      return -EINVAL;
    }
    found.queue = queue;
    found.connected = state.isOnline ? 1 : 0;
    if (state.isOnline) {
      found.pid = state.pid;
      found.uid = state.uid;
      found.since = state.since;
      state.program.copy(found.program, sizeof found.program - 1);
    }
    return 0;
  });
}

int NatHostListMappings(NatHostPlace* place, NatHostMapping* rows, size_t count) {
  return ListByNumber(place, rows, count, [](u64 number, NatHostMapping& row) NAT_NO_THREAD_SAFETY_ANALYSIS {
    return _NatAgent.m_qorStorage->Describe(number, row);
  });
}

int NatHostListPorts(NatHostPlace* place, NatHostPort* rows, size_t count) {
  return List<kRows>(place, rows, count, ListPorts);
}

int NatHostListCalls(NatHostPlace* place, NatHostCall* rows, size_t count) {
  return List<kCallRows>(place, rows, count,
                         [](NatHostPlace& at, std::span<NatHostCall> to)
                             NAT_NO_THREAD_SAFETY_ANALYSIS { return _NatAgent.Calls().List(at, to); });
}

int NatHostListExclusions(NatHostPlace* place, NatHostExclusion* rows, size_t count) {
  return List<kRows>(place, rows, count, [](NatHostPlace& at, std::span<NatHostExclusion> to) {
    NatExcEntry rules[kRows];
    const std::size_t found = _NatAgent.m_excTable.Copy(at.at, {rules, std::min(to.size(), std::size(rules))});
    for (std::size_t i = 0; i < found; ++i) {
      to[i].ip = rules[i].ip;
      to[i].mask = rules[i].mask;
    }
    at.at += found;
    return found;
  });
}

int NatHostListNames(NatHostPlace* place, NatHostName* rows, size_t count) {
  return List<kRows>(place, rows, count, [](NatHostPlace& at, std::span<NatHostName> to) NAT_NO_THREAD_SAFETY_ANALYSIS {
    return _NatAgent.ListNames(at, to);
  });
}

int NatHostListCounters(NatHostPlace* place, NatHostCounter* rows, size_t count) {
  return List<kRows>(place, rows, count, ListCounters);
}

int NatAgent::Explain(const NatHostQuestion& question, NatHostExplanation& explanation) {
  if (question.queue < 112 || question.queue > 115 || question.kind > NAT_HOST_RTP) {
    return -EINVAL;
  }
  return WithAgent([&]() NAT_NO_THREAD_SAFETY_ANALYSIS {
    const bool isMedia = question.kind == NAT_HOST_RTP;
    NatSetting setting;
    setting.selfPort = question.local.port;
    setting.localIp = question.local.ip;
    if (isMedia) {
      const auto server = static_cast<CA_PROTO>(question.server);
      explanation.why = DecideGw(question.destination, server, setting, Purpose::EXPLAIN);
      explanation.is_server_there = IsCAOnLine(server) ? 1 : 0;
    } else {
      setting.portType = static_cast<NatPortType>(question.kind);
      explanation.why = DecideCS(question.destination, ProtocolOf(question.queue), setting, Purpose::EXPLAIN);
    }
    explanation.flag = FlagOf(explanation.why);
    explanation.local = {setting.localIp, setting.selfPort};
    if (explanation.flag == NATFLAG_MAPPED) {
      explanation.mapped = {setting.mappedIp, setting.mappedPort};
    }
    explanation.has_route =
        m_routeHelper.GetOutInterface(question.destination, explanation.interface_ip, explanation.gateway) ? 1 : 0;
    if (const auto rule = m_excTable.Find(question.destination)) {
      explanation.is_excluded = 1;
      explanation.rule = {sizeof explanation.rule, rule->ip, rule->mask};
    }
    StunPort port;
    StunManager* const manager = m_stunWrapper.Manager();
    if (manager != nullptr && manager->ListPorts(setting.selfPort, {&port, 1}) == 1 && port.port == setting.selfPort) {
      explanation.has_port = 1;
      Describe(port, explanation.port);
    }
    return 0;
  });
}

int NatHostExplain(const NatHostQuestion* question, NatHostExplanation* explanation) {
  if (question == nullptr || question->size < sizeof *question || explanation == nullptr ||
      explanation->size < sizeof(size_t)) {
    return -EINVAL;
  }
  NatHostExplanation found{};
  const int result = _NatAgent.Explain(*question, found);
  if (result == 0) {
    Give(*explanation, found);
  }
  return result;
}
