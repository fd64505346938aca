#include "nat/load_warnings.h"

#include <algorithm>
#include <string>
#include <vector>

#include "nat/config_reader.h"
#include "platform/journal.h"
#include "platform/vxnetutils/bsd_socket.h"

namespace {

std::string Range(unsigned first, unsigned last) {
  return first == last ? std::to_string(first) : std::to_string(first) + " to " + std::to_string(last);
}

void WarnOfInterface(const std::string& wanted) {
  std::vector<InterfaceInfo> interfaces;
  BsdSocket::GetLocalHostEx(&interfaces, nullptr);
  bool isThere = wanted == "*";
  for (const InterfaceInfo& each : interfaces) {
    if (wanted != "*" && wanted != each.name) {
      continue;
    }
    if (each.address.IPAddrNetOrder() != 0) {
      return;
    }
    isThere = true;
  }
  JournalWarning("gw_interface " + wanted + ": " +
                 (wanted == "*" ? "no interface has an IPv4 address"
                  : isThere     ? "it has no IPv4 address"
                                : "no such interface is up") +
                 "; media ports are answered \"no translation needed\" until cm connects anew");
}

void WarnOfPublicSide(const MediaConfig& media, const NatConfig& nat) {
  if (nat.gwUseStun != 0) {
    return;
  }
  if (nat.gwPublicIp == 0) {
    return JournalWarning("media ports " + Range(media.rtpPortStart, media.rtpPortEnd) +
                          " have no public side: set gw_public_ip or gw_use_stun");
  }
  const unsigned covered = nat.gwPublicPortEnd - nat.gwPublicPortStart + 1U;
  if (media.rtpPortStart + covered <= media.rtpPortEnd) {
    JournalWarning("media ports " + Range(media.rtpPortStart + covered, media.rtpPortEnd) +
                   " have no public side: they would come out above gw_public_port_end " +
                   std::to_string(nat.gwPublicPortEnd));
  }
}

}  // namespace

void WarnOfSignallingSettings() {
  const NatConfig* nat = CurrentNatConfig();
  if (nat == nullptr) {
    return;
  }
  // A UDP port with a public side is all that most devices need.
  if (nat->sipUdpUseStun != 0 || nat->sipUdpPublicIp != 0) {
    return;
  }
  JournalWarning("no public side is configured for the SIP port UDP " + std::to_string(nat->sipUdpPort) +
                 (nat->sipTcpPublicIp == 0 ? ", TCP " + std::to_string(nat->sipTcpPort) : ""));
}

void WarnOfMediaSettings() {
  // Copies: a record holds until the next question only.
  const MediaConfig* const currentMedia = CurrentMediaConfig();
  if (currentMedia == nullptr) {
    return;
  }
  const MediaConfig media = *currentMedia;
  const NatConfig* const currentNat = CurrentNatConfig();
  if (currentNat == nullptr) {
    return;
  }
  const NatConfig nat = *currentNat;
  WarnOfInterface(nat.gwInterface);
  WarnOfPublicSide(media, nat);
  if (media.rtpPortStart <= nat.sipUdpPort && nat.sipUdpPort <= media.rtpPortEnd) {
    JournalWarning("the media ports " + Range(media.rtpPortStart, media.rtpPortEnd) + " include the SIP port UDP " +
                   std::to_string(nat.sipUdpPort));
  }
}
