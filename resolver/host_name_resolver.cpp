// Host names of destinations: a request for one waits in m_pendingQueries while the resolver thread looks its name up,
// one name at a time and in order, and the main loop issues it again with the address. Nothing is cached.

#include "agent/faults.h"
#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"
#include "platform/sockets/host_lookup.h"

bool NatAgent::SetQueryforResolve(const u64& queryId, const std::string& hostName, const std::list<NatItem>& items,
                                  const NatPortType& portType, const CA_PROTO& proto, const CA_PROTO& csProto) {
  const bool rtp = proto == CA_PROTO_CM || proto == CA_PROTO_CC;
  Log().TraceFormat("Got %s Request\r\nDest host name - %s\r\nSetQueryforResolve\r\nqueryId = %llu\r\n",
                    rtp ? "RTP" : "CS", hostName.c_str(), static_cast<unsigned long long>(queryId));
  std::list<ResolveQuery> query;
  query.push_back({queryId, hostName, items, portType, proto, csProto});
  ResolveHostName(hostName);
  query.front().ticket = NatMessenger::KeepRequest();  // the last step that can throw: nothing waits when one has
  m_pendingQueries.splice(m_pendingQueries.end(), query);
  return true;
}

bool NatAgent::ResolveHostName(const std::string& hostName) {
  ScopedLock lock(m_resolveEvent);
  m_namesToResolve.push_back({hostName});
  m_resolveEvent.SetEvent();
  return true;
}

unsigned long HostNameResolver(void* argument) {
  const auto run = RunLink::Take(argument);
  NatAgent& self = run->Agent();
  run->Trace("Starting Resolving Thread\r\n");
  const std::stop_token stop = run->StopToken();
  while (run->Running()) {
    std::list<ResolvedName> name;  // one, which goes from list to list: it cannot be lost for want of memory
    {
      ScopedLock lock(self.m_resolveEvent);
      self.m_resolveEvent.WaitForEvent(nullptr);
      if (!run->Running()) {
        break;  // the event stays set: the next run looks again
      }
      if (self.m_namesToResolve.empty()) {
        self.m_resolveEvent.ResetEvent();
        continue;
      }
      name.splice(name.end(), self.m_namesToResolve, self.m_namesToResolve.begin());
      if (self.m_namesToResolve.empty()) {
        self.m_resolveEvent.ResetEvent();
      }
    }
    Contain("a name is not looked up",
            [&] { name.front().address = sockets::LookUpHost(name.front().hostName.c_str(), stop); });
    if (!run->Running()) {
      // Abandoned, or too late for this run: the name is the next run's first, as its request still waits.
      ScopedLock lock(self.m_resolveEvent);
      self.m_namesToResolve.splice(self.m_namesToResolve.begin(), name);
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
  ScopedLock lock(m_resolvedMutex);
  while (!m_resolvedNames.empty()) {
    const ResolvedName resolved = std::move(m_resolvedNames.front());
    m_resolvedNames.pop_front();
    for (auto query = m_pendingQueries.begin(); query != m_pendingQueries.end();) {
      if (query->hostName != resolved.hostName) {
        ++query;
        continue;
      }
      Reissue(*query, resolved.address);
      query = m_pendingQueries.erase(query);
    }
  }
  return true;
}

void NatAgent::Reissue(const ResolveQuery& query, u32 address) {
  const bool rtp = query.proto == CA_PROTO_CM || query.proto == CA_PROTO_CC;
  NatMessenger::ResumeRequest(query.ticket);
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
  NatMessenger::FinishRequest(query.ticket);
}
