#include "platform/vxnetutils/bsd_socket.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string_view>

namespace {

// An address carries its label ("eth0:1") in the place of its interface's name.
std::string_view InterfaceOf(const ifaddrs& entry) {
  const std::string_view label(entry.ifa_name);
  return label.substr(0, label.find(':'));
}

// Each interface stands in the system's list once by itself, before any address.
void Add(const ifaddrs& entry, std::vector<InterfaceInfo>& interfaces) {
  const std::string_view name = InterfaceOf(entry);
  const auto last = std::find_if(interfaces.rbegin(), interfaces.rend(),
                                 [name](const InterfaceInfo& info) { return info.name == name; });
  const bool inet = entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET;
  const SockAddr address(inet ? reinterpret_cast<const sockaddr_in*>(entry.ifa_addr)->sin_addr.s_addr : 0);
  if (last == interfaces.rend()) {
    interfaces.push_back({address, std::string(name)});
  } else if (inet && last->address.IPAddrNetOrder() == 0) {
    last->address = address;
  } else if (inet) {
    interfaces.insert(last.base(), {address, std::string(name)});
  }
}

}  // namespace

unsigned int BsdSocket::GetLocalHostEx(std::vector<InterfaceInfo>* interfaces, std::string* hostName) {
  if (hostName != nullptr) {
    char name[HOST_NAME_MAX + 1] = "";
    ::gethostname(name, sizeof(name));
    *hostName = name;
  }
  ifaddrs* list = nullptr;
  std::vector<InterfaceInfo> found;
  if (::getifaddrs(&list) == 0) {
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owned(list, &::freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if ((entry->ifa_flags & IFF_UP) != 0) {
        Add(*entry, found);
      }
    }
  }
  const auto count = static_cast<unsigned int>(found.size());
  if (interfaces != nullptr) {
    *interfaces = std::move(found);
  }
  return count;
}
