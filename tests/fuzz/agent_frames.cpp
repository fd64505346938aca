// What a party reads from its queue: libnatclient's handlers, natctl's account of its requests, and what it prints.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "platform/unique_fd.h"
#include "tests/fuzz/fuzz.h"
#include "tools/connection.h"

// Instead of natctl's own, which would print.
void Printer::Print(const Event& event) {
  const std::string json = JsonLine(event);
  fuzz::Require(json.find('\n') == json.size() - 1, "an object is one line");
  const std::string plain = PlainLines(event);
  fuzz::Require(plain.ends_with('\n'), "a plain line has an end");
  const auto isShown = [](char c) { return (c >= ' ' && c <= '~') || c == '\n'; };
  fuzz::Require(std::all_of(plain.begin(), plain.end(), isShown), "a plain line controls no terminal");
}

namespace {

constexpr natclient_party kParties[] = {NATCLIENT_CGI, NATCLIENT_SIP, NATCLIENT_Q113, NATCLIENT_CM, NATCLIENT_CC};

// A runtime directory with all queues, for as long as the program runs.
class Queues {
 public:
  Queues() : m_directory(std::filesystem::temp_directory_path() / "natagent-fuzz-XXXXXX") {
    fuzz::Require(::mkdtemp(m_directory.data()) != nullptr, "a directory");
    for (std::size_t i = 0; i < std::size(kParties); ++i) {
      sockaddr_un address{AF_UNIX, {}};
      const std::string path = m_directory + "/queue-" + std::to_string(kParties[i]);
      path.copy(address.sun_path, sizeof address.sun_path - 1);
      m_listeners[i] = UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
      fuzz::Require(::bind(m_listeners[i].Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                        ::listen(m_listeners[i].Get(), 1) == 0,
                    "a queue");
    }
  }
  ~Queues() { std::filesystem::remove_all(m_directory); }
  Queues(const Queues&) = delete;
  Queues& operator=(const Queues&) = delete;

  const std::string& Directory() const { return m_directory; }
  UniqueFd Accept(std::size_t party) const { return UniqueFd(::accept(m_listeners[party].Get(), nullptr, nullptr)); }

 private:
  std::string m_directory;
  UniqueFd m_listeners[std::size(kParties)];
};

void Ask(Connection& connection, natclient_party party) {
  Command command;
  command.party = party;
  command.destination = "192.0.2.1";
  command.items.resize(1);
  for (const CommandKind kind : {CommandKind::CS, CommandKind::CS_LIST, CommandKind::RTP, CommandKind::UPDATE}) {
    command.kind = kind;
    const bool isUpdate = kind == CommandKind::UPDATE;
    fuzz::Require((connection.Send(command, 1) == 0) == (isUpdate == (party == NATCLIENT_CGI)), "a party's requests");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Queues s_queues;
  if (size == 0) {
    return 0;
  }
  const std::size_t party = data[0] % std::size(kParties);
  std::string_view input = fuzz::Text(data + 1, size - 1);
  Printer printer(true);
  Connection connection(kParties[party], printer);
  fuzz::Require(connection.Open(s_queues.Directory()) == 0, "a connection");
  UniqueFd agent = s_queues.Accept(party);
  Ask(connection, kParties[party]);
  while (const auto packet = fuzz::TakePacket(input)) {
    // An empty packet would be read as the end.
    if (!packet->bytes.empty() &&
        ::send(agent.Get(), packet->bytes.data(), packet->bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      break;
    }
  }
  agent = {};
  while (connection.Dispatch()) {
  }
  connection.GiveUpAll();
  fuzz::Require(connection.WaitingCount() == 0, "every request is accounted for");
  return 0;
}
