#include "tools/open_metrics.h"

#include <map>

namespace {

using Json = nlohmann::ordered_json;

// A label's value, escaped: OpenMetrics 1.0, "Escaping".
std::string Escaped(const std::string& value) {
  std::string text;
  for (const char c : value) {
    text += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
  }
  return text;
}

std::string Labels(const Json& labels) {
  std::string text;
  for (const auto& [name, value] : labels.items()) {
    text += (text.empty() ? "{" : ",") + name + "=\"" + Escaped(value.get<std::string>()) + "\"";
  }
  return text.empty() ? text : text + "}";
}

class Exposition {
 public:
  void Family(const std::string& name, const std::string& type, const std::string& help) {
    m_name = "natagent_" + name;
    m_suffix = type == "counter" ? "_total" : type == "info" ? "_info" : "";
    m_text += "# TYPE " + m_name + " " + type + "\n# HELP " + m_name + " " + help + "\n";
  }
  void Sample(const Json& labels, const Json& value) {
    m_text += m_name + m_suffix + Labels(labels) + " " +
              (value.is_boolean() ? (value.get<bool>() ? "1" : "0") : value.dump()) + "\n";
  }
  std::string End() { return m_text + "# EOF\n"; }

 private:
  std::string m_name;
  std::string m_suffix;
  std::string m_text;
};

void AddGauges(const Json& summary, Exposition& out) {
  out.Family("daemon", "info", "The running natagentd.");
  out.Sample({{"version", summary["version"]}}, 1);
  out.Family("party_connected", "gauge", "Whether the party of a queue is connected.");
  for (const Json& party : summary["parties"]) {
    out.Sample({{"party", party["party"]}}, party["connected"]);
  }
  out.Family("settings_loaded", "gauge", "Whether these settings are in force.");
  for (const char* const settings : {"signalling", "media", "exclusions"}) {
    out.Sample({{"settings", settings}}, summary[settings]["state"] == "loaded");
  }
  out.Family("uplink_up", "gauge", "Whether there is a default route with an address.");
  out.Sample(Json::object(), !summary["uplink"]["address"].is_null());
  out.Family("exclusion_rules", "gauge", "Exclusion rules in force.");
  out.Sample(Json::object(), summary["exclusions"]["rules"]);
  out.Family("open_calls", "gauge", "RTP query ids that have not been closed.");
  out.Sample(Json::object(), summary["calls"]);
  out.Family("waiting_names", "gauge", "Requests that wait for a name.");
  out.Sample(Json::object(), summary["names"]);
  out.Family("stun", "stateset", "How the STUN server stands.");
  for (const char* const state : {"off", "waiting", "asking", "works", "doubted", "silent", "refusing"}) {
    out.Sample({{"natagent_stun", state}}, summary["stun"]["state"] == state);
  }
  out.Family("stun_ports", "gauge", "Ports that STUN watches.");
  out.Sample(Json::object(), summary["stun"].value("ports", 0));
  out.Family("stun_ports_learnt", "gauge", "Of these, how many have a known public side.");
  out.Sample(Json::object(), summary["stun"].value("learnt", 0));
}

}  // namespace

std::string OpenMetrics(const Json& summary, const std::vector<Json>& counters) {
  Exposition out;
  AddGauges(summary, out);
  constexpr struct {
    const char* counter;
    const char* family;
    const char* help;
  } kCounters[] = {
      {"requests", "requests", "Requests by party and kind."},
      {"items", "items", "Answered items by party, kind, outcome and reason."},
      {"refusals", "refusals", "Connections and requests that were refused."},
      {"undelivered answers", "undelivered_answers", "Answers for parties that had gone."},
      {"dropped requests", "dropped_requests", "Requests dropped that gone parties had left."},
      {"looked up names", "names", "Look-ups of destinations."},
      {"changed mappings", "changed_mappings", "Mappings that STUN saw change."},
  };
  for (const auto& [counter, family, help] : kCounters) {
    out.Family(family, "counter", help);
    for (const Json& row : counters) {
      if (row["counter"] == counter) {
        Json labels = row;
        labels.erase("counter");
        labels.erase("value");
        out.Sample(labels, row["value"]);
      }
    }
  }
  return out.End();
}
