#include "platform/stunutils/name_look_up.h"

#include <system_error>

#include "platform/sockets/host_lookup.h"
#include "platform/stunutils/diagnostics.h"
#include "platform/stunutils/signals.h"

namespace stun {
namespace {

constexpr char kFailed[] = "the servers' names cannot be looked up now: no memory or no thread";

}  // namespace

void NameLookUp::Begin(std::vector<std::string> names) {
  try {
    m_thread = std::jthread([this, names = std::move(names)](const std::stop_token& stop) {
      BlockSignals();
      Addresses found;
      try {
        for (const std::string& name : names) {
          found.emplace(name, sockets::LookUpHostAddresses(name.c_str(), stop));
        }
      } catch (...) {
        Notice(kFailed);
        found.clear();
      }
      Finish(std::move(found));
    });
  } catch (...) {
    Notice(kFailed);
    Finish({});
  }
}

std::optional<NameLookUp::Addresses> NameLookUp::Take() {
  const ScopedLock lock(m_mutex);
  return std::exchange(m_found, std::nullopt);
}

void NameLookUp::Finish(Addresses found) {
  {
    const ScopedLock lock(m_mutex);
    m_found = std::move(found);
  }
  m_wake();
}

}  // namespace stun
