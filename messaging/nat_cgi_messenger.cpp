#include "messaging/nat_cgi_messenger.h"

#include "agent/host_events.h"
#include "agent/nat_agent.h"
#include "agent/party_events.h"

void NatCGIMessenger::OnCgiPartyStateChanged(bool online) { TellParty(online, m_number, State()); }

void NatCGIMessenger::OnRefused(const messaging::Refusal& refusal) { TellRefusal(m_number, refusal); }

int NatCGIMessenger::OnUpdate(UpdateType type, const std::list<std::string>& texts, unsigned) {
  if (IsFromParty()) {
    ++_NatAgent.m_counters.updates;
    TellNotice(m_number, type);
  }
  if (type == UPDATE_TYPE_84 || type == UPDATE_SIP_NAT_PORTS || type == UPDATE_OTHER_NAT_PORTS) {
    _NatAgent.m_configManager->OnCgiUpdate(texts);
  }
  Update(type, texts, 1);
  return 0;
}
