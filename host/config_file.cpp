#include "host/config_file.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/config_drop_ins.h"
#include "host/config_section.h"
#include "host/config_text.h"
#include "host/exclusions_section.h"
#include "host/stun_config.h"
#include "platform/did_you_mean.h"
#include "platform/unique_fd.h"

namespace {

constexpr u16 kNatChanged = 0x0080;
constexpr u16 kStunChanged = 0x2000;
constexpr std::size_t kMaxFile = 1 << 20;  // bytes; far above any configuration, far below what memory holds

constexpr std::string_view kSections[] = {"media", "nat", "stun", "access"};

const toml::table* Section(const toml::table& root, std::string_view name, ConfigErrors& errors) {
  const toml::node* node = root.get(name);
  if (node == nullptr) return nullptr;
  if (node->as_table() == nullptr) {
    errors.Add(node->source(), name, "must be a table, is " + std::string(TomlTypeName(node->type())));
  }
  return node->as_table();
}

void RefuseUnknownSections(const toml::table& root, ConfigErrors& errors) {
  for (const auto& [key, node] : root) {
    const std::string_view name = key.str();
    if (std::find(std::begin(kSections), std::end(kSections), name) != std::end(kSections)) continue;
    errors.Add(key.source(), name, (node.is_table() ? "unknown table" : "unknown key") + DidYouMean(name, kSections));
  }
}

void ReadMedia(ConfigSection& section, MediaConfig& media) {
  section.Port("rtp_port_start", media.rtpPortStart);
  section.Port("rtp_port_end", media.rtpPortEnd);
  section.Flag("rtcp_enabled", media.rtcpEnabled);
  section.RefuseUnknown();
  if (media.rtpPortStart > media.rtpPortEnd) {
    section.Refuse(section.Has("rtp_port_start") ? "rtp_port_start" : "rtp_port_end",
                   "range upside down: rtp_port_start " + std::to_string(media.rtpPortStart) +
                       " is above rtp_port_end " + std::to_string(media.rtpPortEnd));
  }
}

// A public port that is not named is the local one: a router that forwards without renumbering.
void ReadSip(ConfigSection& section, NatConfig& nat) {
  section.Port("sip_udp_port", nat.sipUdpPort);
  section.Port("sip_tcp_port", nat.sipTcpPort);
  section.Flag("sip_udp_use_stun", nat.sipUdpUseStun);
  section.PublicAddress("sip_udp_public_ip", nat.sipUdpPublicIp);
  nat.sipUdpPublicPort = nat.sipUdpPort;
  section.PortOrNone("sip_udp_public_port", nat.sipUdpPublicPort);
  section.PublicAddress("sip_tcp_public_ip", nat.sipTcpPublicIp);
  nat.sipTcpPublicPort = nat.sipTcpPort;
  section.PortOrNone("sip_tcp_public_port", nat.sipTcpPublicPort);
  if (nat.sipUdpPublicIp != 0 && nat.sipUdpPublicPort == 0) {
    section.Refuse("sip_udp_public_port", "0 is no port for sip_udp_public_ip");
  }
  if (nat.sipTcpPublicIp != 0 && nat.sipTcpPublicPort == 0) {
    section.Refuse("sip_tcp_public_port", "0 is no port for sip_tcp_public_ip");
  }
}

void CheckGwRange(ConfigSection& section, const MediaConfig& media, const NatConfig& nat) {
  if (nat.gwPublicPortStart > nat.gwPublicPortEnd) {
    return section.Refuse(section.Has("gw_public_port_start") ? "gw_public_port_start" : "gw_public_port_end",
                          "range upside down: gw_public_port_start " + std::to_string(nat.gwPublicPortStart) +
                              " is above gw_public_port_end " + std::to_string(nat.gwPublicPortEnd));
  }
  if (nat.gwPublicIp == 0) return;
  if (nat.gwPublicPortStart == 0) return section.Refuse("gw_public_port_start", "0 is no port for gw_public_ip");
  // Every local port is shifted by the same distance; past 65535 it would come out as a small port of somebody else.
  const int last = nat.gwPublicPortStart + (media.rtpPortEnd - media.rtpPortStart);
  if (last > 65535) {
    section.Refuse("gw_public_port_start",
                   "rtp_port_end would be seen as port " + std::to_string(last) + ", above 65535");
  }
}

void ReadGw(ConfigSection& section, const MediaConfig& media, NatConfig& nat) {
  section.Text("gw_interface", nat.gwInterface);
  section.Flag("gw_use_stun", nat.gwUseStun);
  section.PublicAddress("gw_public_ip", nat.gwPublicIp);
  nat.gwPublicPortStart = media.rtpPortStart;
  section.PortOrNone("gw_public_port_start", nat.gwPublicPortStart);
  const int span = media.rtpPortEnd - media.rtpPortStart;
  nat.gwPublicPortEnd = static_cast<u16>(std::min(nat.gwPublicPortStart + std::max(span, 0), 65535));
  section.PortOrNone("gw_public_port_end", nat.gwPublicPortEnd);
  if (nat.gwInterface.empty() || nat.gwInterface.size() >= IFNAMSIZ) {
    section.Refuse("gw_interface", "must be \"*\" or the name of an interface, 1 to 15 characters");
  }
  CheckGwRange(section, media, nat);
}

void CheckStunUse(ConfigSection& section, const NatConfig& nat) {
  if (!nat.stunServerHost.empty()) return;
  if (nat.sipUdpUseStun != 0) section.Refuse("sip_udp_use_stun", "true needs stun.server_host");
  if (nat.gwUseStun != 0) section.Refuse("gw_use_stun", "true needs stun.server_host");
}

// Appends the file's bytes to `text`; returns an empty text, or why they cannot be had. Never waits: a pipe without a
// writer would hold the daemon, and a device may have no end.
std::string ReadFile(const std::string& file, std::string& text) {
  const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!fd || ::fstat(fd.Get(), &status) != 0) return std::strerror(errno);
  if (S_ISDIR(status.st_mode)) return std::strerror(EISDIR);
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  for (;;) {
    char block[4096];
    const ssize_t length = ::read(fd.Get(), block, sizeof block);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::strerror(errno);
    if (length == 0) return {};
    text.append(block, static_cast<std::size_t>(length));
    if (text.size() > kMaxFile) return "larger than 1 MiB";
  }
}

bool SameStun(const NatConfig& a, const NatConfig& b) {
  return a.stunSetting1 == b.stunSetting1 && a.stunSetting2 == b.stunSetting2 && a.stunSetting3 == b.stunSetting3 &&
         a.stunServerHost == b.stunServerHost && a.stunServerPort == b.stunServerPort;
}

NatConfig WithoutStun(NatConfig nat) {
  nat.stunSetting1 = nat.stunSetting2 = nat.stunSetting3 = 0;
  nat.stunServerHost.clear();
  nat.stunServerPort = 0;
  return nat;
}

// Parses one text into `root`; what is wrong with it goes to the errors.
void ParseText(std::string_view text, const std::string& file, toml::table& root, ConfigErrors& errors) {
  if (const auto fault = CheckConfigText(text)) {
    return errors.Add(fault->line, "", fault->reason);
  }
  try {
    toml::parse_result parsed = toml::parse(text, file);
    if (!parsed) {
      return errors.Add(parsed.error().source().begin.line, "", parsed.error().description());
    }
    Override(root, std::move(parsed).table());
  } catch (const TomlAssertion& assertion) {
    errors.Add(0, "", std::string("cannot be parsed: ") + assertion.what());
  }
}

ConfigResult ReadTable(const toml::table& root, ConfigErrors& errors, std::chrono::milliseconds namesWithin) {
  ConfigResult result;
  HostSettings settings = DefaultSettings();
  AccountLookup accounts(namesWithin);
  ConfigSection media(Section(root, "media", errors), "media", errors, &result.values);
  ConfigSection nat(Section(root, "nat", errors), "nat", errors, &result.values);
  ConfigSection stun(Section(root, "stun", errors), "stun", errors, &result.values);
  ConfigSection access(Section(root, "access", errors), "access", errors, &result.values);
  ReadMedia(media, settings.media);
  ReadSip(nat, settings.nat);
  ReadGw(nat, settings.media, settings.nat);
  ReadExclusions(nat, settings.nat, errors);
  nat.RefuseUnknown();
  ReadStun(stun, settings.nat);
  CheckStunUse(nat, settings.nat);
  ReadStatusGroup(access, accounts, settings.statusGroup);
  ReadAccess(access, accounts, settings.access, errors);
  RefuseUnknownSections(root, errors);

  result.errors = errors.Texts();
  result.isPassing = accounts.IsPassing();
  if (result.errors.empty()) {
    result.settings = std::move(settings);
  }
  return result;
}

ConfigResult Refused(const ConfigErrors& errors) {
  ConfigResult result;
  result.errors = errors.Texts();
  return result;
}

}  // namespace

HostSettings DefaultSettings() {
  HostSettings settings;
  settings.media.rtpPortStart = settings.nat.gwPublicPortStart = 10000;
  settings.media.rtpPortEnd = settings.nat.gwPublicPortEnd = 10199;
  settings.media.rtcpEnabled = 1;
  settings.nat.gwInterface = "*";
  settings.nat.sipUdpPort = settings.nat.sipUdpPublicPort = 5060;
  settings.nat.sipTcpPort = settings.nat.sipTcpPublicPort = 5060;
  settings.nat.stunServerPort = 3478;
  return settings;
}

u16 ChangesBetween(const HostSettings& before, const HostSettings& after) {
  u16 changes = 0;
  if (before.media != after.media || WithoutStun(before.nat) != WithoutStun(after.nat)) changes |= kNatChanged;
  if (!SameStun(before.nat, after.nat)) changes |= kStunChanged;
  return changes;
}

ConfigResult ParseConfig(std::string_view text, const std::string& file, std::chrono::milliseconds namesWithin) {
  ConfigErrors errors(file);
  toml::table root;
  ParseText(text, file, root, errors);
  return errors.Empty() ? ReadTable(root, errors, namesWithin) : Refused(errors);
}

ConfigResult ReadConfig(const std::string& file) {
  std::string text;
  const std::string fault = ReadFile(file, text);
  if (fault.empty()) {
    ConfigResult result = ParseConfig(text, file);
    result.text = std::move(text);
    return result;
  }
  ConfigErrors errors(file);
  errors.Add(0, "", "cannot be read: " + fault);
  return Refused(errors);
}

ConfigResult ReadConfigWithDropIns(const std::string& file, std::chrono::milliseconds namesWithin) {
  const DropIns dropIns = FindDropIns(file);
  std::vector<std::string> files{file};
  files.insert(files.end(), dropIns.files.begin(), dropIns.files.end());
  ConfigErrors errors(file);
  toml::table root;
  std::string text;
  for (const std::string& each : files) {
    if (&each != &files.front()) {
      errors.BeginFile(each);
    }
    text.clear();
    const std::string fault = ReadFile(each, text);
    if (fault.empty()) {
      ParseText(text, each, root, errors);
    } else {
      errors.Add(0, "", "cannot be read: " + fault);
    }
  }
  if (!dropIns.fault.empty()) {
    errors.BeginFile(dropIns.directory);
    errors.Add(0, "", "cannot be read: " + dropIns.fault);
  }
  ConfigResult result = errors.Empty() ? ReadTable(root, errors, namesWithin) : Refused(errors);
  result.text = files.size() == 1 ? std::move(text) : RenderConfig(result.values);
  result.files = std::move(files);
  return result;
}
