#include "tools/stun_runner.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <system_error>
#include <thread>

#include "platform/sockets/host_lookup.h"
#include "tools/agent_mapping.h"
#include "tools/parsing.h"
#include "tools/terminal.h"

namespace {

using Json = nlohmann::ordered_json;

std::string Text(const stun::Endpoint& endpoint) {
  return AddressText(endpoint.address) + ":" + std::to_string(endpoint.port);
}

// Milliseconds with one decimal.
double Rounded(std::chrono::microseconds time) { return std::round(static_cast<double>(time.count()) / 100) / 10; }

class Runner {
 public:
  Runner(const std::string& runtimeDir, const Timeouts& timeouts, Printer& printer, const WaitReadable& waitReadable)
      : m_runtimeDir(runtimeDir),
        m_timeouts(timeouts),
        m_printer(printer),
        m_waitReadable(waitReadable),
        m_query(waitReadable) {}

  ExitStatus Run(const StunCommand& command) {
    const int error = m_query.Bind(command.localPort);
    if (error == EADDRINUSE && command.localPort != 0) {
      TellLearnt(command.localPort);
    } else if (error != 0) {
      const std::string port = command.localPort == 0 ? "a port" : "port " + std::to_string(command.localPort);
      Fail(Json{{"error", "local-port"}}, "",
           "UDP " + port + " cannot be bound: " + std::generic_category().message(error));
    } else {
      for (const StunCommand::Server& server : command.servers) AskServer(server);
      if (m_asked > 1) Compare();
    }
    return m_printer.Flush() && !m_isUnanswered ? ExitStatus::ANSWERED : ExitStatus::UNANSWERED;
  }

 private:
  // The port belongs to another program. The agent asks from it without taking it, so what the agent has learnt is
  // told. It is read from status.sock: a party's queue gives decisions only, is taken by the port's owner as a rule,
  // and loads settings when somebody else connects.
  void TellLearnt(u16 port) {
    std::string error;
    const auto row = FindLearntPort(m_runtimeDir, port, stun::Clock::now() + m_timeouts.contact, error);
    const std::string local = "*:" + std::to_string(port);
    if (!row) {
      const std::string why = error.empty() ? "has learnt nothing of it (sip_udp_use_stun, gw_use_stun)"
                                            : "cannot be asked for it: " + error;
      return Fail(Json{{"error", "local-port"}}, "",
                  "UDP port " + std::to_string(port) +
                      " cannot be bound: it is in use by another program, and the agent " + why);
    }
    const std::string server = row->value("server", "");
    const std::string mapped = row->value("mapped", "");
    const Json age = row->value("age_s", Json());
    Tell(Json{{"stun", server}, {"local", local}, {"mapped", mapped}, {"by", "agent"}, {"age_s", age}},
         Printable(server + "  " + local + " -> " + mapped) + "  by the agent, " + age.dump() + " s ago");
  }

  // On a thread of its own, so that the waiting stays with who lends it.
  std::vector<u32> LookUp(const std::string& host) {
    const auto deadline = stun::Clock::now() + m_timeouts.answer;
    const UniqueFd ended(::eventfd(0, EFD_CLOEXEC));
    std::vector<u32> addresses;
    {
      const std::jthread thread([&] {
        addresses = sockets::LookUpHostAddresses(host.c_str(), std::stop_token(), deadline);
        ::eventfd_write(ended.Get(), 1);
      });
      m_waitReadable(ended.Get(), deadline);
    }
    return addresses;
  }

  void AskServer(const StunCommand::Server& server) {
    const std::vector<u32> addresses = LookUp(server.host);
    if (addresses.empty()) {
      const std::string name = server.host + ":" + std::to_string(server.port);
      ++m_asked;
      Fail(Json{{"stun", name}, {"error", "unreachable"}}, name, "no IPv4 address is known for the name");
    }
    for (const u32 address : addresses) AskAddress({address, server.port});
  }

  void AskAddress(const stun::Endpoint& server) {
    m_printer.Flush();
    ++m_asked;
    const StunOutcome outcome = m_query.Ask(server, stun::Clock::now() + m_timeouts.contact);
    if (!outcome.mapped) {
      Fail(Json{{"stun", Text(server)}, {"error", outcome.error}}, Text(server), outcome.text);
      return;
    }
    m_mapped.push_back(*outcome.mapped);
    const double roundTrip = Rounded(outcome.roundTrip);
    Json object{{"stun", Text(server)},
                {"local", Text(outcome.local)},
                {"mapped", Text(*outcome.mapped)},
                {"rtt_ms", roundTrip}};
    std::string line = Text(server) + "  " + Text(outcome.local) + " -> " + Text(*outcome.mapped) + "  " +
                       object["rtt_ms"].dump() + " ms";
    if (outcome.sends > 1) {
      object["sends"] = outcome.sends;
      line += ", after " + std::to_string(outcome.sends) + " requests";
    }
    Tell(object, line);
  }

  void Compare() {
    if (m_mapped.size() < 2) {
      Tell(Json{{"nat", "unknown"}}, "fewer than two servers answered: whether the NAT maps alike is not known");
    } else if (std::all_of(m_mapped.begin(), m_mapped.end(), [&](const auto& each) { return each == m_mapped[0]; })) {
      Tell(Json{{"nat", "same"}}, "the same mapping toward each: what STUN learns holds for others too");
    } else {
      Tell(Json{{"nat", "different"}}, "different mappings: what STUN learns holds for the server alone");
    }
  }

  void Tell(const Json& object, const std::string& line) {
    m_printer.Print(m_printer.IsJson() ? Line(object) : line + "\n", false);
  }

  // `whom`: empty, or the server it is about.
  void Fail(Json object, const std::string& whom, const std::string& text) {
    m_isUnanswered = true;
    if (!text.empty()) object["text"] = text;
    const std::string reason = text.empty() ? "no answer in time" : text;
    const std::string plain = "natctl: stun " + Printable(whom.empty() ? reason : whom + ": " + reason) + "\n";
    m_printer.Print(m_printer.IsJson() ? Line(object) : plain, true);
  }

  static std::string Line(const Json& object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }

  const std::string& m_runtimeDir;
  const Timeouts& m_timeouts;
  Printer& m_printer;
  const WaitReadable& m_waitReadable;
  StunQuery m_query;
  std::size_t m_asked = 0;
  std::vector<stun::Endpoint> m_mapped;
  bool m_isUnanswered = false;
};

}  // namespace

ExitStatus RunStun(const StunCommand& command, const std::string& runtimeDir, const Timeouts& timeouts,
                   Printer& printer, const WaitReadable& waitReadable) {
  return Runner(runtimeDir, timeouts, printer, waitReadable).Run(command);
}
