#include "tools/status_plain.h"

#include <algorithm>

#include "tools/terminal.h"

namespace {

using Json = nlohmann::ordered_json;

// A value as people read it; nothing stands for one that is absent.
std::string Text(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.is_null() ? "none" : value.dump();
}

std::string Text(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() ? "" : Text(*found);
}

bool IsSet(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && !found->is_null();
}

// `before` and the value, when there is one.
std::string With(const char* before, const Json& object, const char* key) {
  return IsSet(object, key) ? before + Text(object, key) : "";
}

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size() + 1, width), ' ');
  return text;
}

std::string Line(const std::string& text) { return Printable(text) + "\n"; }

std::string Titled(const char* title, const std::string& text) { return Line(Padded(title, 13) + text); }

// "3 mapped, 1 excluded"
std::string Counts(const Json& counts) {
  std::string text;
  for (const auto& [name, count] : counts.items()) {
    text += (text.empty() ? "" : ", ") + Text(count) + " " + name;
  }
  return text;
}

std::string Party(const Json& party) {
  std::string text = "not connected";
  if (party.value("connected", false)) {
    text = "since " + Text(party, "since") + ": process " + Text(party, "pid") + ", user " + Text(party, "uid") +
           ", program " + Text(party, "program");
  }
  for (const char* const key : {"requests", "outcomes", "refused"}) {
    if (party.contains(key) && !party[key].empty()) {
      text += std::string("; ") + key + ": " + Counts(party[key]);
    }
  }
  return text;
}

std::string Uplink(const Json& uplink) {
  return IsSet(uplink, "address")
             ? Text(uplink, "address") + With(" on ", uplink, "interface") + With(" through ", uplink, "gateway")
             : "none";
}

std::string Stun(const Json& stun) {
  std::string text = Text(stun, "state");
  if (stun.contains("ports")) {
    text += With(", server ", stun, "server") + ", " + Text(stun, "learnt") + " of " + Text(stun, "ports") +
            " ports learnt, NAT " + Text(stun, "nat");
  }
  return text;
}

std::string Loaded(const Json& loaded) { return Text(loaded, "state") + With(" since ", loaded, "since"); }

std::string Mapping(const Json& row) {
  if (row.contains("port")) {
    return Padded("port " + Text(row, "port"), 12) + "-> " + Padded(Text(row, "mapped"), 22) +
           With(" by ", row, "server") + With(", heard s ago: ", row, "age_s") + ", next turn " +
           (IsSet(row, "next_s") ? "in s: " + Text(row, "next_s") : "now") +
           (row.contains("unsettled") ? ", unsettled" : "");
  }
  return Padded(Text(row, "mapping"), 9) + Text(row, "local") +
         (row.contains("public") ? " -> " + Text(row, "public") : "") + " by " + Text(row, "by") + ", of " +
         Text(row, "party");
}

std::string Summary(const Json& value) {
  std::string text = Line("natagentd " + Text(value, "version") + ", process " + Text(value, "pid") + ", since " +
                          Text(value, "started"));
  text += Titled("uplink", Uplink(value["uplink"]));
  text += Titled("config", Text(value["config"], "origin") + ", read " + Text(value["config"], "read"));
  for (const Json& party : value["parties"]) {
    text += Titled(Text(party, "party").c_str(), Party(party));
  }
  text += Titled("signalling", Loaded(value["signalling"]));
  text += Titled("media", Loaded(value["media"]));
  text += Titled("exclusions", Loaded(value["exclusions"]) + ", " + Text(value["exclusions"], "rules") + " rules");
  for (const Json& mapping : value["mappings"]) {
    text += Titled("mapping", Mapping(mapping));
  }
  text += Titled("stun", Stun(value["stun"]));
  text += Titled("calls", Text(value, "calls") + " open");
  return text + Titled("names", Text(value, "names") + " wait");
}

std::string Config(const Json& value) {
  std::string text = Line(Text(value, "origin") + ", read " + Text(value, "read"));
  for (const auto& [table, keys] : value.items()) {
    if (keys.is_object()) {
      text += Line("[" + table + "]");
      for (const auto& [key, setting] : keys.items()) {
        text += Line(Padded(key, 21) + "= " + setting.dump());
      }
    }
  }
  return text;
}

}  // namespace

std::string PlainValue(const std::string& topic, const Json& value) {
  return topic == "summary"  ? Summary(value)
         : topic == "config" ? Config(value)
                             : Line(topic == "uplink" ? Uplink(value) : Stun(value));
}

std::string PlainRow(const std::string& topic, const Json& row) {
  if (topic == "parties") {
    return Titled(Text(row, "party").c_str(), Party(row));
  }
  if (topic == "mappings") {
    return Line(Mapping(row));
  }
  if (topic == "calls") {
    return Line(Padded("id " + Text(row, "id"), 24) + Text(row, "local") + " -> " + Text(row, "public"));
  }
  if (topic == "exclusions") {
    return Line(Padded(Text(row, "ip"), 16) + Text(row, "mask"));
  }
  if (topic == "names") {
    return Line(Text(row, "name") + ", asked by " + Text(row, "party") + " under id " + Text(row, "id") + ", " +
                Text(row, "items") + " items" + (row.contains("party_gone") ? ", which has gone" : ""));
  }
  std::string text = Padded(Text(row, "counter"), 21);
  for (const char* const key : {"party", "kind", "outcome", "reason"}) {
    text += IsSet(row, key) ? Text(row, key) + "  " : "";
  }
  return Line(text + Text(row, "value"));
}

std::string PlainEvent(const Json& event) {
  std::string text = With("", event, "time") + (event.contains("time") ? "  " : "");
  if (event.contains("line")) {
    return Line(text + "log  " + Text(event, "line"));
  }
  text += Text(event, "event");
  for (const auto& [key, value] : event.items()) {
    if (key != "event" && key != "time") {
      text += "  " + key + " " + Text(value);
    }
  }
  return Line(text);
}

std::string PlainExplanation(const Json& explanation) {
  std::string text;
  for (const Json& step : explanation["steps"]) {
    text += Titled(Text(step, "step").c_str(), Text(step, "text"));
  }
  return text + Titled("answer", Text(explanation, "answer") + ": " + Text(explanation, "reason")) +
         Titled("to do", Text(explanation, "advice"));
}
