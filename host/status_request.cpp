#include "host/status_request.h"

#include <arpa/inet.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/status_words.h"
#include "platform/messaging/frame.h"

namespace {

using Json = nlohmann::json;

// Why a request cannot be taken.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string Text(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string()) {
    throw Fault(std::string("\"") + key + "\" must be a string");
  }
  return found->get<std::string>();
}

std::uint64_t Number(const Json& value, const char* what, std::uint64_t most) {
  if (!value.is_number_unsigned() || value.get<std::uint64_t>() > most) {
    throw Fault(std::string(what) + " must be a number of 0.." + std::to_string(most));
  }
  return value.get<std::uint64_t>();
}

void ReadGet(const Json& object, StatusRequest& request) {
  request.topic = Text(object, "get");
  const auto next = object.find("next");
  if (next == object.end()) {
    return;
  }
  if (!next->is_array() || next->size() != request.next.size()) {
    throw Fault("\"next\" must be what an answer gave");
  }
  std::transform(next->begin(), next->end(), request.next.begin(),
                 [](const Json& each) { return Number(each, "each of \"next\"", UINT64_MAX); });
}

std::uint32_t ServerOf(const std::string& party) {
  constexpr std::pair<const char*, std::uint32_t> kServers[] = {{"cm", 0}, {"sip", 1}, {"q113", 2}, {"cc", 3}};
  for (const auto& [name, protocol] : kServers) {
    if (party == name) {
      return protocol;
    }
  }
  throw Fault("\"server\" must be sip, cm or cc");
}

std::uint32_t PortKindOf(const std::string& word) {
  constexpr std::pair<const char*, std::uint32_t> kKinds[] = {
      {"udp", NAT_HOST_UDP}, {"tcp", NAT_HOST_TCP}, {"tls", NAT_HOST_TLS}, {"rtp", NAT_HOST_RTP}};
  for (const auto& [name, kind] : kKinds) {
    if (word == name) {
      return kind;
    }
  }
  throw Fault("\"kind\" must be udp, tcp, tls or rtp");
}

void ReadExplain(const Json& object, StatusRequest& request) {
  request.kind = StatusRequest::Kind::EXPLAIN;
  if (!object.is_object()) {
    throw Fault("\"explain\" must be an object");
  }
  NatHostQuestion& question = request.question;
  question.size = sizeof question;
  const std::string party = Text(object, "party");
  question.queue = QueueOfParty(party);
  if (question.queue < 112) {
    throw Fault("\"party\" must be sip, q113, cm or cc");
  }
  request.destination = Text(object, "dest");
  if (request.destination.empty() || request.destination.size() > messaging::kMaxTextBytes ||
      !std::all_of(request.destination.begin(), request.destination.end(), messaging::IsDestinationByte)) {
    throw Fault("\"dest\" must have 1..255 bytes, and no blank or control character");
  }
  if (::inet_pton(AF_INET, Text(object, "ip").c_str(), &question.local.ip) != 1) {
    throw Fault("\"ip\" must be a dotted address");
  }
  question.local.port = static_cast<std::uint16_t>(Number(object.value("port", Json()), "\"port\"", UINT16_MAX));
  question.kind = object.contains("kind") ? PortKindOf(Text(object, "kind")) : std::uint32_t{NAT_HOST_UDP};
  question.server = ServerOf(object.contains("server") ? Text(object, "server") : party);
}

void Read(const Json& object, StatusRequest& request) {
  if (!object.is_object()) {
    throw Fault("a request must be a JSON object");
  }
  if (object.contains("get")) {
    return ReadGet(object, request);
  }
  if (object.contains("explain")) {
    return ReadExplain(object["explain"], request);
  }
  if (!object.contains("monitor")) {
    throw Fault("a request must have \"get\", \"explain\" or \"monitor\"");
  }
  request.kind = StatusRequest::Kind::MONITOR;
  const auto log = object.find("log");
  request.withLog = log != object.end() && log->is_boolean() && log->get<bool>();
}

}  // namespace

StatusRequestResult ParseStatusRequest(std::string_view line) {
  try {
    StatusRequest request;
    Read(Json::parse(line), request);
    return {std::move(request), {}};
  } catch (const Fault& fault) {
    return {std::nullopt, fault.what()};
  } catch (const Json::parse_error&) {
    return {std::nullopt, "not a JSON object in one line"};
  }
}
