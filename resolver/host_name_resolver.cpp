// Host names of destinations: a request for one waits in m_pendingQueries while the resolver thread looks its name up,
// one name at a time, and the main loop issues it again with the address. Nothing is cached.

#include "agent/faults.h"
#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"
#include "platform/journal.h"
#include "platform/sockets/host_lookup.h"

namespace {

constexpr std::size_t kItemBytes = 4 * sizeof(void*);  // an item's node in a list, with what the allocator adds

// What a name occupies until it has been looked up.
std::size_t NameBytes(const std::string& hostName) { return sizeof(ResolvedName) + hostName.size(); }

// The same with the request that waits for it.
std::size_t RequestBytes(const std::string& hostName, const std::list<NatItem>& items) {
  return NameBytes(hostName) + sizeof(ResolveQuery) + hostName.size() + items.size() * kItemBytes;
}

// Parties choose the names, so all of these lines count as equal.
void WarnOfName(const std::string& hostName) {
  Contain("a name without an address is not reported", [&hostName] {
    JournalWarning("the destination's name " + hostName + " has no IPv4 address",
                   "a destination's name has no address");
  });
}

}  // namespace

bool NatAgent::SetQueryforResolve(const u64& queryId, const std::string& hostName, const std::list<NatItem>& items,
                                  const NatPortType& portType, const CA_PROTO& proto, const CA_PROTO& csProto) {
  const bool rtp = proto == CA_PROTO_CM || proto == CA_PROTO_CC;
  Log().TraceFormat("Got %s Request\r\nDest host name - %s\r\nSetQueryforResolve\r\nqueryId = %llu\r\n",
                    rtp ? "RTP" : "CS", hostName.c_str(), static_cast<unsigned long long>(queryId));
  NameList name;
  name.push_back({hostName});
  std::list<ResolveQuery> query;
  query.push_back({queryId, hostName, items, portType, proto, csProto, name.begin()});
  name.front().request = LateRequest(RequestBytes(hostName, items));  // nothing throws from here on
  QueueName(name, proto);
  m_pendingQueries.splice(m_pendingQueries.end(), query);
  return true;
}

bool NatAgent::ResolveHostName(const std::string& hostName) {
  NameList name;
  name.push_back({hostName});
  ScopedLock lock(m_resolveEvent);
  m_namesToResolve.Left().splice(m_namesToResolve.Left().end(), name);
  m_resolveEvent.SetEvent();
  return true;
}

void NatAgent::QueueName(NameList& name, const CA_PROTO& proto) {
  ScopedLock lock(m_resolveEvent);
  m_namesToResolve.Push(proto, name);
  m_resolveEvent.SetEvent();
}

void NatAgent::GiveUpName(const ResolveQuery& query) {
  m_namesToResolve.GiveUp(query.name);
  query.name->request.Resize(NameBytes(query.hostName));
}

void NatAgent::LeaveBehind(const CA_PROTO& proto) {
  ScopedLock lock(m_resolveEvent);
  m_namesToResolve.GiveUp(proto);
  DropBeyondBounds();
}

void NatAgent::LeaveAllBehind() {
  ScopedLock lock(m_resolveEvent);
  m_namesToResolve.GiveUp();
  DropBeyondBounds();
}

void NatAgent::DropBeyondBounds() {
  NameList& left = m_namesToResolve.Left();
  NameList dropped;
  for (auto name = left.begin(); name != left.end();) {
    const auto here = name++;
    if (here->request.DropIfBeyondBounds()) {
      dropped.splice(dropped.end(), left, here);
    }
  }
  if (!dropped.empty()) {
    std::erase_if(m_pendingQueries, [](const ResolveQuery& query) { return !query.name->request.IsKept(); });
  }
}

unsigned long HostNameResolver(void* argument) {
  const auto run = RunLink::Take(argument);
  NatAgent& self = run->Agent();
  run->Trace("Starting Resolving Thread\r\n");
  const std::stop_token stop = run->StopToken();
  while (run->Running()) {
    NameList name;
    {
      ScopedLock lock(self.m_resolveEvent);
      self.m_resolveEvent.WaitForEvent(nullptr);
      if (!run->Running()) {
        break;  // the event stays set: the next run looks again
      }
      if (self.m_namesToResolve.IsEmpty()) {
        self.m_resolveEvent.ResetEvent();
        continue;
      }
      name = self.m_namesToResolve.Pop();
      if (self.m_namesToResolve.IsEmpty()) {
        self.m_resolveEvent.ResetEvent();
      }
    }
    Contain("a name is not looked up",
            [&] { name.front().address = sockets::LookUpHost(name.front().hostName.c_str(), stop); });
    if (!run->Running()) {
      // Abandoned, or too late for this run: the next run looks it up, as its request still waits.
      ScopedLock lock(self.m_resolveEvent);
      self.m_namesToResolve.Return(name);
      self.m_resolveEvent.SetEvent();
      break;
    }
    {
      ScopedLock lock(self.m_resolvedMutex);
      self.m_resolvedNames.splice(self.m_resolvedNames.end(), name);
    }
    self.m_namesResolved = true;
    run->Wake();
  }
  return 0;
}

bool NatAgent::CheckIsResolvedHostName() {
  if (!m_namesResolved) {
    return false;
  }
  m_namesResolved = false;
  NameList done;
  std::list<ResolveQuery> answered;
  {
    ScopedLock lock(m_resolvedMutex);
    while (!m_resolvedNames.empty()) {
      done.splice(done.end(), m_resolvedNames, m_resolvedNames.begin());
      const ResolvedName& resolved = done.back();
      ++m_counters.names[resolved.address != 0 ? 1 : 0];
      if (resolved.address == 0) {
        WarnOfName(resolved.hostName);
      }
      for (auto query = m_pendingQueries.begin(); query != m_pendingQueries.end();) {
        const auto here = query++;
        if (here->hostName == resolved.hostName) {
          answered.splice(answered.end(), m_pendingQueries, here);
          Reissue(*here, resolved.address);
        }
      }
    }
  }
  ScopedLock lock(m_resolveEvent);
  for (const ResolveQuery& query : answered) {
    GiveUpName(query);
  }
  return true;
}

void NatAgent::Reissue(const ResolveQuery& query, u32 address) {
  const RequestScope scope(query.name->request.Account());
  const bool rtp = query.proto == CA_PROTO_CM || query.proto == CA_PROTO_CC;
  try {
    if (rtp) {
      Log().TraceNumber("CA_Proto ", query.proto);
      OnRequestRTPNatMapping(query.queryId, address, query.items, query.proto, query.csProto);
    } else {
      // Also of a list only the first item is answered, through the single-item form.
      const NatItem item = query.items.empty() ? NatItem{} : query.items.front();
      OnRequestCSNatMapping(query.queryId, address, item, query.proto, query.portType);
    }
  } catch (...) {
    if (NatCAMessenger* channel = ChannelOf(query.proto)) {
      channel->FailRequest(rtp ? NatCAMessenger::RequestKind::RTP : NatCAMessenger::RequestKind::CS, query.queryId,
                           query.items, query.csProto);
    } else {
      ReportFault("a request was not handled to its end");
    }
  }
}
