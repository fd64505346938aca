// The configuration of a host that is written in C.

#include <memory>
#include <new>
#include <string>

#include "agent/host.h"
#include "agent/library_state.h"
#include "nat/host_config.h"

namespace {

const char* Text(const char* text) { return text != nullptr ? text : ""; }

// Dotted text of an address in network byte order, as rules of the configuration have it.
std::string Dotted(uint32_t address) {
  std::string text;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&address);
  for (int i = 0; i < 4; ++i) {
    text += (i == 0 ? "" : ".") + std::to_string(bytes[i]);
  }
  return text;
}

// Asks the host at every question of the agent's.
class CallbackSource final : public ConfigSource {
 public:
  CallbackSource(NatHostConfigNeeded needed, void* context) : m_needed(needed), m_context(context) {}
  virtual ~CallbackSource() = default;

  HostConfig* GetConfig() override {
    NatHostConfig given{};
    given.size = sizeof given;
    if (m_needed(m_context, &given) == 0) {
      return nullptr;
    }
    m_media.rtpPortStart = given.rtp_port_start;
    m_media.rtpPortEnd = given.rtp_port_end;
    m_media.rtcpEnabled = given.rtcp_enabled;
    m_nat.gwInterface = Text(given.gw_interface);
    m_nat.sipUdpPort = given.sip_udp_port;
    m_nat.sipTcpPort = given.sip_tcp_port;
    m_nat.sipUdpUseStun = given.sip_udp_use_stun;
    m_nat.sipUdpPublicIp = given.sip_udp_public_ip;
    m_nat.sipUdpPublicPort = given.sip_udp_public_port;
    m_nat.sipTcpPublicIp = given.sip_tcp_public_ip;
    m_nat.sipTcpPublicPort = given.sip_tcp_public_port;
    m_nat.gwUseStun = given.gw_use_stun;
    m_nat.gwPublicIp = given.gw_public_ip;
    m_nat.gwPublicPortStart = given.gw_public_port_start;
    m_nat.gwPublicPortEnd = given.gw_public_port_end;
    TakeExclusions(given);
    m_nat.stunServerHost = Text(given.stun_server_host);
    m_nat.stunServerPort = given.stun_server_port;
    m_nat.stunSetting1 = given.stun_settings[0];
    m_nat.stunSetting2 = given.stun_settings[1];
    m_nat.stunSetting3 = given.stun_settings[2];
    return &m_config;
  }

 private:
  void TakeExclusions(const NatHostConfig& given) {
    m_nat.natExclusions.clear();
    for (size_t i = 0; given.exclusions != nullptr && i < given.exclusion_count; ++i) {
      m_nat.natExclusions.push_back({Dotted(given.exclusions[i].ip), Dotted(given.exclusions[i].mask)});
    }
  }

  const NatHostConfigNeeded m_needed;
  void* const m_context;
  MediaConfig m_media;
  NatConfig m_nat;
  HostConfig m_config{&m_media, &m_nat};
};

}  // namespace

void* NatHostMakeConfigSource(NatHostConfigNeeded needed, void* context) {
  if (needed == nullptr) {
    return nullptr;
  }
  try {
    const auto source = std::make_shared<CallbackSource>(needed, context);
    g_hostsSource = source;
    return static_cast<ConfigSource*>(source.get());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
