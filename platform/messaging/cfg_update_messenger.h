#pragma once

#include <list>
#include <string>

#include "platform/messaging/cgi_messenger.h"

// Sends a configuration-update notice. Any thread, also while the queues are being opened or closed.
class CfgUpdateMessenger {
 public:
  explicit CfgUpdateMessenger(int) {}
  virtual ~CfgUpdateMessenger() = default;

  // Delivers the notice to every party connected to a queue of this process, and to the process's own configuration
  // queue (102). Never blocks: a party that does not read gets each kind of notice once when it reads again.
  void SendMessageA(UpdateType type, const std::list<std::string>& texts, bool);
};
