#include "host/status_report.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <vector>

#include "host/status_words.h"
#include "platform/messaging/runtime_dir.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kRowsPerAnswer = 256;

struct ReadError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

int Check(int result) {
  if (result < 0) {
    throw ReadError(ReadFault(result));
  }
  return result;
}

double Seconds(std::int64_t milliseconds) { return static_cast<double>(milliseconds) / 1000; }

NatHostStatus ReadStatus(const AgentLibrary& library) {
  NatHostStatus status{};
  status.size = sizeof status;
  Check(library.readStatus(&status));
  return status;
}

Json Uplink(const NatHostStatus& status) {
  if (status.uplink_ip == 0) {
    return Json{{"address", nullptr}};
  }
  Json uplink{{"address", IpText(status.uplink_ip)}, {"interface", InterfaceOf(status.uplink_ip)}};
  uplink["gateway"] = status.uplink_gateway == 0            ? Json(nullptr)
                      : status.uplink_gateway == UINT32_MAX ? Json("without an IPv4 address")
                                                            : Json(IpText(status.uplink_gateway));
  return uplink;
}

Json Stun(const NatHostStatus& status) {
  Json stun{{"state", StunWord(status.stun_state)}};
  if (status.stun_state != NAT_HOST_STUN_OFF) {
    stun["server"] = status.stun_server.ip == 0 ? Json(nullptr) : Json(EndpointText(status.stun_server));
    stun["nat"] = NatWord(status.stun_nat);
    stun["ports"] = status.stun_ports;
    stun["learnt"] = status.stun_ports_learnt;
  }
  return stun;
}

Json Loaded(std::uint32_t state, std::int64_t since) {
  Json loaded{{"state", LoadWord(state)}};
  if (since != 0) {
    loaded["since"] = TimeText(since);
  }
  return loaded;
}

// Part `part` of a listing: `list` gives rows of the library, `tell` makes one row of the answer of each.
template <class Row, class Function, class Tell>
bool ListPart(Function list, std::array<std::uint64_t, 3>& next, Json& rows, Tell tell) {
  NatHostPlace place{next[1], next[2]};
  while (rows.size() < kRowsPerAnswer) {
    Row page[16] = {};
    page[0].size = sizeof(Row);
    const int count = Check(list(&place, page, std::size(page)));
    for (int i = 0; i < count; ++i) {
      rows.push_back(tell(page[i]));
    }
    next[1] = place.at;
    next[2] = place.within;
    if (count == 0) {
      next = {next[0] + 1, 0, 0};
      return true;
    }
  }
  return false;
}

const char* WhatWord(std::uint32_t what) {
  constexpr const char* kWords[] = {"sip udp", "sip tcp", "sip tls", "media"};
  return kWords[what & 3U];
}

std::string PortsText(std::uint16_t first, std::uint16_t last) {
  return first == last ? std::to_string(first) : std::to_string(first) + "-" + std::to_string(last);
}

Json TellMapping(const NatHostMapping& row) {
  constexpr const char* kBys[] = {"nothing", "configuration", "stun"};
  Json told{
      {"mapping", WhatWord(row.what)},
      {"by", kBys[row.by % std::size(kBys)]},
      {"party", row.what == NAT_HOST_MEDIA ? "cm" : "sip"},
      {"local", (row.local_ip == 0 ? "*" : IpText(row.local_ip)) + ":" + PortsText(row.local_start, row.local_end)}};
  if (row.by == NAT_HOST_BY_CONFIGURATION) {
    told["public"] = row.public_ip == 0
                         ? Json(nullptr)
                         : Json(IpText(row.public_ip) + ":" + PortsText(row.public_start, row.public_end));
  }
  return told;
}

Json TellPort(const NatHostPort& row) {
  Json told{{"port", row.port},
            {"media", row.is_media != 0},
            {"mapped", row.mapped.ip == 0 ? Json(nullptr) : Json(EndpointText(row.mapped))}};
  if (row.mapped.ip != 0) {
    told["server"] = EndpointText(row.server);
  }
  if (row.age >= 0) {
    told["age_s"] = Seconds(row.age);
  }
  told["next_s"] = row.next < 0 ? Json(nullptr) : Json(Seconds(row.next));
  if (row.is_unsettled != 0) {
    told["unsettled"] = true;
  }
  return told;
}

Json TellCall(const NatHostCall& row) {
  return {{"id", row.id},
          {"local", row.local.ip == 0 ? Json(nullptr) : Json(EndpointText(row.local))},
          {"public", EndpointText(row.mapped)}};
}

Json TellExclusion(const NatHostExclusion& row) { return {{"ip", IpText(row.ip)}, {"mask", IpText(row.mask)}}; }

Json TellName(const NatHostName& row) {
  Json told{{"name", row.name}, {"party", PartyWord(row.queue)}, {"id", row.id}, {"items", row.items}};
  if (row.is_left != 0) {
    told["party_gone"] = true;
  }
  return told;
}

Json TellCounter(const NatHostCounter& row) {
  Json told;
  switch (row.what) {
    case NAT_COUNT_REQUESTS:
      told = {{"counter", "requests"}, {"party", PartyWord(row.queue)}, {"kind", KindWord(row.kind)}};
      break;
    case NAT_COUNT_ITEMS:
      told = {{"counter", "items"},
              {"party", PartyWord(row.queue)},
              {"kind", KindWord(row.kind)},
              {"outcome", row.kind == 4 && row.reason != NAT_WHY_FAULT
                              ? (row.reason == NAT_WHY_FOUND ? "found" : "not found")
                              : FlagWordOfWhy(row.reason)},
              {"reason", WhyWord(row.reason)}};
      break;
    case NAT_COUNT_REFUSALS:
      told = {{"counter", "refusals"}, {"party", PartyWord(row.queue)}, {"reason", RefusalWord(row.reason)}};
      break;
    case NAT_COUNT_UNDELIVERED:
      told = {{"counter", "undelivered answers"}, {"party", PartyWord(row.queue)}};
      break;
    case NAT_COUNT_DROPPED:
      told = {{"counter", "dropped requests"}, {"party", PartyWord(row.queue)}};
      break;
    case NAT_COUNT_CHANGES:
      told = {{"counter", "changed mappings"}};
      break;
    default:
      told = {{"counter", "looked up names"}, {"outcome", row.reason == 1 ? "found" : "failed"}};
      break;
  }
  told["value"] = row.value;
  return told;
}

// Everything that is counted, in one piece: it is bounded.
std::vector<NatHostCounter> ReadCounters(const AgentLibrary& library) {
  std::vector<NatHostCounter> counters;
  NatHostPlace place{};
  for (;;) {
    NatHostCounter page[16] = {};
    page[0].size = sizeof page[0];
    const int count = Check(library.listCounters(&place, page, std::size(page)));
    if (count == 0) {
      return counters;
    }
    counters.insert(counters.end(), page, page + count);
  }
}

Json TellParty(const NatHostParty& party, const std::vector<NatHostCounter>& counters) {
  Json told{{"party", PartyWord(party.queue)}, {"queue", party.queue}, {"connected", party.connected != 0}};
  if (party.connected != 0) {
    told["pid"] = party.pid;
    told["uid"] = party.uid;
    told["program"] = party.program;
    told["since"] = TimeText(party.since);
  }
  Json requests = Json::object();
  std::map<std::string, std::uint64_t> outcomes;
  std::map<std::string, std::uint64_t> refused;
  for (const NatHostCounter& each : counters) {
    if (each.queue != party.queue) {
      continue;
    }
    if (each.what == NAT_COUNT_REQUESTS) {
      requests[KindWord(each.kind)] = each.value;
    } else if (each.what == NAT_COUNT_ITEMS) {
      outcomes[TellCounter(each)["outcome"]] += each.value;
    } else if (each.what == NAT_COUNT_REFUSALS) {
      refused[RefusalWord(each.reason)] += each.value;
    }
  }
  told["requests"] = std::move(requests);
  told["outcomes"] = outcomes.empty() ? Json::object() : Json(outcomes);
  if (!refused.empty()) {
    told["refused"] = refused;
  }
  return told;
}

Json Parties(const AgentLibrary& library) {
  const std::vector<NatHostCounter> counters = ReadCounters(library);
  Json parties = Json::array();
  for (const messaging::QueueInfo& queue : messaging::kQueues) {
    NatHostParty party{};
    party.size = sizeof party;
    Check(library.readParty(queue.number, &party));
    parties.push_back(TellParty(party, counters));
  }
  return parties;
}

Json Summary(const AgentLibrary& library, const HostFacts& facts) {
  const NatHostStatus status = ReadStatus(library);
  Json summary{{"version", NATAGENT_VERSION}, {"pid", ::getpid()}, {"started", TimeText(status.started)}};
  summary["uplink"] = Uplink(status);
  summary["parties"] = Parties(library);
  summary["signalling"] = Loaded(status.signalling, status.signalling_since);
  summary["media"] = Loaded(status.media, status.media_since);
  summary["exclusions"] =
      Loaded(status.exclusions_since != 0 ? NAT_HOST_LOADED : NAT_HOST_NOT_LOADED, status.exclusions_since);
  summary["exclusions"]["rules"] = status.exclusions;
  Json mappings = Json::array();
  std::array<std::uint64_t, 3> next{};
  ListPart<NatHostMapping>(library.listMappings, next, mappings, TellMapping);
  summary["mappings"] = std::move(mappings);
  summary["stun"] = Stun(status);
  summary["calls"] = status.calls;
  summary["names"] = status.names;
  summary["config"] = Json{{"origin", facts.config["origin"]}, {"read", facts.config["read"]}};
  return summary;
}

// The rows of a listing; false for a topic that is none.
bool ListRows(const AgentLibrary& library, const StatusRequest& request, Json& answer) {
  std::array<std::uint64_t, 3> next = request.next;
  Json rows = Json::array();
  bool isDone = true;
  const std::string& topic = request.topic;
  if (topic == "mappings") {
    if (next[0] == 0) {
      isDone = ListPart<NatHostMapping>(library.listMappings, next, rows, TellMapping);
    }
    if (isDone) {
      isDone = ListPart<NatHostPort>(library.listPorts, next, rows, TellPort);
    }
  } else if (topic == "calls") {
    isDone = ListPart<NatHostCall>(library.listCalls, next, rows, TellCall);
  } else if (topic == "exclusions") {
    isDone = ListPart<NatHostExclusion>(library.listExclusions, next, rows, TellExclusion);
  } else if (topic == "names") {
    isDone = ListPart<NatHostName>(library.listNames, next, rows, TellName);
  } else if (topic == "counters") {
    isDone = ListPart<NatHostCounter>(library.listCounters, next, rows, TellCounter);
  } else if (topic == "parties") {
    rows = Parties(library);
  } else {
    return false;
  }
  answer["rows"] = std::move(rows);
  if (!isDone) {
    answer["next"] = next;
  }
  return true;
}

}  // namespace

nlohmann::ordered_json StatusError(const std::string& text) { return Json{{"error", text}}; }

std::string ReadFault(int result) {
  return result == -ESRCH   ? "the agent does not run"
         : result == -EBUSY ? "the agent's thread is busy and did not let itself be looked at within a second"
                            : std::string("the agent cannot be read: ") + std::strerror(-result);
}

nlohmann::ordered_json Report(const AgentLibrary& library, const HostFacts& facts, const StatusRequest& request) {
  try {
    Json answer{{"topic", request.topic}};
    if (request.topic == "summary") {
      answer["value"] = Summary(library, facts);
    } else if (request.topic == "uplink") {
      answer["value"] = Uplink(ReadStatus(library));
    } else if (request.topic == "stun") {
      answer["value"] = Stun(ReadStatus(library));
    } else if (request.topic == "config") {
      answer["value"] = facts.config;
    } else if (!ListRows(library, request, answer)) {
      return StatusError("there is no topic of that name");
    }
    return answer;
  } catch (const ReadError& error) {
    return StatusError(error.what());
  }
}
