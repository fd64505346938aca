#include "platform/stunutils/name_look_up.h"

#include <system_error>

#include "platform/sockets/host_lookup.h"
#include "platform/stunutils/signals.h"

namespace stun {

void NameLookUp::Begin(std::vector<std::string> names) {
  Addresses none;
  for (const std::string& name : names) {
    none.emplace(name, std::vector<u32>{});
  }
  try {
    m_thread = std::jthread([this, names = std::move(names)](const std::stop_token& stop) {
      BlockSignals();
      Addresses found;
      for (const std::string& name : names) {
        found.emplace(name, sockets::LookUpHostAddresses(name.c_str(), stop));
      }
      Finish(std::move(found));
    });
  } catch (const std::system_error&) {  // no thread to be had: as good as no answer, and asked again like one
    Finish(std::move(none));
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
