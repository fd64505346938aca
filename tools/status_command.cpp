#include "tools/status_command.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "client/natclient.h"
#include "platform/did_you_mean.h"
#include "tools/parsing.h"

namespace {

struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string Quoted(const std::string& word) { return "'" + word + "'"; }

constexpr std::string_view kTopics[] = {"parties", "mappings", "stun",     "calls", "exclusions",
                                        "names",   "config",   "counters", "uplink"};

void TakeFormat(const std::string& word, StatusCommand& command) {
  if (word == "json") {
    command.json = true;
  } else if (word == "openmetrics") {
    command.openMetrics = true;
  } else if (word != "text") {
    throw Fault("--format: " + Quoted(word) + " is not text, json or openmetrics");
  }
}

void TakeStatus(const std::vector<std::string>& words, StatusCommand& command) {
  bool hasTopic = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--format") {
      if (++i == words.size()) throw Fault("--format: text, json or openmetrics is missing");
      TakeFormat(words[i], command);
    } else if (words[i].starts_with("--format=")) {
      TakeFormat(words[i].substr(9), command);
    } else if (std::find(std::begin(kTopics), std::end(kTopics), words[i]) == std::end(kTopics)) {
      throw Fault(Quoted(words[i]) +
                  " is not a topic: parties, mappings, stun, calls, exclusions, names, config, "
                  "counters or uplink" +
                  DidYouMean(words[i], kTopics));
    } else if (std::exchange(hasTopic, true)) {
      throw Fault(Quoted(words[i]) + " is one topic too many");
    } else {
      command.topic = words[i];
    }
  }
  if (command.openMetrics && (hasTopic || command.json)) throw Fault("--format openmetrics stands alone");
  command.request = {{"get", command.topic}};
}

void TakeMonitor(const std::vector<std::string>& words, StatusCommand& command) {
  command.request = {{"monitor", true}, {"log", false}};
  for (const std::string& word : words) {
    if (word != "--log") throw Fault(Quoted(word) + " is too much");
    command.request["log"] = true;
  }
}

void TakeExplain(const std::vector<std::string>& words, StatusCommand& command) {
  if (words.size() < 3) throw Fault("PARTY DEST IP:PORT are needed");
  const auto party = ParseParty(words[0]);
  if (!party || *party == NATCLIENT_CGI) throw Fault(Quoted(words[0]) + " is not a party: sip, q113, cm or cc");
  const auto item = ParseItem(words[2]);
  if (!item) throw Fault(Quoted(words[2]) + " is not IP:PORT");
  nlohmann::ordered_json question{
      {"party", words[0]}, {"dest", words[1]}, {"ip", AddressText(item->ip)}, {"port", item->port}};
  for (std::size_t i = 3; i < words.size(); ++i) {
    const std::string& word = words[i];
    const bool isKind = word == "udp" || word == "tcp" || word == "tls" || word == "rtp";
    const char* const key = isKind ? "kind" : "server";
    if (!isKind && word != "server=sip" && word != "server=cm" && word != "server=cc") {
      throw Fault(Quoted(word) + " is not udp, tcp, tls, rtp, or server= with sip, cm or cc");
    }
    if (question.contains(key)) throw Fault(Quoted(word) + " is one too many");
    question[key] = isKind ? word : word.substr(7);
  }
  command.request = {{"explain", std::move(question)}};
}

}  // namespace

StatusCommandResult ParseStatusCommand(const std::vector<std::string>& words) {
  StatusCommand command;
  std::vector<std::string> rest(words.begin() + 1, words.end());
  command.json = std::erase(rest, "--json") > 0;
  try {
    if (words.front() == "status") {
      TakeStatus(rest, command);
    } else if (words.front() == "monitor") {
      command.kind = StatusCommand::Kind::MONITOR;
      TakeMonitor(rest, command);
    } else {
      command.kind = StatusCommand::Kind::EXPLAIN;
      TakeExplain(rest, command);
    }
    return {std::move(command), {}};
  } catch (const Fault& fault) {
    return {std::nullopt, words.front() + ": " + fault.what()};
  }
}
