#pragma once

#include "agent/settings_lock.h"
#include "platform/messaging/cgi_messenger.h"

// The channel of the CGI party, for its configuration-update notices. The agent re-reads nothing on them.
class NatCGIMessenger : public CGIMessenger {
 public:
  explicit NatCGIMessenger(int queue) : CGIMessenger(queue) {}
  ~NatCGIMessenger() override = default;

 protected:
  int OnUpdate(UpdateType type, const std::list<std::string>& texts, unsigned value) override
      NAT_REQUIRES(g_settingsLock);
};
