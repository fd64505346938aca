#include "messaging/nat_cgi_messenger.h"

#include "agent/nat_agent.h"

int NatCGIMessenger::OnUpdate(UpdateType type, const std::list<std::string>& texts, unsigned) {
  if (type == UPDATE_TYPE_84 || type == UPDATE_SIP_NAT_PORTS || type == UPDATE_OTHER_NAT_PORTS) {
    _NatAgent.m_configManager->OnCgiUpdate(texts);
  }
  Update(type, texts, 1);
  return 0;
}
