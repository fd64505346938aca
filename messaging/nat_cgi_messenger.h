#pragma once

#include "agent/settings_lock.h"
#include "platform/messaging/cgi_messenger.h"

// The channel of the CGI party, for its configuration-update notices. The agent re-reads nothing on them.
class NatCGIMessenger : public CGIMessenger {
 public:
  explicit NatCGIMessenger(int queue) : CGIMessenger(queue), m_number(queue) {}
  ~NatCGIMessenger() override = default;

 protected:
  void OnCgiPartyStateChanged(bool online) override;
  void OnRefused(const messaging::Refusal& refusal) override;
  int OnUpdate(UpdateType type, const std::list<std::string>& texts, unsigned value) override
      NAT_REQUIRES(g_settingsLock);

 private:
  const int m_number;
};
