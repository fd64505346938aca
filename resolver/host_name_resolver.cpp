// Host names of destinations: a request for one waits in m_pendingQueries while the resolver thread looks its name up,
// one name at a time and in order, and the main loop issues it again with the address. Nothing is cached.

#include "agent/nat_agent.h"
#include "platform/messaging/nat_messenger.h"
#include "platform/sockets/host_lookup.h"

bool NatAgent::SetQueryforResolve(const u64& queryId, const std::string& hostName, const std::list<NatItem>& items,
                                  const NatPortType& portType, const CA_PROTO& proto, const CA_PROTO& csProto) {
  const bool rtp = proto == CA_PROTO_CM || proto == CA_PROTO_CC;
  Log().TraceFormat("Got %s Request\r\nDest host name - %s\r\nSetQueryforResolve\r\nqueryId = %llu\r\n",
                    rtp ? "RTP" : "CS", hostName.c_str(), static_cast<unsigned long long>(queryId));
  m_pendingQueries.push_back({queryId, hostName, items, portType, proto, csProto, NatMessenger::KeepRequest()});
  ResolveHostName(hostName);
  return true;
}

bool NatAgent::ResolveHostName(const std::string& hostName) {
  ScopedLock lock(m_resolveEvent);
  m_namesToResolve.push_back(hostName);
  m_resolveEvent.SetEvent();
  return true;
}

unsigned long HostNameResolver(void* agent) {
  NatAgent& self = *static_cast<NatAgent*>(agent);
  const auto run = self.CurrentRun();
  if (!run) {
    return 0;
  }
  run->Trace("Starting Resolving Thread\r\n");
  const std::stop_token stop = run->StopToken();
  while (run->Running()) {
    std::string name;
    {
      ScopedLock lock(self.m_resolveEvent);
      self.m_resolveEvent.WaitForEvent(nullptr);
      if (self.m_namesToResolve.empty()) {
        self.m_resolveEvent.ResetEvent();
        continue;
      }
      name = std::move(self.m_namesToResolve.front());
      self.m_namesToResolve.pop_front();
      if (self.m_namesToResolve.empty()) {
        self.m_resolveEvent.ResetEvent();
      }
    }
    const u32 address = sockets::LookUpHost(name.c_str(), stop);
    if (!run->Running()) {
      // Abandoned, or too late for this run: the name is the next run's first, as its request still waits.
      ScopedLock lock(self.m_resolveEvent);
      self.m_namesToResolve.push_front(std::move(name));
      self.m_resolveEvent.SetEvent();
      break;
    }
    {
      ScopedLock lock(self.m_resolvedMutex);
      self.m_resolvedNames.push_back({std::move(name), address});
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
  ScopedLock lock(m_resolvedMutex);
  while (!m_resolvedNames.empty()) {
    const ResolvedName resolved = std::move(m_resolvedNames.front());
    m_resolvedNames.pop_front();
    for (auto query = m_pendingQueries.begin(); query != m_pendingQueries.end();) {
      if (query->hostName != resolved.hostName) {
        ++query;
        continue;
      }
      NatMessenger::ResumeRequest(query->ticket);
      if (query->proto == CA_PROTO_CM || query->proto == CA_PROTO_CC) {
        Log().TraceNumber("CA_Proto ", query->proto);
        OnRequestRTPNatMapping(query->queryId, resolved.address, query->items, query->proto, query->csProto);
      } else {
        // Also of a list only the first item is answered, through the single-item form.
        const NatItem item = query->items.empty() ? NatItem{} : query->items.front();
        OnRequestCSNatMapping(query->queryId, resolved.address, item, query->proto, query->portType);
      }
      NatMessenger::FinishRequest(query->ticket);
      query = m_pendingQueries.erase(query);
    }
  }
  return true;
}
