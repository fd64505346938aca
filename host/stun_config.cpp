#include "host/stun_config.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::size_t kMaxHostName = 253;  // RFC 1035, section 2.3.4, as text
constexpr std::size_t kMaxServers = 32;

// What is wrong with an entry, HOST[:PORT]; empty: nothing.
std::string FaultOf(const std::string& entry) {
  const std::size_t colon = entry.find(':');
  const std::string host = entry.substr(0, colon);
  if (host.empty() || entry.find(',') != std::string::npos) {
    return "\"" + entry + "\" is not HOST or HOST:PORT";
  }
  if (host.size() > kMaxHostName) {
    return "longer than 253 characters";
  }
  if (colon == std::string::npos) {
    return {};
  }
  u16 port = 0;
  const char* const end = entry.data() + entry.size();
  const auto [rest, error] = std::from_chars(entry.data() + colon + 1, end, port);
  return error == std::errc{} && rest == end && port != 0 ? "" : "\"" + entry + "\" has no port of 1..65535";
}

void ReadServers(ConfigSection& section, NatConfig& nat) {
  std::vector<std::string> servers;
  section.Texts("server_host", servers);
  if (servers.size() == 1 && servers.front().empty()) {
    return;  // as if it were not there
  }
  if (servers.size() > kMaxServers) {
    return section.Refuse("server_host", "more than 32 servers");
  }
  for (const std::string& server : servers) {
    const std::string fault = FaultOf(server);
    if (!fault.empty()) {
      return section.Refuse("server_host", fault);
    }
    nat.stunServerHost += (nat.stunServerHost.empty() ? "" : ",") + server;
  }
}

// A number has two keys, of which one may be used.
void ReadNumber(ConfigSection& section, std::string_view key, std::string_view otherKey, u32& value) {
  const bool isOld = section.Has(otherKey);
  if (isOld) {
    section.Number(otherKey, value);
  }
  if (!isOld || section.Has(key)) {
    section.Number(key, value);
  }
  if (isOld && section.Has(key)) {
    section.Refuse(otherKey, "is the same as " + std::string(key) + ": only one of them may be there");
  }
}

}  // namespace

void ReadStun(ConfigSection& section, NatConfig& nat) {
  ReadServers(section, nat);
  section.Port("server_port", nat.stunServerPort);
  ReadNumber(section, "probe_period_s", "setting1", nat.stunSetting1);
  ReadNumber(section, "first_timeout_ms", "setting2", nat.stunSetting2);
  ReadNumber(section, "sends_per_probe", "setting3", nat.stunSetting3);
  section.RefuseUnknown();
}
