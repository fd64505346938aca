#include "platform/messaging/cfg_update_messenger.h"

#include "platform/journal.h"
#include "platform/messaging/frame.h"
#include "platform/messaging/queue_registry.h"

void CfgUpdateMessenger::SendMessageA(UpdateType type, const std::list<std::string>& texts, bool) {
  messaging::Frame notice;
  notice.kind = messaging::FrameKind::NOTICE;
  notice.updateType = type;
  notice.texts = texts;
  std::string packet;
  if (!messaging::EncodeFrame(notice, packet)) {
    JournalError("a configuration-update notice has too many or too long texts and is not sent");
    return;
  }
  messaging::QueueRegistry::Post(packet);
}
