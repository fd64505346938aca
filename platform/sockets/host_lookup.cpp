#include "platform/sockets/host_lookup.h"

#include <algorithm>

#include "platform/sockets/host_query.h"

namespace sockets {

std::vector<u32> LookUpHostAddresses(const char* name, const std::stop_token& stop,
                                     std::chrono::steady_clock::time_point deadline) {
  // How often a stop, or the deadline, is looked for.
  constexpr std::chrono::milliseconds kStep(50);
  if (name == nullptr || *name == '\0' || stop.stop_requested()) {
    return {};
  }
  HostQuery* const query = BeginQuery(name);
  if (query == nullptr) {
    return {};
  }
  while (!AwaitQuery(query, kStep)) {
    if (stop.stop_requested() || std::chrono::steady_clock::now() >= deadline) {
      AbandonQuery(query);
      return {};
    }
  }
  std::vector<u32> addresses;
  for (const u32 address : FinishQuery(query)) {
    if (address != 0 && std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
      addresses.push_back(address);
    }
  }
  return addresses;
}

u32 LookUpHost(const char* name, const std::stop_token& stop) {
  const std::vector<u32> addresses = LookUpHostAddresses(name, stop);
  return addresses.empty() ? 0 : addresses.front();
}

}  // namespace sockets
