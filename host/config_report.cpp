#include "host/config_report.h"

#include <chrono>

#include "host/status_words.h"

namespace {

using Json = nlohmann::ordered_json;

Json Media(const MediaConfig& media) {
  return {{"rtp_port_start", media.rtpPortStart},
          {"rtp_port_end", media.rtpPortEnd},
          {"rtcp_enabled", media.rtcpEnabled != 0}};
}

Json Nat(const NatConfig& nat) {
  Json told{{"gw_interface", nat.gwInterface},
            {"sip_udp_port", nat.sipUdpPort},
            {"sip_tcp_port", nat.sipTcpPort},
            {"sip_udp_use_stun", nat.sipUdpUseStun != 0},
            {"sip_udp_public_ip", IpText(nat.sipUdpPublicIp)},
            {"sip_udp_public_port", nat.sipUdpPublicPort},
            {"sip_tcp_public_ip", IpText(nat.sipTcpPublicIp)},
            {"sip_tcp_public_port", nat.sipTcpPublicPort},
            {"gw_use_stun", nat.gwUseStun != 0},
            {"gw_public_ip", IpText(nat.gwPublicIp)},
            {"gw_public_port_start", nat.gwPublicPortStart},
            {"gw_public_port_end", nat.gwPublicPortEnd}};
  told["exclusions"] = nat.natExclusions.size();  // the rules themselves are a listing of their own
  return told;
}

Json Stun(const NatConfig& nat) {
  return {{"server_host", nat.stunServerHost},
          {"server_port", nat.stunServerPort},
          {"probe_period_s", nat.stunSetting1},
          {"first_timeout_ms", nat.stunSetting2},
          {"sends_per_probe", nat.stunSetting3}};
}

Json Access(const HostSettings& settings) {
  Json access = Json::object();
  for (const auto& [queue, users] : settings.access) {
    access[std::string(PartyWord(queue)) + "_users"] = users;
  }
  if (settings.statusGroup) {
    access["status_group"] = *settings.statusGroup;
  }
  return access;
}

}  // namespace

Json DescribeConfig(const HostSettings& settings, const std::string& origin) {
  using namespace std::chrono;
  const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  return {{"origin", origin},         {"read", TimeText(now)},      {"media", Media(settings.media)},
          {"nat", Nat(settings.nat)}, {"stun", Stun(settings.nat)}, {"access", Access(settings)}};
}
