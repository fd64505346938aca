#include "platform/stunutils/server_list.h"

#include <algorithm>
#include <charconv>
#include <sstream>

#include "platform/sockets/inet.h"
#include "platform/stunutils/diagnostics.h"

namespace stun {
namespace {

constexpr Millis kLongestRetry{60000};
constexpr Millis kRefresh{600000};  // a server may move

u16 ParsePort(const std::string& text) {
  u16 port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc{} && end == text.data() + text.size() ? port : u16{0};
}

// Whether datagrams can be sent there and answered from there.
bool IsUsable(u32 address) { return address != 0 && address != sockets::kNoAddress; }

bool Holds(const std::vector<Endpoint>& endpoints, const Endpoint& endpoint) {
  return std::find(endpoints.begin(), endpoints.end(), endpoint) != endpoints.end();
}

}  // namespace

bool ServerList::Configure(const std::list<StunServInfo>& servers) {
  if (m_configured == servers) {
    return false;
  }
  m_configured.reset();  // until all is done, for which memory is needed
  std::vector<Server> before;
  before.swap(m_servers);
  for (const StunServInfo& info : servers) {
    std::istringstream texts(info.serverHost);
    std::string text;
    do {
      std::getline(texts, text, ',');
      Append(text, info.serverPort);
    } while (!texts.eof());
  }
  bool isNameNew = false;
  for (Server& server : m_servers) {
    const auto same =
        std::find_if(before.begin(), before.end(), [&](const Server& other) { return other.host == server.host; });
    if (server.isName && same != before.end()) {
      server.addresses = same->addresses;
      server.isReportedMissing = same->isReportedMissing;
    }
    isNameNew = isNameNew || (server.isName && server.addresses.empty());
  }
  if (isNameNew) {
    m_nextLookUp = TimePoint::min();
    m_retry = kFirstRetry;
  }
  Collect(std::nullopt);
  m_configured = servers;
  return true;
}

void ServerList::Append(const std::string& text, const std::string& defaultPort) {
  const std::size_t colon = text.find(':');
  const std::string port = colon == std::string::npos ? defaultPort : text.substr(colon + 1);
  Server server{text.substr(0, colon), ParsePort(port), false, false, {}};
  if (server.host.empty() || server.port == 0) {
    m_diagnosis.Report("\"" + server.host + ":" + port + "\" cannot be a server: it needs a host and a port");
    return;
  }
  const u32 address = sockets::inet_addr(server.host.c_str());
  server.isName = address == sockets::kNoAddress;
  if (IsUsable(address)) {
    server.addresses = {address};
  } else if (!server.isName) {
    m_diagnosis.Report(server.host + " cannot be a server's address");
  }
  m_servers.push_back(std::move(server));
}

void ServerList::Restart() {
  m_current = 0;
  m_isHeard = false;
  m_tried.clear();
  m_isLookingUp = false;
  m_retry = kFirstRetry;
  m_nextLookUp = TimePoint::min();
}

std::vector<std::string> ServerList::NamesToLookUp(TimePoint now) {
  std::vector<std::string> names;
  if (m_isLookingUp || now < m_nextLookUp) {
    return names;
  }
  for (const Server& server : m_servers) {
    if (server.isName && std::find(names.begin(), names.end(), server.host) == names.end()) {
      names.push_back(server.host);
    }
  }
  m_isLookingUp = !names.empty();
  m_nextLookUp = TimePoint::max();
  return names;
}

void ServerList::LookedUp(const Addresses& found, TimePoint now) {
  m_isLookingUp = false;
  bool isMissing = false;
  for (Server& server : m_servers) {
    if (!server.isName) {
      continue;
    }
    std::vector<u32> addresses;
    const auto outcome = found.find(server.host);
    if (outcome != found.end()) {
      std::copy_if(outcome->second.begin(), outcome->second.end(), std::back_inserter(addresses), IsUsable);
    }
    if (!addresses.empty()) {
      if (server.isReportedMissing) {
        m_diagnosis.Report("the server's name " + server.host +
                           " has an address again: " + AddressText(addresses.front()));
      }
      server.isReportedMissing = false;
      server.addresses = std::move(addresses);
      continue;
    }
    isMissing = true;
    if (outcome != found.end() && !server.isReportedMissing) {
      server.isReportedMissing = true;
      m_diagnosis.Report("the server's name " + server.host + " has no address; looking it up again from time to time");
    }
  }
  if (m_nextLookUp == TimePoint::max()) {  // and not asked for anew by other settings meanwhile
    m_nextLookUp = now + (isMissing ? m_retry : kRefresh);
    m_retry = isMissing ? std::min(m_retry * 2, kLongestRetry) : kFirstRetry;
  }
  Collect(m_isHeard ? Current() : std::nullopt);
}

std::optional<Endpoint> ServerList::Current() const {
  return m_endpoints.empty() ? std::nullopt : std::optional(m_endpoints[m_current]);
}

std::optional<Endpoint> ServerList::Second(std::size_t number) const {
  const std::size_t others = m_endpoints.size() - std::min<std::size_t>(m_endpoints.size(), 1);
  return others == 0 ? std::nullopt
                     : std::optional(m_endpoints[(m_current + 1 + number % others) % m_endpoints.size()]);
}

bool ServerList::HasUntried() const {
  return std::any_of(m_endpoints.begin(), m_endpoints.end(), [this](const Endpoint& endpoint) {
    return endpoint != m_endpoints[m_current] && !m_tried.contains(endpoint);
  });
}

void ServerList::Heard() {
  m_isHeard = true;
  m_tried.clear();
}

void ServerList::Next() {
  if (m_endpoints.empty()) {
    return;
  }
  const bool hasUntried = HasUntried();
  m_isHeard = false;
  m_tried.insert(m_endpoints[m_current]);
  do {
    m_current = (m_current + 1) % m_endpoints.size();
  } while (hasUntried && !IsUntried());
}

// `kept` is asked on, whether it is still listed or not.
void ServerList::Collect(const std::optional<Endpoint>& kept) {
  const std::optional<Endpoint> current = Current();
  std::vector<Endpoint> endpoints;
  for (const Server& server : m_servers) {
    for (const u32 address : server.addresses) {
      if (const Endpoint endpoint{address, server.port}; !Holds(endpoints, endpoint)) {
        endpoints.push_back(endpoint);
      }
    }
  }
  const bool isTooMany = endpoints.size() > kMost;
  if (isTooMany && !m_isReportedTooMany) {
    m_diagnosis.Report("of " + std::to_string(endpoints.size()) + " server addresses only the first " +
                       std::to_string(kMost) + " are used");
  }
  m_isReportedTooMany = isTooMany;
  endpoints.resize(std::min(endpoints.size(), kMost));
  if (kept && !Holds(endpoints, *kept)) {
    endpoints.resize(std::min(endpoints.size(), kMost - 1));
    endpoints.push_back(*kept);
  }
  m_endpoints = std::move(endpoints);
  const auto same = current ? std::find(m_endpoints.begin(), m_endpoints.end(), *current) : m_endpoints.end();
  m_current = same == m_endpoints.end() ? 0 : static_cast<std::size_t>(same - m_endpoints.begin());
  m_isHeard = m_isHeard && same != m_endpoints.end();
  std::erase_if(m_tried, [this](const Endpoint& endpoint) { return !Holds(m_endpoints, endpoint); });
}

}  // namespace stun
