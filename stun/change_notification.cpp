// What the agent does when STUN sees mappings change. Runs on the STUN library's thread and touches no table of the
// agent: the log, and a sender of its own.

#include <algorithm>

#include "agent/faults.h"
#include "agent/log_text.h"
#include "agent/nat_agent.h"
#include "platform/messaging/cfg_update_messenger.h"
#include "stun/stun_manager_wrapper.h"

void OnChangedPorts(void*, std::list<std::pair<u16, u16>>& changedPorts) {
  const bool sipPorts = std::any_of(changedPorts.begin(), changedPorts.end(),
                                    [](const auto& port) { return port.second == CA_PROTO_SIP; });
  if (sipPorts) {
    _NatAgent.NotifyToCSNatChanges(CA_PROTO_SIP);
  }
}

bool NatAgent::NotifyToCSNatChanges(const CA_PROTO& proto) {
  Log().TraceFormat("\r\n%sCS Nat port changes trying NotifyTo %s\r\n%s", kRule, GetCAProtoName(proto), kRule);
  Contain("call agents are not told that mappings changed", [&] {
    CfgUpdateMessenger messenger(0);
    messenger.SendMessageA(proto == CA_PROTO_SIP ? UPDATE_SIP_NAT_PORTS : UPDATE_OTHER_NAT_PORTS, {}, false);
  });
  return true;
}
