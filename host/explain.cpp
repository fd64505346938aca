#include "host/explain.h"

#include <optional>
#include <string>
#include <utility>

#include "host/status_report.h"
#include "host/status_words.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int kSip = 112;
constexpr int kCm = 114;

std::string SinceText(std::int64_t time) { return time == 0 ? "" : " since " + TimeText(time); }

// One question to a running agent, and what it takes to put the answer into words.
class Explanation {
 public:
  Explanation(const AgentLibrary& library, const StatusRequest& request, std::uint32_t address)
      : m_library(library), m_request(request), m_question(request.question) {
    m_question.destination = address;
    m_found.size = sizeof m_found;
    m_status.size = sizeof m_status;
    m_asker.size = m_server.size = m_cm.size = sizeof m_asker;
  }

  Json Tell() {
    if (const int result = Read(); result < 0) {
      return StatusError(ReadFault(result));
    }
    Step("destination", Destination());
    Step("party", Party(m_asker));
    if (IsMedia()) {
      Step("call server", m_question.server == 2 ? "none has the protocol of q113" : Party(m_server));
    }
    Step("route", Route());
    Step("exclusions", Exclusions());
    Step("settings", Settings());
    Step("mapping", Mapping());
    Json told{
        {"steps", std::move(m_steps)}, {"flag", m_found.flag}, {"answer", Answer()}, {"reason", WhyWord(m_found.why)}};
    if (m_found.flag == 1) {
      told["public"] = EndpointText(m_found.mapped);
    }
    told["advice"] = Advice();
    return Json{{"explain", std::move(told)}};
  }

 private:
  bool IsMedia() const { return m_question.kind == NAT_HOST_RTP; }
  bool IsRouted() const { return m_found.has_route != 0 && m_found.gateway != 0; }

  int Read() {
    constexpr int kServers[] = {kCm, kSip, 113, 115};
    int result = m_library.explain(&m_question, &m_found);
    const std::pair<int, NatHostParty*> parties[] = {
        {m_question.queue, &m_asker}, {kServers[m_question.server & 3U], &m_server}, {kCm, &m_cm}};
    for (const auto& [queue, party] : parties) {
      result = result < 0 ? result : m_library.readParty(queue, party);
    }
    return result < 0 ? result : m_library.readStatus(&m_status);
  }

  void Step(const char* name, const std::string& text) { m_steps.push_back(Json{{"step", name}, {"text", text}}); }

  std::string Destination() const {
    const std::string& text = m_request.destination;
    if (m_question.destination == 0) {
      return text + " has no IPv4 address: it is taken as one behind the gateway";
    }
    const std::string address = IpText(m_question.destination);
    return text == address ? address : text + " is " + address;
  }

  static std::string Party(const NatHostParty& party) {
    const std::string name = PartyWord(party.queue);
    return party.connected == 0
               ? name + " is not connected"
               : name + " is connected" + SinceText(party.since) + ": process " + std::to_string(party.pid) +
                     ", user " + std::to_string(party.uid) + ", program " + party.program;
  }

  std::string Route() const {
    if (m_found.has_route == 0) {
      return "there is none";
    }
    const std::string interface = InterfaceOf(m_found.interface_ip);
    const std::string from =
        "leaves from " + IpText(m_found.interface_ip) + (interface.empty() ? "" : " on " + interface);
    return m_found.gateway == 0            ? from + ", on an attached network"
           : m_found.gateway == UINT32_MAX ? from + " through a gateway without an IPv4 address"
                                           : from + " through the gateway " + IpText(m_found.gateway);
  }

  std::string Exclusions() const {
    if (m_status.exclusions_since == 0) {
      return "none are loaded yet: they come with the first connection of cm";
    }
    const std::string rules = std::to_string(m_status.exclusions) + " in force";
    return m_found.is_excluded == 0
               ? rules + ", none matches"
               : rules + ", " + IpText(m_found.rule.ip) + " with mask " + IpText(m_found.rule.mask) + " matches";
  }

  std::string Settings() const {
    return IsMedia()
               ? "media: " + std::string(LoadWord(m_status.media)) + SinceText(m_status.media_since)
               : "signalling: " + std::string(LoadWord(m_status.signalling)) + SinceText(m_status.signalling_since);
  }

  std::string Learnt() const {
    const NatHostPort& port = m_found.port;
    std::string text = "STUN watches the port";
    if (m_found.has_port == 0) {
      return std::string("STUN does not watch the port; it is ") + StunWord(m_status.stun_state);
    }
    text += port.mapped.ip == 0 ? " and has learnt nothing of it"
                                : ": seen as " + EndpointText(port.mapped) + " by " + EndpointText(port.server);
    if (port.age >= 0) {
      text += ", last heard " + std::to_string(port.age / 1000) + " s ago";
    }
    text += port.next < 0    ? ", asking now"
            : port.next == 0 ? ", asks as soon as it may"
                             : ", asks again in " + std::to_string(port.next / 1000) + " s";
    if (port.is_unsettled != 0) {
      text += "; the NAT answers with another mapping each time";
    }
    text += std::string("; server ") + StunWord(m_status.stun_state) + ", NAT " + NatWord(m_status.stun_nat);
    return text;
  }

  // Which translation the local port has, whether or not the decision came as far as that.
  std::string Mapping() const {
    NatHostPlace place{};
    NatHostMapping row{};
    row.size = sizeof row;
    std::string others;
    const std::uint32_t wanted = IsMedia() ? std::uint32_t{NAT_HOST_MEDIA} : m_question.kind;
    while (m_library.listMappings(&place, &row, 1) > 0) {
      if (row.what != wanted) {
        continue;
      }
      const std::string local = (row.local_ip == 0 ? "" : IpText(row.local_ip) + ":") +
                                std::to_string(row.local_start) + "-" + std::to_string(row.local_end);
      if (row.local_start <= m_found.local.port && m_found.local.port <= row.local_end &&
          (!IsMedia() || row.local_ip == m_found.local.ip)) {
        return row.by == NAT_HOST_BY_STUN ? Learnt()
               : row.public_ip == 0       ? local + " has no public address"
                                          : local + " is seen as " + IpText(row.public_ip) + ":" +
                                          std::to_string(row.public_start) + "-" + std::to_string(row.public_end);
      }
      others += (others.empty() ? "" : ", ") + local;
    }
    return others.empty() ? "none is loaded" : "none covers the port; there is " + others;
  }

  std::string Answer() const {
    return m_found.flag == 1 ? "mapped, " + EndpointText(m_found.mapped) : FlagWord(m_found.flag);
  }

  // What the party asking, or its absence, adds to the reason.
  std::string Advice() const {
    if (m_asker.connected == 0 && !IsMedia() && m_question.queue == kSip && m_status.signalling != NAT_HOST_LOADED) {
      return "let the SIP user agent connect to its queue: its settings are loaded when it does";
    }
    if (m_asker.connected == 0 && m_found.flag == 1) {
      return "nothing, but the party has to connect before it can ask";
    }
    return AdviceFor(m_found.why);
  }

  std::string AdviceFor(std::uint32_t why) const {
    const std::string local = EndpointText(m_found.local);
    switch (why) {
      case NAT_WHY_ATTACHED:
        return "nothing when the remote party is on the local network; otherwise the route to it has to lead through a "
               "gateway";
      case NAT_WHY_EXCLUDED:
        return "nothing when the network is reached without translation; otherwise take the rule out of nat.exclusions";
      case NAT_WHY_SERVER_NOT_THERE:
        return m_question.server == 2
                   ? "ask with the protocol of the call server that owns the call: sip, cm or cc"
                   : "let the party " + std::string(PartyWord(m_server.queue)) +
                         " connect, or ask with the protocol of the call server that owns the call (server=)";
      case NAT_WHY_MEDIA_NOT_LOADED:
        return m_cm.connected == 0
                   ? "let the party cm connect, also beside a SIP stack that asks for its media itself: "
                     "the media settings are loaded when it does"
                   : "the party cm is connected, but there was no configuration: see the journal";
      case NAT_WHY_MEDIA_DROPPED:
        return "let the party cm connect anew: the hang-up of cc dropped the media settings";
      case NAT_WHY_NO_GATEWAY_ADDRESS:
        return "set nat.gw_interface to an interface that is up and has an IPv4 address, then let cm connect anew";
      case NAT_WHY_OTHER_LOCAL_ADDRESS:
        return IpText(m_found.local.ip) +
               " is not an address that nat.gw_interface had when cm connected: ask for the right one, or let cm "
               "connect "
               "anew";
      case NAT_WHY_OUTSIDE_RTP_RANGE:
        return "widen media.rtp_port_start and rtp_port_end, or use a media port inside";
      case NAT_WHY_NO_ROUTE:
        return "give the device a route to the destination";
      case NAT_WHY_PORT_0:
        return "ask for the port in use, not for port 0";
      case NAT_WHY_NOT_SIGNALLING:
        return "ask as the party sip: signalling settings belong to it alone";
      case NAT_WHY_OTHER_PORT:
        return m_question.kind == NAT_HOST_TCP
                   ? "set nat.sip_tcp_port to " + std::to_string(m_found.local.port) + ", or use the configured port"
                   : "set nat.sip_udp_port to " + std::to_string(m_found.local.port) + ", or use the configured port";
      case NAT_WHY_NO_PUBLIC_SIDE:
        return NoPublicSide();
      case NAT_WHY_BEYOND_RANGE:
        return "raise nat.gw_public_port_end: " + local + " would come out above it";
      case NAT_WHY_NOT_WATCHED:
        return m_status.stun_state == NAT_HOST_STUN_OFF ? "STUN could not be started: see the journal"
                                                        : "use a port that STUN watches: nat.sip_udp_port, or one of "
                                                          "the media ports (every second one while "
                                                          "media.rtcp_enabled is false)";
      case NAT_WHY_NOT_LEARNT:
        return m_status.stun_state == NAT_HOST_STUN_WORKS
                   ? "wait a moment, STUN works and asks"
                   : "let the STUN server be reached: natctl stun asks it directly";
      default:
        return m_status.stun_nat == NAT_HOST_NAT_DIFFERENT && why == NAT_WHY_MAPPED_BY_STUN
                   ? "the NAT maps differently for each destination: configure a port forwarding instead of STUN"
                   : "nothing";
    }
  }

  std::string NoPublicSide() const {
    if (IsMedia()) {
      return "set nat.gw_public_ip, or nat.gw_use_stun";
    }
    switch (m_question.kind) {
      case NAT_HOST_UDP:
        return "set nat.sip_udp_public_ip, or nat.sip_udp_use_stun";
      case NAT_HOST_TCP:
        return "set nat.sip_tcp_public_ip";
      default:
        return "nothing can be set: there are no settings for TLS ports";
    }
  }

  const AgentLibrary& m_library;
  const StatusRequest& m_request;
  NatHostQuestion m_question;
  NatHostExplanation m_found{};
  NatHostStatus m_status{};
  NatHostParty m_asker{};
  NatHostParty m_server{};
  NatHostParty m_cm{};
  Json m_steps = Json::array();
};

}  // namespace

Json Explain(const AgentLibrary& library, const StatusRequest& request, std::uint32_t address) {
  return Explanation(library, request, address).Tell();
}
