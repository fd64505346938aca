// What the agent does when STUN sees mappings change. Runs on the STUN library's thread and touches no table of the
// agent: the log, and a sender of its own.

#include <algorithm>

#include "agent/faults.h"
#include "agent/host_events.h"
#include "agent/log_text.h"
#include "agent/nat_agent.h"
#include "agent/party_events.h"
#include "platform/messaging/cfg_update_messenger.h"
#include "stun/stun_manager_wrapper.h"

namespace {

// One event a port, also where it is registered several times.
void TellChanges(StunManager& manager, const std::list<std::pair<u16, u16>>& changedPorts) {
  NatHostEvent event = HostEvents::Make(NAT_EVENT_MAPPING);
  for (const auto& [port, owner] : changedPorts) {
    if (port == event.local_port) {
      continue;
    }
    StunResult now;
    manager.GetPortResult(port, now);
    event.local_port = port;
    event.now = {now.address2, now.port2};
    manager.GetMappingBefore(port, event.before.ip, event.before.port);
    HostEvents::Tell(event);
  }
}

}  // namespace

void OnChangedPorts(void* context, std::list<std::pair<u16, u16>>& changedPorts) {
  _NatAgent.m_changedMappings += changedPorts.size();
  if (HostEvents::Wants(NAT_EVENT_MAPPING)) {
    TellChanges(*static_cast<StunManager*>(context), changedPorts);
  }
  const bool sipPorts = std::any_of(changedPorts.begin(), changedPorts.end(),
                                    [](const auto& port) { return port.second == CA_PROTO_SIP; });
  if (sipPorts) {
    _NatAgent.NotifyToCSNatChanges(CA_PROTO_SIP);
  }
}

bool NatAgent::NotifyToCSNatChanges(const CA_PROTO& proto) {
  TellNotice(0, proto == CA_PROTO_SIP ? UPDATE_SIP_NAT_PORTS : UPDATE_OTHER_NAT_PORTS);
  Log().TraceFormat("\r\n%sCS Nat port changes trying NotifyTo %s\r\n%s", kRule, GetCAProtoName(proto), kRule);
  Contain("call agents are not told that mappings changed", [&] {
    CfgUpdateMessenger messenger(0);
    messenger.SendMessageA(proto == CA_PROTO_SIP ? UPDATE_SIP_NAT_PORTS : UPDATE_OTHER_NAT_PORTS, {}, false);
  });
  return true;
}
