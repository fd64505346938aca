#include "tools/stun_command.h"

#include <string_view>

#include "tools/parsing.h"

namespace {

std::optional<u16> ParsePort(std::string_view word) {
  const auto port = ParseNumber(word, 65535);
  return port && *port != 0 ? std::optional(static_cast<u16>(*port)) : std::nullopt;
}

std::optional<StunCommand::Server> ParseServer(std::string_view word) {
  const std::size_t colon = word.find(':');
  StunCommand::Server server{std::string(word.substr(0, colon))};
  if (server.host.empty() || server.host.front() == '-') return std::nullopt;
  if (colon == std::string_view::npos) return server;
  const auto port = ParsePort(word.substr(colon + 1));
  if (!port) return std::nullopt;
  server.port = *port;
  return server;
}

}  // namespace

StunCommandResult ParseStunCommand(const std::vector<std::string>& words) {
  constexpr std::string_view kLocalPort = "--local-port";
  StunCommand command;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == kLocalPort || word.starts_with(std::string(kLocalPort) + "=")) {
      const bool isJoined = word != kLocalPort;
      if (!isJoined && ++i == words.size()) return {std::nullopt, "stun: --local-port: N is missing"};
      const std::string number = isJoined ? word.substr(kLocalPort.size() + 1) : words[i];
      const auto port = ParsePort(number);
      if (!port) return {std::nullopt, "stun: --local-port: '" + number + "' is not a port, 1 to 65535"};
      if (command.localPort != 0) return {std::nullopt, "stun: --local-port is given twice"};
      command.localPort = *port;
      continue;
    }
    auto server = ParseServer(word);
    if (!server) return {std::nullopt, "stun: '" + word + "' is not HOST[:PORT] or --local-port"};
    command.servers.push_back(std::move(*server));
  }
  if (command.servers.empty()) return {std::nullopt, "stun: HOST[:PORT] is missing"};
  return {std::move(command), {}};
}
