#include "platform/stunutils/stun_logger.h"

#include <atomic>
#include <new>

#include "platform/journal.h"
#include "platform/sockets/inet.h"
#include "platform/stunutils/diagnostics.h"
#include "platform/stunutils/message.h"

namespace {

std::atomic<bool> s_created{false};

}  // namespace

void StunLogger::Create() { s_created = true; }
void StunLogger::Destroy() { s_created = false; }

namespace stun {

void Notice(std::string_view text) noexcept {
  if (!s_created) {
    return;
  }
  try {
    JournalNotice(std::string("stun: ").append(text));
  } catch (const std::bad_alloc&) {
    JournalNotice(text);
  }
}

std::string AddressText(u32 address) { return sockets::inet_ntoa(address); }

std::string EndpointText(const Endpoint& endpoint) {
  return AddressText(endpoint.address).append(":").append(std::to_string(endpoint.port));
}

}  // namespace stun
